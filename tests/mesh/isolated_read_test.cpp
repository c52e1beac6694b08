#include "mesh/isolated_read.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "mesh/fbx_test_scene.h"
#include "mesh/gltf_test_builder.h"
#include "mesh/mesh_format.h"
#include "mesh/mesh_test_util.h"
#include "support/message_of.h"
#include "support/test_support.h"

namespace kv {
namespace {

using test::ScratchDir;

// Two nodes placing one mesh (the second mirrored), a second mesh with a
// material of its own, UVs and normals that float32 rounding touches.
test::GltfBuilder two_placed_meshes() {
  test::GltfBuilder b;
  const int p = b.vec3({0, 0, 0, 1, 0, 0, 1, 1, 0.1f, 0, 1, 0.3f, 2, 0.5f, 0.7f});
  const int n = b.vec3({0, 0, 1, 0, 0.6f, 0.8f, 0.3f, 0.4f, 0.5f, 0, 0, 1, 1, 2, 2});
  const int t = b.vec2({0.1f, 0.2f, 0.9f, 1.0f / 3, 0.5f, 0.5f, 0, 1, 0.7f, 0.125f});
  b.doc["materials"] = {{{"name", "paint"}}, {{"name", "metal"}}};
  b.mesh("Plate", p, n, t, b.indices_u32({0, 1, 3, 1, 2, 3}), 4, 0);
  b.mesh("Spike", p, n, t, b.indices_u32({1, 4, 2}), 4, 1);
  b.scene({b.node({{"name", "A"}, {"mesh", 0}, {"translation", {0.25, 0, 1}}}),
           b.node({{"name", "A"}, {"mesh", 0}, {"scale", {-1, 1, 1}}}),
           b.node({{"mesh", 1}, {"rotation", {0, 0, 0.6, 0.8}}})});
  return b;
}

// A quad, a pentagon that is not convex and a triangle in two nodes.
std::vector<test::FbxPart> fbx_parts() {
  test::FbxPart a;
  a.name = "Panel";
  a.material = "paint";
  a.positions = {{0, 0, 0}, {1, 0, 0}, {1, 1, 0},    {0, 1, 0}, {3, 0, 0},
                 {5, 0, 0}, {5, 2, 0}, {4, 0.5f, 0}, {3, 2, 0}};
  for (const auto& q : a.positions) {
    a.normals.push_back({0, 0.6f, 0.8f});
    a.uvs.push_back({q[0] / 7, q[1] / 3});
  }
  a.faces = {{0, 1, 2, 3}, {4, 5, 6, 7, 8}};
  a.translation = {0, 0, 5};
  test::FbxPart b;
  b.name = "Tip";
  b.positions = {{6, 0, 0}, {7, 0, 0}, {6, 1, 0}};
  b.faces = {{0, 1, 2}};
  b.scale = {2, -1, 1};
  return {a, b};
}

void expect_same_stats(const MeshStats& a, const MeshStats& b) {
  EXPECT_EQ(a.lines, b.lines);
  EXPECT_EQ(a.quads_split, b.quads_split);
  EXPECT_EQ(a.polygons, b.polygons);
  EXPECT_EQ(a.polygons_inexact, b.polygons_inexact);
}

// Reads the file both ways; every array and counter must agree bit for bit.
void expect_read_alike(const std::filesystem::path& path, const MeshReadOptions& options = {}) {
  SCOPED_TRACE(path.string());
  MeshStats here{1, 2, 3, 4}, there{5, 6, 7, 8};
  const Mesh in_process = read_mesh_in_process(path, options, &here);
  const Mesh isolated = read_mesh(path, options, &there);
  test::expect_same_mesh(in_process, isolated);
  EXPECT_EQ(in_process.object_alt_names, isolated.object_alt_names);
  EXPECT_TRUE(test::same_bytes(in_process.polygroups, isolated.polygroups));
  EXPECT_TRUE(test::same_bytes(in_process.colors, isolated.colors));
  EXPECT_EQ(in_process.blocks, isolated.blocks);
  EXPECT_TRUE(test::same_bytes(in_process.object_blocks, isolated.object_blocks));
  expect_same_stats(here, there);
}

// Starts each test with children that read normally and a parent that may
// read their memory, and leaves it so.
class IsolatedFaults : public ::testing::Test {
 protected:
  void SetUp() override { reset(); }
  void TearDown() override { reset(); }
  static void reset() {
    detail::set_child_fault(detail::ChildFault::none);
    detail::set_read_child_memory(true);
  }
};

// One mesh without UVs, one without normals, one with neither.
test::GltfBuilder partly_bare_meshes() {
  test::GltfBuilder b;
  const int p = b.vec3({0, 0, 0, 1, 0, 0, 1, 1, 0.1f, 0, 1, 0.3f});
  const int n = b.vec3({0, 0, 1, 0, 0.6f, 0.8f, 0.3f, 0.4f, 0.5f, 0, 0, 1});
  const int t = b.vec2({0.1f, 0.2f, 0.9f, 1.0f / 3, 0.5f, 0.5f, 0, 1});
  b.mesh("NoUvs", p, n, -1, b.indices_u32({0, 1, 2}));
  b.mesh("NoNormals", p, -1, t, b.indices_u32({0, 2, 3}));
  b.mesh("Bare", p, -1, -1, b.indices_u32({1, 2, 3, 0, 1, 3}));
  b.scene_of_meshes();
  return b;
}

TEST_F(IsolatedFaults, MeshesAreTheInProcessMeshesByteForByte) {
  ScratchDir dir;
  const test::GltfBuilder gltf = two_placed_meshes();
  test::write_text_file(dir / "scene.gltf", gltf.gltf_text());
  test::write_text_file(dir / "scene.glb", gltf.glb_bytes());
  test::write_text_file(dir / "bare.glb", partly_bare_meshes().glb_bytes());
  ASSERT_EQ(test::write_fbx(fbx_parts(), dir / "parts.fbx"), "");
  // Straight from the child's memory, then through the file it writes.
  for (const bool from_memory : {true, false}) {
    SCOPED_TRACE(from_memory ? "from the child's memory" : "through a file");
    detail::set_read_child_memory(from_memory);
    for (const char* name : {"scene.gltf", "scene.glb", "bare.glb", "parts.fbx"}) {
      expect_read_alike(dir / name);
    }
  }
  // The counters, names and missing arrays came through, not only arrays.
  MeshStats stats;
  const Mesh fbx = read_mesh(dir / "parts.fbx", {}, &stats);
  EXPECT_EQ(stats.quads_split, 1u);
  EXPECT_EQ(fbx.objects, (std::vector<std::string>{"Panel", "Tip"}));
  const Mesh glb = read_mesh(dir / "scene.glb", {});
  EXPECT_EQ(glb.objects, (std::vector<std::string>{"A", "A.1", "Spike"}));
  EXPECT_EQ(glb.materials, (std::vector<std::string>{"paint", "metal"}));
  EXPECT_EQ(glb.triangles.size(), 5u);
  const Mesh bare = read_mesh(dir / "bare.glb", {});
  EXPECT_EQ(bare.objects.size(), 3u);
  EXPECT_EQ(bare.triangles[0].corners[0].uv, -1);
  EXPECT_EQ(bare.triangles[1].corners[0].normal, -1);
  EXPECT_FALSE(bare.uvs.empty());
  EXPECT_FALSE(bare.normals.empty());
}

TEST(IsolatedRead, TheReadersOwnErrorsArriveUnchanged) {
  ScratchDir dir;
  test::GltfBuilder no_faces;
  no_faces.mesh("Points", no_faces.vec3({0, 0, 0, 1, 0, 0, 0, 1, 0}), -1, -1, -1, 0);
  no_faces.scene_of_meshes();
  test::write_text_file(dir / "empty.glb", no_faces.glb_bytes());
  test::write_text_file(dir / "broken.gltf", "{\"asset\": ");
  test::write_text_file(dir / "broken.fbx", "Kaydara FBX Binary  not really");
  for (const char* name : {"empty.glb", "broken.gltf", "broken.fbx", "absent.fbx"}) {
    const std::filesystem::path path = dir / name;
    const std::string expected = test::message_of([&] { read_mesh_in_process(path, {}); });
    ASSERT_NE(expected, "(no error)");
    EXPECT_EQ(test::message_of([&] { read_mesh(path, {}); }), expected);
  }
  EXPECT_EQ(test::message_of([&] { read_mesh(dir / "empty.glb", {}); }),
            (dir / "empty.glb").string() + ": mesh has no faces");
}

TEST_F(IsolatedFaults, CrashHangAndExhaustionEachGiveOneErrorAndReadingGoesOn) {
  ScratchDir dir;
  const auto glb = dir / "scene.glb";
  const auto fbx = dir / "parts.fbx";
  test::write_text_file(glb, two_placed_meshes().glb_bytes());
  ASSERT_EQ(test::write_fbx(fbx_parts(), fbx), "");
  IsolationLimits limits = isolation_limits_for(1000, {});
  limits.memory_bytes = std::uint64_t{256} << 20;
  limits.timeout_ms = 1500;
  const auto isolated = [&](const std::filesystem::path& path, MeshFormat format) {
    return [&path, format, &limits] { read_isolated(path, format, {}, nullptr, limits); };
  };

  detail::set_child_fault(detail::ChildFault::crash);
  EXPECT_EQ(test::message_of(isolated(fbx, MeshFormat::Fbx)),
            fbx.string() + ": the FBX reader stopped on signal 6");
  EXPECT_EQ(test::message_of(isolated(glb, MeshFormat::Gltf)),
            glb.string() + ": the glTF reader stopped on signal 6");

  detail::set_child_fault(detail::ChildFault::hang);
  EXPECT_EQ(test::message_of(isolated(glb, MeshFormat::Gltf)),
            glb.string() + ": the glTF reader did not finish within 1.5 s");

  detail::set_child_fault(detail::ChildFault::exhaust_memory);
  EXPECT_EQ(test::message_of<OutOfMemory>(isolated(fbx, MeshFormat::Fbx)),
            fbx.string() + ": the FBX reader ran out of memory");

  detail::set_child_fault(detail::ChildFault::none);
  expect_read_alike(glb);
  expect_read_alike(fbx);
}

TEST_F(IsolatedFaults, AReaderThatNeedsMoreThanTheLimitRunsOutOfMemory) {
  // 3 million positions: the reader's own arrays need some 100 MB.
  ScratchDir dir;
  test::GltfBuilder b;
  b.mesh("Big", b.vec3(std::vector<float>(9000000, 0.5f)), -1, -1, b.indices_u32({0, 1, 2}));
  b.scene_of_meshes();
  const auto path = dir / "big.glb";
  test::write_text_file(path, b.glb_bytes());
  IsolationLimits limits = isolation_limits_for(0, {});
  limits.memory_bytes = std::uint64_t{48} << 20;
  EXPECT_EQ(test::message_of<OutOfMemory>(
                [&] { read_isolated(path, MeshFormat::Gltf, {}, nullptr, limits); }),
            path.string() + ": the glTF reader ran out of memory");
  // With the default limits (32 bytes per byte of the file) it reads, the
  // same on one thread as on two (the arrays are copied in many slices).
  MeshReadOptions one, two;
  one.threads = 1;
  two.threads = 2;
  const Mesh on_one = read_mesh(path, one);
  EXPECT_EQ(on_one.positions.size(), 3000000u);
  test::expect_same_mesh(on_one, read_mesh(path, two));
  detail::set_read_child_memory(false);
  test::expect_same_mesh(on_one, read_mesh(path, two));
}

TEST_F(IsolatedFaults, ACorruptedHandoverIsRefusedAndReadingGoesOn) {
  ScratchDir dir;
  const auto glb = dir / "scene.glb";
  const auto fbx = dir / "parts.fbx";
  test::write_text_file(glb, two_placed_meshes().glb_bytes());
  ASSERT_EQ(test::write_fbx(fbx_parts(), fbx), "");
  const Mesh mesh = read_mesh_in_process(glb, {});
  const std::string broken = glb.string() + ": the glTF reader handed back a broken mesh: ";
  const IsolationLimits limits = isolation_limits_for(1000, {});
  // What the arrays would take with 2^28 triangles more than there are.
  const std::uint64_t overstated_bytes =
      12 * mesh.positions.size() + 16 * mesh.uvs.size() + 12 * mesh.normals.size() +
      40 * (mesh.triangles.size() + (std::uint64_t{1} << 28)) + 4 * mesh.triangle_materials.size();
  const auto read = [&](const std::filesystem::path& path, MeshFormat format) {
    return test::message_of([&] { read_isolated(path, format, {}, nullptr, limits); });
  };
  for (const bool from_memory : {true, false}) {
    SCOPED_TRACE(from_memory ? "from the child's memory" : "through a file");
    detail::set_read_child_memory(from_memory);
    detail::set_child_fault(detail::ChildFault::index_out_of_range);
    EXPECT_EQ(read(glb, MeshFormat::Gltf), broken + "triangle " +
                                               std::to_string(mesh.triangles.size() - 1) +
                                               " has an index out of range");
    EXPECT_EQ(read(fbx, MeshFormat::Fbx),
              fbx.string() + ": the FBX reader handed back a broken mesh: triangle " +
                  std::to_string(read_mesh_in_process(fbx, {}).triangles.size() - 1) +
                  " has an index out of range");
    detail::set_child_fault(detail::ChildFault::overstated_count);
    EXPECT_EQ(read(glb, MeshFormat::Gltf), broken + "its arrays take " +
                                               std::to_string(overstated_bytes) +
                                               " bytes, more than the reader's memory limit of " +
                                               std::to_string(limits.memory_bytes));
    detail::set_child_fault(detail::ChildFault::truncated_block);
    EXPECT_EQ(read(glb, MeshFormat::Gltf), broken + "the handover is truncated");
    detail::set_child_fault(detail::ChildFault::none);
    expect_read_alike(glb);
  }
}

TEST(IsolatedRead, LimitsGrowWithTheInputAndHonourTheMemoryLimit) {
  const std::uint64_t mib = std::uint64_t{1} << 20;
  const IsolationLimits small = isolation_limits_for(5000, {});
  EXPECT_EQ(small.memory_bytes, 1024 * mib);
  EXPECT_EQ(small.stack_bytes, 16 * mib);
  EXPECT_EQ(small.timeout_ms, 20000);
  const IsolationLimits large = isolation_limits_for(100 * mib + 1, {});
  EXPECT_EQ(large.memory_bytes, 3200 * mib + 32);
  EXPECT_EQ(large.timeout_ms, 120000);
  MeshReadOptions options;
  options.memory_limit_bytes = 700 * mib;
  EXPECT_EQ(isolation_limits_for(100 * mib, options).memory_bytes, 700 * mib);
}

}  // namespace
}  // namespace kv
