#include "service/section_mesh.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "mesh/kvm_file.h"
#include "mesh/mesh_test_util.h"
#include "mesh/obj_reader.h"
#include "platform/platform.h"
#include "service/raw_mesh.h"
#include "support/test_support.h"

namespace {

using kv::Mesh;
using kv::service::read_process_mesh;
using kv::service::read_section_mesh;
using kv::service::SectionLayoutError;
using kv::service::SectionObject;

using kv::test::grid_object;
using kv::test::lay_out;
using kv::test::Layout;
using kv::test::obj_text;
using kv::test::RawObject;
using kv::test::TestSection;

RawObject small_object(const std::string& name) {
  RawObject o;
  o.name = name;
  o.positions = {0, 0, 0, 1, 0, 0, 0, 1, 0, 1, 1, -0.0f};
  o.indices = {0, 1, 2, 2, 1, 3};
  return o;
}

std::string kvm_bytes(const Mesh& mesh, const std::string& file) {
  const kv::test::ScratchDir dir;
  const std::filesystem::path path = dir / file;
  kv::write_kvm(path, mesh, kv::kKvmUvDouble | kv::kKvmNormalsAsIs | kv::kKvmMaterials);
  return kv::test::read_text_file(path);
}

// Every array, table and the .kvm bytes equal those of the OBJ written from
// the same data, over several chunks, on 1 and 2 threads, from a section and
// from this process's own memory.
TEST(SectionMesh, EqualsTheSameDataWrittenAsObj) {
  std::vector<RawObject> raw;
  raw.push_back(grid_object("Body", 190, true, true));  // 72,200 triangles: two chunks
  raw.push_back(small_object("Bare"));                  // no UVs, no normals
  raw.push_back(grid_object("Body", 2, true, false));   // the same name: one object
  RawObject empty = small_object("Empty");
  empty.indices.clear();
  raw.push_back(empty);  // an object without faces
  raw.push_back(grid_object("Nrm", 3, false, true));
  raw[1].positions[0] = 1e-40f;  // subnormal
  raw[0].uvs[5] = 0.1f;

  const Layout layout = lay_out(raw);
  const std::string text = obj_text(raw);
  kv::MeshReadOptions options;
  options.threads = 1;
  const Mesh from_obj = kv::parse_obj(text, "same.obj", options).mesh;
  ASSERT_EQ(from_obj.objects, (std::vector<std::string>{"Body", "Bare", "Empty", "Nrm"}));

  TestSection section("same", layout.bytes);
  const Mesh one =
      read_section_mesh(section.name(), layout.bytes.size(), layout.objects, nullptr, 1);
  const Mesh two =
      read_section_mesh(section.name(), layout.bytes.size(), layout.objects, nullptr, 2);
  kv::test::expect_same_mesh(one, from_obj);
  kv::test::expect_same_mesh(two, from_obj);
  EXPECT_TRUE(kv::test::same_bytes(one.triangle_materials, from_obj.triangle_materials));
  EXPECT_EQ(kvm_bytes(one, "shm.kvm"), kvm_bytes(from_obj, "obj.kvm"));
  EXPECT_EQ(kv::mesh_memory_bytes(one), kv::mesh_memory_bytes(from_obj));

  // The client's own memory: addresses instead of offsets.
  std::vector<SectionObject> addressed = layout.objects;
  const auto base = reinterpret_cast<std::uintptr_t>(layout.bytes.data());
  for (SectionObject& o : addressed) {
    o.positions += base;
    o.indices += base;
    if (o.uvs) {
      *o.uvs += base;
    }
    if (o.normals) {
      *o.normals += base;
    }
  }
  const Mesh process = read_process_mesh(kv::platform::process_id(), addressed, nullptr, 2);
  kv::test::expect_same_mesh(process, from_obj);
}

SectionLayoutError layout_error(const std::vector<SectionObject>& objects, std::uint64_t size) {
  try {
    // The section does not exist: layout faults come before it is opened.
    read_section_mesh("kv-test-svcmesh-never-created", size, objects, nullptr, 1);
  } catch (const SectionLayoutError& e) {
    return e;
  }
  ADD_FAILURE() << "no layout error";
  return SectionLayoutError(99, "", "");
}

void expect_layout(const std::vector<SectionObject>& objects, std::uint64_t size,
                   std::size_t object, const std::string& field, const std::string& text) {
  const SectionLayoutError e = layout_error(objects, size);
  EXPECT_EQ(e.object, object);
  EXPECT_EQ(e.field, field);
  EXPECT_EQ(e.text, text);
  EXPECT_EQ(std::string(e.what()),
            "objects[" + std::to_string(object) + "]: " + field + ": " + text);
}

TEST(SectionMesh, LayoutFaultsNameTheObjectAndField) {
  SectionObject a;
  a.name = "A";
  a.vertices = 4;
  a.triangles = 2;
  a.positions = 0;
  a.indices = 48;
  a.uvs = 72;
  a.normals = 120;  // ends at 192
  std::vector<SectionObject> objects = {a, a};

  auto with = [&](auto change) {
    std::vector<SectionObject> copy = objects;
    change(copy[1]);
    return copy;
  };
  expect_layout(with([](SectionObject& o) { o.indices = 50; }), 192, 1, "indices",
                "must be a multiple of 4");
  expect_layout(with([](SectionObject& o) { o.normals = 124; }), 192, 1, "normals",
                "72 bytes from offset 124 run past the section's 192 bytes");
  expect_layout(with([](SectionObject& o) { o.uvs = 196; }), 192, 1, "uvs",
                "48 bytes from offset 196 run past the section's 192 bytes");
  // An offset near 2^64 must not wrap around into the section.
  expect_layout(with([](SectionObject& o) { o.positions = 0xFFFFFFFFFFFFFFF0ull; }), 192, 1,
                "positions",
                "48 bytes from offset 18446744073709551600 run past the section's 192 bytes");
  // Counts whose byte sizes would overflow are refused before any arithmetic
  // on them, whatever the size.
  expect_layout(with([](SectionObject& o) { o.triangles = 0x5555555555555556ull; }),
                std::numeric_limits<std::uint64_t>::max(), 1, "triangles", "at most 2147483647");
  expect_layout(with([](SectionObject& o) { o.vertices = 2147483648ull; }), 192, 1, "vertices",
                "at most 2147483647");
  expect_layout(with([](SectionObject& o) { o.name.clear(); }), 192, 1, "name",
                "must not be empty");
  expect_layout(with([](SectionObject& o) { o.name.assign(65537, 'n'); }), 192, 1, "name",
                "longer than 65536 bytes");
  // Totals across objects: each count fits alone, not together.
  std::vector<SectionObject> big(2);
  for (SectionObject& o : big) {
    o.name = "B";
    o.vertices = 2000000000;
  }
  expect_layout(big, std::numeric_limits<std::uint64_t>::max(), 1, "vertices",
                "the objects hold more than 2147483647 vertices together");
  big[0].vertices = big[1].vertices = 0;
  big[0].triangles = big[1].triangles = 400000000;
  big[0].uvs = big[1].uvs = 0;
  expect_layout(big, std::numeric_limits<std::uint64_t>::max(), 1, "uvs",
                "the objects hold more than 2147483647 UV corners together");

  // In another process the bound is the end of the address space.
  std::vector<SectionObject> far = {a};
  far[0].normals = 0xFFFFFFFFFFFFFFE0ull;
  try {
    read_process_mesh(kv::platform::process_id(), far, nullptr, 1);
    ADD_FAILURE() << "no layout error";
  } catch (const SectionLayoutError& e) {
    EXPECT_EQ(e.field, "normals");
    EXPECT_EQ(e.text,
              "72 bytes from address 0xffffffffffffffe0 run past the end of the address space");
  }
}

// Faults of the data name the source, the object and the item, counting
// from 0; the first fault in object and item order is the one reported on
// any thread count.
TEST(SectionMesh, DataFaultsAreReportedInOrder) {
  std::vector<RawObject> raw = {small_object("First"), grid_object("Second", 190, true, true)};
  auto message = [&](const std::vector<RawObject>& objects, int threads) {
    const Layout layout = lay_out(objects);
    TestSection section("faults", layout.bytes);
    return kv::test::error_of(
        [&] {
          read_section_mesh(section.name(), layout.bytes.size(), layout.objects, nullptr, threads);
        },
        "shared memory section \"" + section.name() + "\": ");
  };
  auto bad = raw;
  // The last item of the first chunk and the first of the second: the
  // grid has 191 x 191 = 36481 vertices.
  bad[1].indices[3 * 65535 + 2] = 36481;
  bad[1].indices[3 * 65536] = 99999;
  const std::string range =
      "object \"Second\" triangle 65535: vertex index 36481 is out of range; the object has "
      "36481 vertices";
  EXPECT_EQ(message(bad, 1), range);
  EXPECT_EQ(message(bad, 2), range);

  bad = raw;
  bad[1].positions[3 * 36000 + 1] = std::numeric_limits<float>::infinity();
  bad[1].positions[3 * 2] = std::nanf("");
  EXPECT_EQ(message(bad, 2), "object \"Second\" vertex 2: position component is not finite");
  bad = raw;
  bad[1].uvs[6 * 66000 + 3] = std::nanf("");
  EXPECT_EQ(message(bad, 2),
            "object \"Second\" triangle 66000 corner 1: UV component is not finite");
  bad = raw;
  bad[1].normals[9 * 5 + 6] = 0;
  bad[1].normals[9 * 5 + 7] = 0;
  bad[1].normals[9 * 5 + 8] = -0.0f;
  EXPECT_EQ(message(bad, 2), "object \"Second\" triangle 5 corner 2: zero-length normal");
  bad[1].normals[9 * 4] = std::numeric_limits<float>::infinity();
  EXPECT_EQ(message(bad, 1),
            "object \"Second\" triangle 4 corner 0: normal component is not finite");
  // A normal whose length overflows float32 has no direction either (an OBJ
  // `vn` line with it is refused the same way).
  bad = raw;
  bad[1].normals[0] = 3e38f;
  bad[1].normals[1] = 3e38f;
  EXPECT_EQ(message(bad, 1), "object \"Second\" triangle 0 corner 0: zero-length normal");

  bad = {small_object("NoFaces")};
  bad[0].indices.clear();
  EXPECT_EQ(message(bad, 1), "mesh has no faces");
}

TEST(SectionMesh, SectionAndProcessFailures) {
  const Layout layout = lay_out({small_object("A")});
  EXPECT_EQ(kv::test::error_of([&] {
              read_section_mesh("kv-test-svcmesh-missing", layout.bytes.size(), layout.objects,
                                nullptr, 1);
            }),
            "cannot open shared memory section \"kv-test-svcmesh-missing\": No such file or "
            "directory");
  TestSection section("short", layout.bytes);
  const std::uint64_t claimed = layout.bytes.size() + 4;
  EXPECT_EQ(kv::test::error_of(
                [&] { read_section_mesh(section.name(), claimed, layout.objects, nullptr, 1); }),
            "shared memory section \"" + section.name() + "\" holds " +
                std::to_string(layout.bytes.size()) + " bytes, fewer than the size " +
                std::to_string(claimed) + " given");

  // An address range this process does not map.
  std::vector<SectionObject> unmapped = layout.objects;
  unmapped[0].positions = 4096;
  const std::string pid = std::to_string(kv::platform::process_id());
  EXPECT_EQ(kv::test::error_of(
                [&] { read_process_mesh(kv::platform::process_id(), unmapped, nullptr, 1); }),
            "process " + pid + ": cannot read 48 bytes at address 0x1000: Bad address");
  // A process that does not exist (above any pid the system hands out).
  EXPECT_EQ(kv::test::error_of([&] { read_process_mesh(2147483647, unmapped, nullptr, 1); }),
            "process 2147483647: cannot read 48 bytes at address 0x1000: No such process");
}

TEST(SectionMesh, ASetCancelFlagStopsTheRead) {
  const Layout layout = lay_out({grid_object("A", 8, true, true)});
  TestSection section("cancel", layout.bytes);
  std::atomic<bool> cancel{true};
  EXPECT_THROW(read_section_mesh(section.name(), layout.bytes.size(), layout.objects, &cancel, 1),
               kv::Cancelled);
  std::vector<SectionObject> addressed = layout.objects;
  addressed[0].positions += reinterpret_cast<std::uintptr_t>(layout.bytes.data());
  EXPECT_THROW(read_process_mesh(kv::platform::process_id(), addressed, &cancel, 1), kv::Cancelled);
  cancel = false;
  EXPECT_EQ(read_section_mesh(section.name(), layout.bytes.size(), layout.objects, &cancel, 1)
                .triangles.size(),
            128u);
}

}  // namespace
