#include "mesh/fbx_reader.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "mesh/fbx_test_scene.h"
#include "mesh/mesh_test_util.h"
#include "support/test_support.h"

namespace kv {
namespace {

using test::FbxPart;
using test::ScratchDir;

using Vec3 = std::array<float, 3>;

Vec3 corner_position(const Mesh& m, std::size_t t, std::size_t k) {
  return m.positions[m.triangles[t].corners[k].position];
}

// A quad, a convex pentagon and a triangle, with normals and UVs.
FbxPart panel() {
  FbxPart p;
  p.name = "Panel";
  p.material = "paint";
  p.positions = {{0, 0, 0}, {1, 0, 0}, {1, 1, 0},    {0, 1, 0},                   // quad
                 {3, 0, 0}, {4, 0, 0}, {4.5f, 1, 0}, {3.5f, 2, 0}, {2.5f, 1, 0},  // pentagon
                 {6, 0, 0}, {7, 0, 0}, {6, 1, 0}};                                // triangle
  for (const auto& q : p.positions) {
    p.normals.push_back({0, 0, 1});
    p.uvs.push_back({q[0] / 8, q[1] / 2});
  }
  p.faces = {{0, 1, 2, 3}, {4, 5, 6, 7, 8}, {9, 10, 11}};
  p.translation = {0, 0, 5};
  return p;
}

Mesh read(const std::filesystem::path& path, MeshStats* stats = nullptr,
          MeshReadOptions options = {}) {
  return read_fbx(path, options, stats);
}

TEST(FbxReader, PolygonsFollowTheFaceRuleAndNodesPlaceThem) {
  ScratchDir dir;
  ASSERT_EQ(test::write_fbx({panel()}, dir / "p.fbx"), "");
  MeshStats stats;
  stats.lines = 9;
  const Mesh m = read(dir / "p.fbx", &stats);
  EXPECT_EQ(stats.quads_split, 1u);
  EXPECT_EQ(stats.polygons_inexact, 0u);
  EXPECT_EQ(stats.lines, 0u);
  ASSERT_EQ(m.triangles.size(), 2u + 3u + 1u);
  // The quad a b c d becomes (a, b, d) and (b, c, d); the convex pentagon
  // keeps its fan from corner 0.
  const std::vector<std::array<Vec3, 3>> expected = {
      {{{0, 0, 5}, {1, 0, 5}, {0, 1, 5}}},       {{{1, 0, 5}, {1, 1, 5}, {0, 1, 5}}},
      {{{3, 0, 5}, {4, 0, 5}, {4.5f, 1, 5}}},    {{{3, 0, 5}, {4.5f, 1, 5}, {3.5f, 2, 5}}},
      {{{3, 0, 5}, {3.5f, 2, 5}, {2.5f, 1, 5}}}, {{{6, 0, 5}, {7, 0, 5}, {6, 1, 5}}}};
  for (std::size_t t = 0; t < expected.size(); ++t) {
    for (std::size_t k = 0; k < 3; ++k) {
      EXPECT_EQ(corner_position(m, t, k), expected[t][k]) << t << " " << k;
    }
  }
  // UVs as stored (FBX shares OBJ's v direction), normals unit.
  const Corner& c = m.triangles[1].corners[1];
  ASSERT_GE(c.uv, 0);
  EXPECT_NEAR(m.uvs[c.uv][0], 1.0 / 8, 1e-7);
  EXPECT_NEAR(m.uvs[c.uv][1], 0.5, 1e-7);
  ASSERT_GE(c.normal, 0);
  EXPECT_EQ(m.normals[c.normal], (Vec3{0, 0, 1}));
  EXPECT_EQ(m.objects, std::vector<std::string>{"Panel"});
  EXPECT_EQ(m.materials, std::vector<std::string>{"paint"});
  EXPECT_EQ(m.triangle_materials, LargeArray<std::uint32_t>(6, 0));

  // The face policies refuse the quad, then the pentagon.
  MeshReadOptions options;
  const std::string prefix = (dir / "p.fbx").string() + ": ";
  options.quads = QuadPolicy::reject;
  EXPECT_EQ(test::error_of([&] { read(dir / "p.fbx", nullptr, options); }, prefix),
            "quad face, but quads are set to be rejected; triangulate the mesh before export");
  options.quads = QuadPolicy::split;
  options.polygons = PolygonPolicy::reject;
  EXPECT_EQ(test::error_of([&] { read(dir / "p.fbx", nullptr, options); }, prefix),
            "face with 5 corners, but polygons are set to be rejected; triangulate the mesh before "
            "export");
}

double signed_area(const Vec3& a, const Vec3& b, const Vec3& c) {
  return 0.5 * ((double{b[0]} - a[0]) * (double{c[1]} - a[1]) -
                (double{b[1]} - a[1]) * (double{c[0]} - a[0]));
}

TEST(FbxReader, ConcavePolygonsAreRetriangulatedToCoverTheirArea) {
  ScratchDir dir;
  FbxPart arrow;
  arrow.name = "Arrow";
  // A concave hexagon whose fan from corner 0 would reach outside it.
  arrow.positions = {{0, 0, 0}, {4, 0, 0}, {4, 4, 0}, {3, 4, 0}, {3, 1, 0}, {0, 1, 0}};
  arrow.faces = {{0, 1, 2, 3, 4, 5}};
  ASSERT_EQ(test::write_fbx({arrow}, dir / "a.fbx"), "");
  MeshStats stats;
  const Mesh m = read(dir / "a.fbx", &stats);
  EXPECT_EQ(stats.polygons_inexact, 0u);
  ASSERT_EQ(m.triangles.size(), 4u);
  double total = 0;
  for (std::size_t t = 0; t < 4; ++t) {
    const double area =
        signed_area(corner_position(m, t, 0), corner_position(m, t, 1), corner_position(m, t, 2));
    EXPECT_GT(area, 0.0) << "triangle " << t;
    total += area;
  }
  EXPECT_DOUBLE_EQ(total, 4.0 + 3.0);  // the 4 x 1 bar and the 1 x 3 post

  // The polygons are re-triangulated on the worker threads: the same result
  // on one and on two.
  std::vector<FbxPart> many(40, arrow);
  for (std::size_t i = 0; i < many.size(); ++i) {
    many[i].name = "Arrow" + std::to_string(i);
    many[i].translation = {static_cast<float>(i) * 5, 0, 0};
  }
  ASSERT_EQ(test::write_fbx(many, dir / "many.fbx"), "");
  MeshReadOptions options;
  options.threads = 1;
  const Mesh a = read(dir / "many.fbx", nullptr, options);
  options.threads = 2;
  ASSERT_EQ(a.triangles.size(), 160u);
  test::expect_same_mesh(a, read(dir / "many.fbx", nullptr, options));
}

TEST(FbxReader, EveryNodeIsOneObjectWithAUniqueName) {
  ScratchDir dir;
  FbxPart a = panel();
  a.name = "Part";
  FbxPart b = panel();
  b.name = "Part";
  b.translation = {0, 10, 0};
  b.material = "metal";
  FbxPart c = panel();
  c.name = "Part.1";
  c.material = "paint";
  ASSERT_EQ(test::write_fbx({a, b, c}, dir / "parts.fbx"), "");
  const Mesh m = read(dir / "parts.fbx");
  EXPECT_EQ(m.objects, (std::vector<std::string>{"Part", "Part.1", "Part.1.1"}));
  EXPECT_EQ(m.materials, (std::vector<std::string>{"paint", "metal"}));
  ASSERT_EQ(m.triangles.size(), 18u);
  for (std::size_t t = 0; t < m.triangles.size(); ++t) {
    EXPECT_EQ(m.triangles[t].object, t / 6);
    EXPECT_EQ(m.triangle_materials[t], t / 6 == 1 ? 1u : 0u);
  }
  EXPECT_EQ(corner_position(m, 6, 0), (Vec3{0, 10, 0}));
  EXPECT_EQ(corner_position(m, 12, 0), (Vec3{0, 0, 5}));
}

TEST(FbxReader, MirroringNodesReverseTheWindingAndKeepTheQuadDiagonal) {
  ScratchDir dir;
  FbxPart p = panel();
  p.scale = {-1, 1, 1};
  p.translation = {0, 0, 0};
  ASSERT_EQ(test::write_fbx({p}, dir / "m.fbx"), "");
  const Mesh m = read(dir / "m.fbx");
  // The exporter stores the mirror as a rotation and a scale: float rounding.
  auto expect_near = [](const Vec3& got, const Vec3& want) {
    for (std::size_t i = 0; i < 3; ++i) {
      EXPECT_NEAR(got[i], want[i], 1e-6f) << "component " << i;
    }
  };
  // The quad a b c d mirrored is read as a d c b: (a, d, b) and (d, c, b).
  expect_near(corner_position(m, 0, 0), {0, 0, 0});
  expect_near(corner_position(m, 0, 1), {0, 1, 0});
  expect_near(corner_position(m, 0, 2), {-1, 0, 0});
  expect_near(corner_position(m, 1, 1), {-1, 1, 0});
  for (std::size_t t = 0; t < m.triangles.size(); ++t) {
    EXPECT_GT(
        signed_area(corner_position(m, t, 0), corner_position(m, t, 1), corner_position(m, t, 2)),
        0.0)
        << "triangle " << t << " faces away from its normal";
    expect_near(m.normals[m.triangles[t].corners[0].normal], {0, 0, 1});
  }
}

TEST(FbxReader, UnreadableFilesAreRefusedWithThePath) {
  ScratchDir dir;
  test::write_text_file(dir / "junk.fbx", "Kaydara FBX Binary  \0\x1a\0 but nothing else");
  EXPECT_NE(test::error_of([&] { read(dir / "junk.fbx"); },
                           (dir / "junk.fbx").string() + ": not a readable FBX file"),
            "");
  EXPECT_EQ(test::error_of([&] { read(dir / "missing.fbx"); }),
            "cannot open mesh file: " + (dir / "missing.fbx").string());
  // Only lines and points: nothing to bake.
  FbxPart lines;
  lines.name = "Wire";
  lines.positions = {{0, 0, 0}, {1, 0, 0}, {1, 1, 0}};
  lines.faces = {{0, 1}, {1, 2}};
  ASSERT_EQ(test::write_fbx({lines}, dir / "wire.fbx"), "");
  EXPECT_NE(test::error_of([&] { read(dir / "wire.fbx"); }, (dir / "wire.fbx").string() + ": "),
            "");
}

}  // namespace
}  // namespace kv
