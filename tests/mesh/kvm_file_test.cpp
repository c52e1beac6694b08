#include "mesh/kvm_file.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <span>
#include <string>

#include "mesh/mesh_test_util.h"
#include "support/test_support.h"

namespace kv {
namespace {

using test::sample_mesh;
using test::ScratchDir;

// The file layout assembled field by field, independently of the writer.
struct Bytes {
  template <typename... T>
  Bytes& put(T... values) {
    (data.append(reinterpret_cast<const char*>(&values), sizeof values), ...);
    return *this;
  }
  // A name table (with its count when asked) and the indices into it.
  void table(const std::vector<std::string>& names, std::span<const std::uint32_t> indices,
             bool counted = true) {
    if (counted) {
      put(std::uint64_t{names.size()});
    }
    for (const auto& s : names) {
      put(static_cast<std::uint32_t>(s.size())).data += s;
    }
    for (auto i : indices) {
      put(i);
    }
  }
  std::string data;
};

std::string header(std::uint32_t flags, std::uint64_t p, std::uint64_t u, std::uint64_t n,
                   std::uint64_t t, std::uint64_t o, std::uint32_t version = 1) {
  Bytes b{std::string("KVMESH1", 8)};
  return b.put(version, flags, p, u, n, t, o).data;
}

std::string layout(const Mesh& m, std::uint32_t flags) {
  Bytes b{header(flags, m.positions.size(), m.uvs.size(), m.normals.size(), m.triangles.size(),
                 m.objects.size())};
  // Arrays of plain fields whose memory order is the file's order.
  auto raw = [&b](const auto& v) {
    b.data.append(reinterpret_cast<const char*>(v.data()), v.size() * sizeof v[0]);
  };
  raw(m.positions);
  for (const auto& t : m.uvs) {
    if (flags & kKvmUvDouble) {
      b.put(t[0], t[1]);
    } else {
      b.put(static_cast<float>(t[0]), static_cast<float>(t[1]));
    }
  }
  raw(m.normals);
  raw(m.triangles);
  b.table(m.objects, {}, false);
  if (flags & kKvmMaterials) {
    b.table(m.materials, m.triangle_materials);
  }
  if (flags & kKvmBlocks) {
    b.table(m.blocks, m.object_blocks);
  }
  return b.data;
}

// The message read_kvm throws for the bytes, less the path ("" when read).
std::string read_error(const std::string& bytes, int threads = 1) {
  ScratchDir dir;
  const auto path = dir / "m.kvm";
  test::write_text_file(path, bytes);
  return test::error_of([&] { read_kvm(path, threads); }, path.string() + ": ");
}

Mesh read_bytes(const std::string& bytes, int threads = 1) {
  ScratchDir dir;
  test::write_text_file(dir / "m.kvm", bytes);
  return read_kvm(dir / "m.kvm", threads);
}

// The bytes with a value written over them at the offset.
template <typename T>
std::string poked(std::string bytes, std::size_t offset, T value) {
  std::memcpy(bytes.data() + offset, &value, sizeof value);
  return bytes;
}

TEST(KvmFile, WriterProducesTheLayoutAndReadsBackBitEqual) {
  ScratchDir dir;
  Mesh m = sample_mesh();
  for (std::uint32_t flags : {0u, 3u, 7u, 11u, 15u}) {
    SCOPED_TRACE(flags);
    const auto path = dir / ("f" + std::to_string(flags) + ".kvm");
    write_kvm(path, m, flags);
    EXPECT_EQ(test::read_text_file(path), layout(m, flags));
    if ((flags & 3) == 3) {
      Mesh expected = m;
      if (!(flags & kKvmBlocks)) {
        expected.blocks.clear();
        expected.object_blocks.clear();
      }
      const Mesh back = read_kvm(path, 1);
      test::expect_same_mesh(back, expected, flags & kKvmMaterials);
      EXPECT_EQ(back.materials.empty(), !(flags & kKvmMaterials));
    }
  }
  // Bytes after the last section are ignored.
  test::expect_same_mesh(read_bytes(layout(m, 15) + "trailing junk"), m);

  // Narrow UVs widen; normals scale unless kept as stored.
  m.normals = {{0, 0, 2}, {0, 3, 4}};
  const Mesh narrow = read_bytes(layout(m, 0));
  ASSERT_EQ(narrow.uvs.size(), 3u);
  EXPECT_EQ(narrow.uvs[0][0], static_cast<double>(0.1f));
  EXPECT_NE(narrow.uvs[0][0], 0.1);
  EXPECT_EQ(narrow.uvs[2][0], static_cast<double>(static_cast<float>(1.0 / 3.0)));
  using Normals = LargeArray<std::array<float, 3>>;
  EXPECT_EQ(narrow.normals, (Normals{{0, 0, 1}, {0, 0.6f, 0.8f}}));

  const Mesh as_is = read_bytes(layout(m, kKvmNormalsAsIs | kKvmUvDouble));
  EXPECT_EQ(as_is.normals, m.normals);
  EXPECT_EQ(as_is.uvs, m.uvs);
  EXPECT_TRUE(as_is.materials.empty() && as_is.blocks.empty());
}

TEST(KvmFile, HeaderFaultsAreReportedInHeaderOrder) {
  const std::uint64_t big = 2147483648ull;
  EXPECT_EQ(read_error(header(0, 1, 0, 0, 1, 1).substr(0, 55)), "the file is truncated");
  EXPECT_EQ(read_error(""), "the file is truncated");
  for (const auto& [at, byte] : {std::pair(6, '2'), std::pair(7, ' ')}) {
    std::string bad_magic = layout(sample_mesh(), 0);
    bad_magic[at] = byte;
    EXPECT_EQ(read_error(bad_magic), "not a korvane mesh (.kvm)");
  }
  EXPECT_EQ(read_error(header(99, big, 0, 0, 0, 0, 2)), "unsupported .kvm version 2");
  EXPECT_EQ(read_error(header(16, big, 0, 0, 0, 0)), "unsupported .kvm flags 16");
  EXPECT_EQ(read_error(header(15, big, 0, 0, 0, 0)), "too many elements");
  for (const std::string& h : {header(0, 1, big, 0, 1, 1), header(0, 1, 0, big, 1, 1),
                               header(0, 1, 0, 0, big, 1), header(0, 1, 0, 0, 0, big)}) {
    EXPECT_EQ(read_error(h), "too many elements");
  }
  EXPECT_EQ(read_error(header(0, 2147483647, 0, 0, 0, 1)), "mesh has no faces");
  EXPECT_EQ(read_error(header(0, 3, 0, 0, 1, 0)), "mesh has no objects");

  // A size below the bound is truncated before any array is read: a bad
  // position would be found if the arrays were read.
  for (std::uint32_t flags : {0u, 1u, 4u, 5u, 8u}) {
    const std::uint64_t bound = 56 + 12 * 4 + ((flags & 1) ? 16 : 8) * 3 + 12 * 2 + 40 * 2 + 4 * 2 +
                                ((flags & 4) ? 8 + 4 * 2 : 0);
    const std::string full =
        poked(layout(sample_mesh(), flags), 56, std::numeric_limits<float>::quiet_NaN());
    EXPECT_EQ(read_error(full.substr(0, bound - 1)), "the file is truncated") << flags;
  }
  // Huge counts with a tiny file: refused by the bound, nothing allocated.
  EXPECT_EQ(read_error(header(0, 2147483647, 2147483647, 2147483647, 2147483647, 2147483647)),
            "the file is truncated");
  // Past the bound but short in the names, found before a bad position that
  // was checked while the triangles were read.
  Mesh named = sample_mesh();
  named.objects = {"a-long-object-name", "b"};
  const std::string names = poked(layout(named, 0), 56, std::numeric_limits<float>::quiet_NaN());
  for (int threads : {1, 2}) {
    EXPECT_EQ(read_error(names.substr(0, names.size() - 3), threads), "the file is truncated");
  }
  EXPECT_EQ(read_error(names), "position 0 is not finite");
}

TEST(KvmFile, NameAndTableFaults) {
  const Mesh m = sample_mesh();
  const std::size_t names_at = 56 + 48 + 24 + 24 + 80;  // flags 0: float UVs
  const std::size_t tables_at = names_at + 8 + 4;       // after "Body" and ""
  const std::string plain = layout(m, 0);
  const std::string materials = layout(m, kKvmMaterials);
  const std::string blocks = layout(m, kKvmBlocks);
  const std::vector<std::pair<std::string, std::string>> cases = {
      {poked(plain, names_at, std::uint32_t{65537}), "object name too long"},
      {poked(materials, tables_at, std::uint64_t{0}), "bad material count 0"},
      {poked(materials, tables_at, std::uint64_t{2147483648ull}), "bad material count 2147483648"},
      {poked(materials, tables_at + 8, std::uint32_t{70000}), "material name too long"},
      {poked(materials, tables_at + 8 + 4 + 4 + 4 + 5 + 4, std::uint32_t{2}),
       "triangle 1 has a material index out of range"},
      {poked(blocks, tables_at, std::uint64_t{0}), "bad block count 0"},
      {poked(blocks, tables_at + 8, std::uint32_t{65537}), "block name too long"},
      {poked(blocks, tables_at + 8 + 4 + 5 + 4, std::uint32_t{1}),
       "an object has a block index out of range"},
  };
  for (const auto& [bytes, message] : cases) {
    EXPECT_EQ(read_error(bytes), message);
  }
  Mesh long_name = m;
  long_name.objects[0] = std::string(65536, 'x');
  EXPECT_EQ(read_bytes(layout(long_name, 0)).objects[0].size(), 65536u);
}

TEST(KvmFile, ElementFaultsNameTheFirstBadElement) {
  Mesh m = sample_mesh();
  m.positions[3][1] = std::numeric_limits<float>::infinity();
  EXPECT_EQ(read_error(layout(m, 0)), "position 3 is not finite");
  m = sample_mesh();
  m.uvs[1][1] = std::numeric_limits<double>::quiet_NaN();
  EXPECT_EQ(read_error(layout(m, 1)), "uv 1 is not finite");
  m.uvs[1][1] = 1e300;  // finite as float64, infinite once narrowed to float32
  EXPECT_EQ(read_error(layout(m, 0)), "uv 1 is not finite");
  EXPECT_EQ(read_error(layout(m, 1)), "");

  const std::string no_direction = "normal 1 has no direction";
  const float nan = std::numeric_limits<float>::quiet_NaN();
  // Squared, 1e-19 is just below the smallest normal float, 1.1e-19 above.
  for (const auto& [normal, flags, message] :
       std::vector<std::tuple<std::array<float, 3>, std::uint32_t, std::string>>{
           {{0, 0, 1e-20f}, 0, no_direction},
           {{0, 0, 1e-20f}, kKvmNormalsAsIs, no_direction},
           {{0, 0, 1e-19f}, 0, no_direction},
           {{0, 1.1e-19f, 0}, 0, ""},
           {{3e19f, 3e19f, 3e19f}, 0, no_direction},  // squared length overflows
           {{0, nan, 1}, 0, no_direction}}) {
    m = sample_mesh();
    m.normals[1] = normal;
    EXPECT_EQ(read_error(layout(m, flags)), message) << normal[0] << " " << normal[1];
  }

  // Each corner index checked against its own array, on both sides.
  const std::vector<std::function<void(Triangle&)>> corner_faults = {
      [](Triangle& t) { t.corners[2].uv = -2; },      [](Triangle& t) { t.corners[1].uv = 3; },
      [](Triangle& t) { t.corners[0].normal = 2; },   [](Triangle& t) { t.corners[0].normal = -5; },
      [](Triangle& t) { t.corners[2].position = 4; }, [](Triangle& t) { t.object = 2; },
  };
  for (const auto& fault : corner_faults) {
    Mesh t = sample_mesh();
    fault(t.triangles[1]);
    EXPECT_EQ(read_error(layout(t, 0)), "triangle 1 has an index out of range");
  }
  m = sample_mesh();
  m.triangles[1].corners[2].position = 3;
  EXPECT_EQ(read_error(layout(m, 0)), "");

  // Several faults: the arrays are reported in a fixed order.
  m.triangles[0].object = 9;
  m.normals[0] = {0, 0, 0};
  m.positions[2][0] = std::numeric_limits<float>::quiet_NaN();
  EXPECT_EQ(read_error(layout(m, 0)), "position 2 is not finite");
  m.positions[2][0] = 0;
  EXPECT_EQ(read_error(layout(m, 0)), "normal 0 has no direction");

  // Duplicate object names: the first in object order, case counts.
  m = sample_mesh();
  m.objects = {"b", "a", "a", "b"};
  m.triangles[1].object = 3;
  EXPECT_EQ(read_error(layout(m, 0)), "duplicate object name 'b'");
  m.objects = {"", ""};
  m.triangles[1].object = 1;
  EXPECT_EQ(read_error(layout(m, 0)), "duplicate object name ''");
  m.objects = {"a", "A"};
  EXPECT_EQ(read_error(layout(m, 0)), "");
}

// A mesh spread over several validation chunks.
Mesh large_mesh(std::size_t count) {
  Mesh m;
  m.objects = {"big"};
  for (std::size_t i = 0; i < count; ++i) {
    const float f = static_cast<float>(i);
    m.positions.push_back({f, f * 0.5f, 1.0f});
    m.uvs.push_back({static_cast<double>(i) / 7.0, 0.25});
    m.normals.push_back({f + 1.0f, 0.3f, f * 0.125f + 0.7f});
  }
  for (std::size_t i = 0; i + 2 < count; i += 3) {
    Triangle t;
    for (std::uint32_t k = 0; k < 3; ++k) {
      const auto c = static_cast<std::uint32_t>(i + k);
      t.corners[k] = Corner{c, static_cast<std::int32_t>(c), static_cast<std::int32_t>(c)};
    }
    m.triangles.push_back(t);
  }
  return m;
}

TEST(KvmFile, ValidationIsTheSameOnOneAndTwoThreads) {
  Mesh m = large_mesh(200000);
  const Mesh one = read_bytes(layout(m, kKvmUvDouble), 1);
  test::expect_same_mesh(one, read_bytes(layout(m, kKvmUvDouble), 2));
  const auto& n = m.normals[129999];
  const double len = std::sqrt(double{n[0]} * n[0] + double{n[1]} * n[1] + double{n[2]} * n[2]);
  for (int i = 0; i < 3; ++i) {
    EXPECT_NEAR(one.normals[129999][i], n[i] / len, 1e-6);
  }
  // The lowest fault in the fixed order wins, whichever chunk finds it.
  auto expect_first = [&](const std::string& message) {
    const std::string bad = layout(m, kKvmUvDouble);
    for (int threads : {1, 2, 0}) {
      EXPECT_EQ(read_error(bad, threads), message) << threads;
    }
  };
  m.positions[70000][2] = std::numeric_limits<float>::infinity();
  m.positions[5][0] = std::numeric_limits<float>::quiet_NaN();
  m.positions[199999][1] = std::numeric_limits<float>::quiet_NaN();
  m.normals[131072] = m.normals[65536] = {0, 0, 0};
  m.triangles[66000].corners[1].normal = 200000;
  m.triangles[40000].corners[0].uv = -7;
  expect_first("position 5 is not finite");
  m.positions[5][0] = m.positions[70000][2] = m.positions[199999][1] = 0;
  expect_first("normal 65536 has no direction");
  m.normals[131072] = m.normals[65536] = {1, 0, 0};
  expect_first("triangle 40000 has an index out of range");
  m.triangles[66000].corners[1].normal = m.triangles[40000].corners[0].uv = 0;

  // UVs stored as float32 come back widened, each in its own slot, across many
  // validation chunks.
  const Mesh narrow = read_bytes(layout(m, 0), 2);
  ASSERT_EQ(narrow.uvs.size(), m.uvs.size());
  for (std::size_t i = 0; i < m.uvs.size(); ++i) {
    for (int k = 0; k < 2; ++k) {
      ASSERT_EQ(narrow.uvs[i][k], static_cast<double>(static_cast<float>(m.uvs[i][k]))) << i;
    }
  }
  m.uvs[150001][1] = 1e300;
  m.uvs[199998][0] = std::numeric_limits<double>::quiet_NaN();
  for (int threads : {1, 2}) {
    EXPECT_EQ(read_error(layout(m, 0), threads), "uv 150001 is not finite") << threads;
  }
}

// The message write_kvm throws, with the folder checked to hold nothing new.
std::string write_error(const Mesh& m, std::uint32_t flags) {
  ScratchDir dir;
  const auto path = dir / "out.kvm";
  const std::string message =
      test::error_of([&] { write_kvm(path, m, flags); }, path.string() + ": ");
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), {}),
            message.empty() ? 1 : 0);
  return message;
}

