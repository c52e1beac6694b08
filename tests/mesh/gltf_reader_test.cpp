#include "mesh/gltf_reader.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "mesh/gltf_test_builder.h"
#include "mesh/mesh_test_util.h"
#include "support/test_support.h"

namespace kv {
namespace {

using nlohmann::json;
using test::GltfBuilder;
using test::ScratchDir;

Mesh read_text(const ScratchDir& dir, const std::string& bytes, const std::string& name) {
  test::write_text_file(dir / name, bytes);
  return read_gltf(dir / name, MeshReadOptions{});
}

// The message of the refusal, less the path ("" when read).
std::string refusal(const std::string& bytes, const std::string& name = "m.gltf") {
  ScratchDir dir;
  test::write_text_file(dir / name, bytes);
  return test::error_of([&] { read_gltf(dir / name, MeshReadOptions{}); },
                        (dir / name).string() + ": ");
}

const std::vector<float> kQuad = {0, 0, 0, 1, 0, 0, 1, 1, 0, 0, 1, 0};

// A unit quad in the xy plane as two indexed triangles, with normals and UVs.
GltfBuilder quad_scene(const json& node) {
  GltfBuilder b;
  const int p = b.vec3(kQuad);
  const int n = b.vec3({0, 0, 1, 0, 0, 1, 0, 0, 1, 0, 0, 1});
  const int t = b.vec2({0, 0, 1, 0, 1, 0.25f, 0, 1});
  const int i = b.indices_u32({0, 1, 2, 0, 2, 3});
  b.doc["materials"] = json::array({{{"name", "paint"}}});
  b.mesh("QuadMesh", p, n, t, i, 4, 0);
  json with_mesh = node;
  with_mesh["mesh"] = 0;
  b.scene({b.node(with_mesh)});
  return b;
}

TEST(GltfReader, PlacesVerticesByTheNodeAndTurnsVToTheObjConvention) {
  ScratchDir dir;
  const GltfBuilder b =
      quad_scene({{"name", "Quad"}, {"translation", {10, 0, 0}}, {"scale", {2, 2, 2}}});
  MeshStats stats;
  stats.quads_split = 7;
  test::write_text_file(dir / "q.gltf", b.gltf_text());
  const Mesh m = read_gltf(dir / "q.gltf", MeshReadOptions{}, &stats);
  EXPECT_EQ(stats.quads_split, 0u);
  EXPECT_EQ(m.positions,
            (std::vector<std::array<float, 3>>{{10, 0, 0}, {12, 0, 0}, {12, 2, 0}, {10, 2, 0}}));
  EXPECT_EQ(m.uvs, (std::vector<std::array<double, 2>>{{0, 1}, {1, 1}, {1, 0.75}, {0, 0}}));
  EXPECT_EQ(m.normals, (std::vector<std::array<float, 3>>(4, {0, 0, 1})));
  ASSERT_EQ(m.triangles.size(), 2u);
  const auto& c = m.triangles[1].corners;
  EXPECT_EQ(std::tuple(c[0].position, c[1].position, c[2].position, c[2].uv, c[2].normal),
            std::tuple(0u, 2u, 3u, 3, 3));
  EXPECT_EQ(m.objects, std::vector<std::string>{"Quad"});
  EXPECT_EQ(m.materials, std::vector<std::string>{"paint"});
  EXPECT_EQ(m.triangle_materials, (std::vector<std::uint32_t>{0, 0}));

  // The same document as .glb, and with the buffer in a file beside it.
  test::expect_same_mesh(read_text(dir, b.glb_bytes(), "q.glb"), m);
  test::write_text_file(dir / "q.bin", b.bin);
  json external = b.finished();
  external["buffers"][0]["uri"] = "q.bin";
  test::expect_same_mesh(read_text(dir, external.dump(), "external.gltf"), m);
}

TEST(GltfReader, WalksTheSceneDepthFirstAndNamesObjectsUniquely) {
  ScratchDir dir;
  GltfBuilder b;
  const int p = b.vec3({1, 0, 0, 0, 1, 0, 0, 0, 1});
  b.mesh("Part", p);
  b.mesh("", p);
  const double h = std::sqrt(0.5);
  const int child = b.node({{"mesh", 0}, {"rotation", {0, 0, h, h}}});
  const int body =
      b.node({{"name", "Body"}, {"mesh", 0}, {"translation", {0, 0, 5}}, {"children", {child}}});
  const int body2 = b.node({{"name", "Body"}, {"mesh", 1}});
  const int anonymous = b.node({{"mesh", 1}});
  const int empty = b.node({{"name", "Empty"}});  // no mesh: no object
  b.scene({body, empty, body2, anonymous});
  const Mesh m = read_text(dir, b.gltf_text(), "s.gltf");
  EXPECT_EQ(m.objects, (std::vector<std::string>{"Body", "Part", "Body.1", "node 3"}));
  ASSERT_EQ(m.triangles.size(), 4u);
  for (std::uint32_t t = 0; t < 4; ++t) {
    EXPECT_EQ(m.triangles[t].object, t);
  }
  // The child: rotated a quarter turn about z, then lifted by its parent.
  const auto& rotated = m.positions[m.triangles[1].corners[0].position];
  for (int i = 0; i < 3; ++i) {
    EXPECT_NEAR(rotated[i], (std::array<float, 3>{0, 1, 5})[i], 1e-7f) << i;
  }
  EXPECT_EQ(m.positions[m.triangles[0].corners[2].position], (std::array<float, 3>{0, 0, 6}));
  EXPECT_EQ(m.materials, std::vector<std::string>{"default"});
  EXPECT_TRUE(m.uvs.empty());
  EXPECT_EQ(std::pair(m.triangles[2].corners[0].uv, m.triangles[2].corners[0].normal),
            std::pair(-1, -1));

  // A matrix given column by column places like the equivalent TRS.
  GltfBuilder mb;
  mb.mesh("M", mb.vec3({1, 2, 3, 0, 0, 0, 0, 1, 0}));
  mb.scene({mb.node({{"mesh", 0}, {"matrix", {2, 0, 0, 0, 0, 3, 0, 0, 0, 0, 4, 0, 7, 8, 9, 1}}})});
  const Mesh mm = read_text(dir, mb.gltf_text(), "matrix.gltf");
  EXPECT_EQ(mm.positions[0], (std::array<float, 3>{9, 14, 21}));
}

TEST(GltfReader, NormalsFollowTheInverseTransposeAndMirrorsKeepFacesOutward) {
  ScratchDir dir;
  for (const bool mirror : {false, true}) {
    SCOPED_TRACE(mirror);
    GltfBuilder b;
    const int p = b.vec3({0, 0, 0, 1, 0, 0, 0, 1, 0});
    const float r = std::sqrt(0.5f);
    const int n = b.vec3({r, r, 0, r, r, 0, 0, 0, 1});
    b.mesh("Tri", p, n);
    b.scene({b.node({{"mesh", 0}, {"scale", {mirror ? -2 : 2, 1, 1}}})});
    const Mesh m = read_text(dir, b.gltf_text(), "n.gltf");
    const float sign = mirror ? -1.0f : 1.0f;
    // (1, 1, 0) scaled by (1/2, 1, 1): direction (1, 2, 0) / sqrt(5).
    EXPECT_NEAR(m.normals[0][0], sign * 1.0f / std::sqrt(5.0f), 1e-6f);
    EXPECT_NEAR(m.normals[0][1], 2.0f / std::sqrt(5.0f), 1e-6f);
    EXPECT_EQ(m.normals[2], (std::array<float, 3>{0, 0, 1}));
    // A mirror swaps two corners, whole, so the face still points along +z.
    const auto& c = m.triangles[0].corners;
    EXPECT_EQ(std::tuple(c[0].position, c[1].position, c[2].position, c[1].normal),
              mirror ? std::tuple(0u, 2u, 1u, 2) : std::tuple(0u, 1u, 2u, 1));
  }
}

TEST(GltfReader, ReadsEveryComponentTypeStridesAndSparseAccessors) {
  ScratchDir dir;
  GltfBuilder b;
  // Quantized positions: normalized shorts and plain unsigned bytes.
  const int shorts = b.accessor(
      b.view(GltfBuilder::pack<std::int16_t>({32767, 0, -32768, 0, -32767, 16384, 0, 0, 0})),
      test::kShort, "VEC3", 3, 0, true);
  const int bytes = b.accessor(b.view(GltfBuilder::pack<std::uint8_t>({3, 0, 0, 0, 7, 0, 0, 0, 0})),
                               test::kUByte, "VEC3", 3);
  // UVs as normalized unsigned bytes and shorts.
  const int uv8 = b.accessor(b.view(GltfBuilder::pack<std::uint8_t>({255, 51, 0, 255, 0, 0})),
                             test::kUByte, "VEC2", 3, 0, true);
  const int uv16 =
      b.accessor(b.view(GltfBuilder::pack<std::uint16_t>({65535, 0, 13107, 65535, 0, 0})),
                 test::kUShort, "VEC2", 3, 0, true);
  const int i8 =
      b.accessor(b.view(GltfBuilder::pack<std::uint8_t>({2, 1, 0})), test::kUByte, "SCALAR", 3);
  const int i16 =
      b.accessor(b.view(GltfBuilder::pack<std::uint16_t>({0, 2, 1})), test::kUShort, "SCALAR", 3);
  // Positions and normals interleaved in one view with a 24-byte stride.
  const int inter =
      b.view(GltfBuilder::pack<float>({0, 0, 0, 0, 0, 1, 4, 0, 0, 0, 0, 1, 0, 4, 0, 0, 0, 1}), 24);
  const int ip = b.accessor(inter, test::kFloat, "VEC3", 3);
  const int in = b.accessor(inter, test::kFloat, "VEC3", 3, 12);
  b.mesh("A", shorts, -1, uv8, i8);
  b.mesh("B", bytes, -1, uv16, i16);
  b.mesh("C", ip, in);
  b.scene({b.node({{"mesh", 0}}), b.node({{"mesh", 1}}), b.node({{"mesh", 2}})});
  const Mesh m = read_text(dir, b.gltf_text(), "types.gltf");
  ASSERT_EQ(m.positions.size(), 9u);
  EXPECT_EQ(m.positions[0], (std::array<float, 3>{1, 0, -1}));
  EXPECT_EQ(m.positions[1][1], -1.0f);
  EXPECT_EQ(m.positions[1][2], static_cast<float>(16384 / 32767.0));
  EXPECT_EQ(m.positions[3], (std::array<float, 3>{3, 0, 0}));
  EXPECT_EQ(m.positions[4], (std::array<float, 3>{0, 7, 0}));
  EXPECT_EQ(m.positions[7], (std::array<float, 3>{4, 0, 0}));
  EXPECT_EQ(m.normals.size(), 3u);
  EXPECT_EQ(m.normals[1], (std::array<float, 3>{0, 0, 1}));
  EXPECT_EQ(m.uvs[0], (std::array<double, 2>{1, 1 - 51 / 255.0}));
  EXPECT_EQ(m.uvs[4], (std::array<double, 2>{13107 / 65535.0, 0}));
  EXPECT_EQ(m.triangles[0].corners[0].position, 2u);
  EXPECT_EQ(m.triangles[1].corners[1].position, 5u);
  EXPECT_EQ(m.triangles[2].corners[2].normal, 2);

  // Sparse: one substituted element over a view, and over implicit zeros.
  GltfBuilder s;
  const int base = s.vec3({0, 0, 0, 1, 0, 0, 0, 1, 0});
  const int sparse_indices = s.view(GltfBuilder::pack<std::uint16_t>({2, 0}));
  const int sparse_values = s.view(GltfBuilder::pack<float>({5, 5, 5, 6, 6, 6}));
  json sparse = {{"count", 1},
                 {"indices", {{"bufferView", sparse_indices}, {"componentType", test::kUShort}}},
                 {"values", {{"bufferView", sparse_values}}}};
  s.doc["accessors"][base]["sparse"] = sparse;
  const int zeros = s.accessor(-1, test::kFloat, "VEC3", 3);
  sparse["count"] = 2;
  s.doc["accessors"][zeros]["sparse"] = sparse;
  s.mesh("S", base);
  s.mesh("Z", zeros);
  s.scene({s.node({{"mesh", 0}}), s.node({{"mesh", 1}})});
  const Mesh sm = read_text(dir, s.gltf_text(), "sparse.gltf");
  EXPECT_EQ(sm.positions[1], (std::array<float, 3>{1, 0, 0}));
  EXPECT_EQ(sm.positions[2], (std::array<float, 3>{5, 5, 5}));
  EXPECT_EQ(sm.positions[3], (std::array<float, 3>{6, 6, 6}));
  EXPECT_EQ(sm.positions[4], (std::array<float, 3>{0, 0, 0}));
  EXPECT_EQ(sm.positions[5], (std::array<float, 3>{5, 5, 5}));
}

TEST(GltfReader, UnrollsStripsAndFansAndSkipsPointsAndLines) {
  ScratchDir dir;
  GltfBuilder b;
  const int p = b.vec3({0, 0, 0, 1, 0, 0, 0, 1, 0, 1, 1, 0, 2, 1, 0});
  b.mesh("Strip", p, -1, -1, -1, 5);
  b.mesh("Fan", p, -1, -1, -1, 6);
  b.mesh("Lines", p, -1, -1, -1, 1);
  b.mesh("Points", p, -1, -1, -1, 0);
  // A strip joined by a repeated vertex: the degenerate joints are dropped.
  b.mesh("Joined", p, -1, -1, b.indices_u32({0, 1, 2, 2, 2, 3, 4}), 5);
  b.scene({b.node({{"mesh", 0}}), b.node({{"mesh", 1}}), b.node({{"mesh", 2}}),
           b.node({{"mesh", 3}}), b.node({{"mesh", 4}})});
  const Mesh m = read_text(dir, b.gltf_text(), "strip.gltf");
  auto corners = [&](std::size_t t) {
    const auto& c = m.triangles[t].corners;
    // Local vertex numbers within the primitive (5 vertices each).
    return std::array<std::uint32_t, 3>{c[0].position % 5, c[1].position % 5, c[2].position % 5};
  };
  ASSERT_EQ(m.triangles.size(), 3u + 3u + 2u);
  EXPECT_EQ(corners(0), (std::array<std::uint32_t, 3>{0, 1, 2}));
  EXPECT_EQ(corners(1), (std::array<std::uint32_t, 3>{1, 3, 2}));
  EXPECT_EQ(corners(2), (std::array<std::uint32_t, 3>{2, 3, 4}));
  EXPECT_EQ(corners(3), (std::array<std::uint32_t, 3>{1, 2, 0}));
  EXPECT_EQ(corners(5), (std::array<std::uint32_t, 3>{3, 4, 0}));
  EXPECT_EQ(corners(6), (std::array<std::uint32_t, 3>{0, 1, 2}));
  EXPECT_EQ(corners(7), (std::array<std::uint32_t, 3>{2, 3, 4}));
  EXPECT_EQ(m.objects, (std::vector<std::string>{"Strip", "Fan", "Joined"}));
}

TEST(GltfReader, RefusesFilesItCannotReadFaithfully) {
  auto with = [](auto change) {
    GltfBuilder b = quad_scene({{"name", "Q"}});
    change(b);
    return b.gltf_text();
  };
  EXPECT_EQ(refusal(with([](GltfBuilder& b) {
              b.doc["extensionsUsed"] = {"KHR_draco_mesh_compression"};
              b.doc["extensionsRequired"] = {"KHR_draco_mesh_compression"};
            })),
            "the file needs the glTF extension KHR_draco_mesh_compression, which this reader "
            "does not support");
  EXPECT_EQ(refusal(with([](GltfBuilder& b) {
              b.doc["extensionsRequired"] = {"KHR_materials_emissive_strength",
                                             "EXT_meshopt_compression"};
            })),
            "the file needs the glTF extension EXT_meshopt_compression, which this reader does "
            "not support");
  EXPECT_EQ(refusal(with([](GltfBuilder& b) {
              b.doc["extensionsRequired"] = {"KHR_mesh_quantization", "KHR_texture_transform"};
            })),
            "");
  // Draco only "used", with the compressed primitive lacking plain data.
  EXPECT_EQ(refusal(with([](GltfBuilder& b) {
              b.doc["accessors"][0].erase("bufferView");
              b.doc["meshes"][0]["primitives"][0]["extensions"]["KHR_draco_mesh_compression"] = {
                  {"bufferView", 0}, {"attributes", {{"POSITION", 0}}}};
            })),
            "the file needs the glTF extension KHR_draco_mesh_compression, which this reader "
            "does not support");

  EXPECT_EQ(refusal(with([](GltfBuilder& b) { b.doc["accessors"][3]["count"] = 5; })),
            "mesh 'QuadMesh' primitive 0 has 5 indices, which is not a multiple of 3");
  EXPECT_EQ(refusal(with([](GltfBuilder& b) {
              b.doc["accessors"][3]["count"] = 5;
              b.doc["meshes"][0].erase("name");
            })),
            "mesh 0 primitive 0 has 5 indices, which is not a multiple of 3");
  EXPECT_EQ(refusal(with([](GltfBuilder& b) { b.doc["accessors"][3]["count"] = 7; })),
            "accessor 3 (mesh 'QuadMesh' primitive 0 indices) reads past the end of buffer "
            "view 3");
  EXPECT_EQ(refusal(with([](GltfBuilder& b) { b.doc["accessors"][0]["count"] = 3; })),
            "mesh 'QuadMesh' primitive 0 has 4 normals for 3 positions");
  EXPECT_EQ(refusal(with([](GltfBuilder& b) { b.doc["accessors"][1]["type"] = "VEC2"; })),
            "accessor 1 (mesh 'QuadMesh' primitive 0 NORMAL) must hold VEC3 elements");
  EXPECT_EQ(refusal(with([](GltfBuilder& b) {
              b.bin.replace(b.bin.size() - 4, 4, GltfBuilder::pack<std::uint32_t>({4}));
            })),
            "mesh 'QuadMesh' primitive 0 has the index 4 at position 5, but only 4 vertices");
  EXPECT_EQ(
      refusal(with([](GltfBuilder& b) { b.bin.replace(0, 4, GltfBuilder::pack<float>({NAN})); })),
      "mesh 'QuadMesh' primitive 0 has the position 0, which is not finite");
  EXPECT_EQ(refusal(with([](GltfBuilder& b) {
              b.bin.replace(48, 12, GltfBuilder::pack<float>({0, 0, 0}));
            })),
            "mesh 'QuadMesh' primitive 0 has the normal 0, which has no direction");
  EXPECT_EQ(refusal(with([](GltfBuilder& b) { b.doc["bufferViews"][0]["byteLength"] = 4096; })),
            "buffer view 0 lies past the end of buffer 0");
  EXPECT_EQ(refusal(with([](GltfBuilder& b) { b.doc["nodes"][0]["children"] = {0}; })),
            "node 0 appears twice in the node hierarchy");
  EXPECT_EQ(refusal(with([](GltfBuilder& b) { b.doc["nodes"][0]["mesh"] = 4; })),
            "node 0 refers to mesh 4, which does not exist");
  EXPECT_EQ(refusal(with([](GltfBuilder& b) { b.doc["meshes"][0]["primitives"][0]["mode"] = 1; })),
            "mesh has no faces");

  for (const auto& [bytes, name] :
       {std::pair("{ this is not json", "m.gltf"), std::pair("glTF\x02\0\0\0garbage", "m.glb")}) {
    EXPECT_EQ(refusal(bytes, name).rfind("not a readable glTF file", 0), 0u) << name;
  }

  ScratchDir dir;
  EXPECT_EQ(test::error_of([&] { read_gltf(dir / "none.glb", MeshReadOptions{}); }),
            "cannot open mesh file: " + (dir / "none.glb").string());
}

}  // namespace
}  // namespace kv
