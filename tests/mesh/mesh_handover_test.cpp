#include "mesh/mesh_handover.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <string>

#include "core/error.h"
#include "core/parallel.h"
#include "mesh/mesh_test_util.h"

namespace kv::handover {
namespace {

const std::string kBroken = "m.glb: the glTF reader handed back a broken mesh: ";

// A report and an arrays file, written as the child writes them.
struct Handed {
  platform::File report;
  platform::File arrays;
};

// The report states `stated`; the arrays file holds what `held` names.
Handed hand_over(const Mesh& mesh, const MeshLayout& stated, const MeshLayout& held) {
  int error = 0;
  Handed handed{platform::create_memory_file("report", &error),
                platform::create_memory_file("arrays", &error)};
  EXPECT_EQ(write_report(handed.report, Outcome::mesh, MeshStats{1, 2, 3, 4}, {}, mesh, stated), 0);
  write_arrays(handed.arrays, held);
  return handed;
}

Handed hand_over(const Mesh& mesh) {
  return hand_over(mesh, layout_of(mesh), layout_of(mesh));
}

Mesh receive(const Handed& handed, int threads, std::uint64_t byte_limit = 0) {
  Report report;
  if (!read_report(handed.report, 0, report) || report.outcome != Outcome::mesh) {
    throw Error("no whole mesh report");
  }
  const WorkerPool pool(threads);
  MeshReceiver receiver(kBroken, byte_limit, pool);
  receiver.take_report(report.mesh_part);
  receiver.copy_from_file(handed.arrays);
  return receiver.finish();
}

std::string refusal(const Handed& handed, int threads = 1, std::uint64_t byte_limit = 0) {
  return test::error_of([&] { receive(handed, threads, byte_limit); }, kBroken);
}

// Positions that span several 4 MiB copy slices, and a strip of triangles
// over the first `strip` of them.
Mesh long_strip(std::uint32_t positions, std::uint32_t strip) {
  Mesh m;
  m.positions.resize(positions);
  for (std::uint32_t i = 0; i < positions; ++i) {
    m.positions[i] = {static_cast<float>(i / 2), static_cast<float>(i % 2), 0.25f};
  }
  m.normals = {{0, 0, 1}};
  for (std::uint32_t i = 0; i + 2 < strip; ++i) {
    Triangle t;
    t.corners = {Corner{i, -1, 0}, Corner{i + 1, -1, 0}, Corner{i + 2, -1, 0}};
    m.triangles.push_back(t);
  }
  m.objects = {"Strip"};
  return m;
}

TEST(MeshHandover, EveryArrayNameAndCounterArrivesAsItWas) {
  Mesh m = test::sample_mesh();
  m.object_alt_names = {"body", "tail"};
  m.polygroups = {4, 9};
  for (int corner = 0; corner < 6; ++corner) {
    m.colors.push_back({0.1f * static_cast<float>(corner), 1.0f / 3, 2.0f});
  }
  const Handed handed = hand_over(m);
  Report report;
  ASSERT_TRUE(read_report(handed.report, 0, report));
  EXPECT_EQ(report.stats.lines, 1u);
  EXPECT_EQ(report.stats.polygons_inexact, 4u);
  for (const int threads : {1, 2}) {
    const Mesh back = receive(handed, threads);
    test::expect_same_mesh(m, back);
    EXPECT_EQ(back.object_alt_names, m.object_alt_names);
    EXPECT_TRUE(test::same_bytes(back.polygroups, m.polygroups));
  }

  // An error report carries its message; a report cut short or larger than
  // allowed is no report.
  int error = 0;
  platform::File failed = platform::create_memory_file("failed", &error);
  ASSERT_EQ(write_report(failed, Outcome::out_of_memory, {}, "m.fbx: too big", Mesh{}, {}), 0);
  ASSERT_TRUE(read_report(failed, 0, report));
  EXPECT_EQ(report.outcome, Outcome::out_of_memory);
  EXPECT_EQ(report.message, "m.fbx: too big");
  EXPECT_FALSE(read_report(failed, 10, report));
  platform::File cut = platform::create_memory_file("cut", &error);
  ASSERT_EQ(cut.write_all("\1\0\0\0", 4), 0);
  EXPECT_FALSE(read_report(cut, 0, report));
}

TEST(MeshHandover, TheFirstBadElementIsNamedAtEverySliceEdgeOnAnyThreadCount) {
  // 1.2 million positions: 14 MB, four slices of 349525 positions.
  const std::uint32_t per_slice = (std::uint32_t{4} << 20) / 12;
  Mesh m = long_strip(1200000, 220000);
  for (const std::uint32_t bad : {0u, per_slice - 1, per_slice, 3 * per_slice, 1199999u}) {
    SCOPED_TRACE(bad);
    const auto kept = m.positions[bad];
    m.positions[bad][1] = std::numeric_limits<float>::quiet_NaN();
    if (bad + 1 < m.positions.size()) {
      m.positions[bad + 1][2] = std::numeric_limits<float>::infinity();  // later: not named
    }
    const Handed handed = hand_over(m);
    for (const int threads : {1, 2}) {
      EXPECT_EQ(refusal(handed, threads), "position " + std::to_string(bad) + " is not finite");
    }
    m.positions[bad] = kept;
    if (bad + 1 < m.positions.size()) {
      m.positions[bad + 1][2] = 0.25f;
    }
  }
  // Triangles (40 bytes, 104857 to a slice) likewise, the last one included.
  const std::uint64_t last = m.triangles.size() - 1;
  for (const std::uint64_t bad : {std::uint64_t{104856}, std::uint64_t{104857}, last}) {
    SCOPED_TRACE(bad);
    m.triangles[bad].corners[2].normal = 1;
    EXPECT_EQ(refusal(hand_over(m), 2),
              "triangle " + std::to_string(bad) + " has an index out of range");
    m.triangles[bad].corners[2].normal = 0;
  }
  test::expect_same_mesh(m, receive(hand_over(m), 2));
}

TEST(MeshHandover, CountsAreBoundedBeforeAnythingIsAllocatedAndEveryByteMustArrive) {
  const Mesh m = test::sample_mesh();
  const MeshLayout held = layout_of(m);
  const auto stating = [&](int array, std::uint64_t count) {
    MeshLayout stated = held;
    stated[array].count = count;
    return hand_over(m, stated, held);
  };
  EXPECT_EQ(refusal(stating(kTriangles, std::uint64_t{1} << 31)),
            "an array of 2147483648 elements is larger than a mesh may hold");
  // 4 positions, 3 UVs, 2 normals, 2 triangles, 2 materials, 2 blocks.
  const std::uint64_t bytes = 12 * 4 + 16 * 3 + 12 * 2 + 40 * 2 + 4 * 2 + 4 * 2;
  EXPECT_EQ(refusal(hand_over(m), 1, bytes - 1),
            "its arrays take " + std::to_string(bytes) +
                " bytes, more than the reader's memory limit of " + std::to_string(bytes - 1));
  EXPECT_EQ(receive(hand_over(m), 1, bytes).triangles.size(), 2u);
  EXPECT_EQ(refusal(stating(kTriangles, 0)), "mesh has no faces");
  EXPECT_EQ(refusal(stating(kColors, 5)), "there are 5 colors for 6 corners");
  EXPECT_EQ(refusal(stating(kTriangleMaterials, 1)),
            "there are 1 triangle materials for 2 triangles");
  EXPECT_EQ(refusal(stating(kObjectBlocks, 3)), "there are 3 object blocks for 2 objects");
  // One position more than the file holds.
  EXPECT_EQ(refusal(stating(kPositions, 5)), "the handover is truncated");
  EXPECT_EQ(refusal(stating(kObjectBlocks, 0)), "");  // blocks may be absent

  // The names and layout part, cut short or running on.
  Report report;
  ASSERT_TRUE(read_report(hand_over(m).report, 0, report));
  const WorkerPool pool(1);
  const auto take = [&](const std::string& part) {
    return test::error_of([&] { MeshReceiver(kBroken, 0, pool).take_report(part); }, kBroken);
  };
  EXPECT_EQ(take(report.mesh_part.substr(0, report.mesh_part.size() - 1)),
            "the handover is truncated");
  EXPECT_EQ(take(report.mesh_part + "x"), "the handover runs on past its end");
}

TEST(MeshHandover, NamesAndTablesKeepTheirRules) {
  Mesh m = test::sample_mesh();
  m.objects[0] = std::string(65537, 'a');
  EXPECT_EQ(refusal(hand_over(m)), "a name is longer than 65536 bytes");
  m.objects = {"Body", "Body"};
  EXPECT_EQ(refusal(hand_over(m)), "duplicate object name 'Body'");
  m = test::sample_mesh();
  m.triangle_materials[1] = 2;
  EXPECT_EQ(refusal(hand_over(m)), "triangle 1 has a material index out of range");
  m = test::sample_mesh();
  m.object_blocks[1] = 1;
  EXPECT_EQ(refusal(hand_over(m)), "an object has a block index out of range");
  m = test::sample_mesh();
  m.normals[1] = {0, 0, 0};
  EXPECT_EQ(refusal(hand_over(m)), "normal 1 has no direction");
  m = test::sample_mesh();
  m.colors.assign(6, {0, 0, 0});
  m.colors[4][1] = -std::numeric_limits<float>::infinity();
  EXPECT_EQ(refusal(hand_over(m)), "color 4 is not finite");
}

}  // namespace
}  // namespace kv::handover