TEST(KvmFile, WriterRefusesMeshesTheReaderWouldRefuse) {
  const std::string no_materials =
      "kKvmMaterials needs a material table and one material per triangle";
  const std::string no_blocks = "kKvmBlocks needs a block table and one block per object";
  const std::vector<std::tuple<std::function<void(Mesh&)>, std::uint32_t, std::string>> cases = {
      {[](Mesh&) {}, 16, "unsupported .kvm flags 16"},
      {[](Mesh& m) { m.triangles.clear(), m.triangle_materials.clear(); }, 0, "mesh has no faces"},
      {[](Mesh& m) { m.objects.clear(); }, 0, "mesh has no objects"},
      {[](Mesh& m) { m.objects[1] = std::string(65537, 'n'); }, 0, "object name too long"},
      {[](Mesh& m) { m.triangle_materials.pop_back(); }, kKvmMaterials, no_materials},
      {[](Mesh& m) { m.triangle_materials.pop_back(); }, 0, ""},  // materials not asked for
      {[](Mesh& m) { m.materials.clear(); }, kKvmMaterials, no_materials},
      {[](Mesh& m) { m.materials[0] = std::string(65537, 'm'); }, kKvmMaterials,
       "material name too long"},
      {[](Mesh& m) { m.triangle_materials[1] = 2; }, kKvmMaterials,
       "a triangle has a material index out of range"},
      {[](Mesh& m) { m.object_blocks = {0}; }, kKvmBlocks, no_blocks},
      {[](Mesh& m) { m.blocks.clear(); }, kKvmBlocks, no_blocks},
      // Block indices are left to the reader, which refuses the file.
      {[](Mesh& m) { m.object_blocks[1] = 5; }, kKvmBlocks, ""},
  };
  for (const auto& [change, flags, message] : cases) {
    Mesh m = sample_mesh();
    change(m);
    EXPECT_EQ(write_error(m, flags), message) << message;
  }

  // A failed write leaves the destination untouched.
  ScratchDir dir;
  const auto path = dir / "keep.kvm";
  test::write_text_file(path, "previous contents");
  Mesh m = sample_mesh();
  m.objects.clear();
  EXPECT_THROW(write_kvm(path, m, 0), Error);
  EXPECT_EQ(test::read_text_file(path), "previous contents");
  write_kvm(path, sample_mesh(), 3);
  EXPECT_EQ(test::read_text_file(path), layout(sample_mesh(), 3));
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), {}), 1);

  // A destination in a missing folder: refused with the path, nothing written.
  const auto nowhere = dir / "missing" / "x.kvm";
  EXPECT_NE(test::error_of([&] { write_kvm(nowhere, sample_mesh(), 3); },
                           nowhere.string() + ": could not create"),
            "");
  // A missing file has no path prefix.
  EXPECT_EQ(test::error_of([&] { read_kvm(dir / "absent.kvm", 1); }),
            "cannot open mesh file: " + (dir / "absent.kvm").string());
}

}  // namespace
}  // namespace kv
