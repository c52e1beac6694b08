#include "mesh/kvm_file.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <string>

#include "mesh/mesh_test_util.h"
#include "support/test_support.h"

namespace kv {
namespace {

using test::sample_mesh;
using test::ScratchDir;

// The file layout assembled field by field, independently of the writer.
class Bytes {
 public:
  template <typename T>
  Bytes& put(T value) {
    data.append(reinterpret_cast<const char*>(&value), sizeof value);
    return *this;
  }
  Bytes& name(const std::string& s) {
    put(static_cast<std::uint32_t>(s.size()));
    data += s;
    return *this;
  }
  std::string data;
};

std::string header(std::uint32_t flags, std::uint64_t p, std::uint64_t u, std::uint64_t n,
                   std::uint64_t t, std::uint64_t o, std::uint32_t version = 1) {
  Bytes b;
  b.data.append("KVMESH1", 8);
  b.put(version).put(flags).put(p).put(u).put(n).put(t).put(o);
  return b.data;
}

std::string layout(const Mesh& m, std::uint32_t flags) {
  Bytes b;
  b.data = header(flags, m.positions.size(), m.uvs.size(), m.normals.size(), m.triangles.size(),
                  m.objects.size());
  for (const auto& p : m.positions) {
    b.put(p[0]).put(p[1]).put(p[2]);
  }
  for (const auto& t : m.uvs) {
    if (flags & kKvmUvDouble) {
      b.put(t[0]).put(t[1]);
    } else {
      b.put(static_cast<float>(t[0])).put(static_cast<float>(t[1]));
    }
  }
  for (const auto& n : m.normals) {
    b.put(n[0]).put(n[1]).put(n[2]);
  }
  for (const auto& t : m.triangles) {
    for (const auto& c : t.corners) {
      b.put(c.position).put(c.uv).put(c.normal);
    }
    b.put(t.object);
  }
  for (const auto& s : m.objects) {
    b.name(s);
  }
  if (flags & kKvmMaterials) {
    b.put(std::uint64_t{m.materials.size()});
    for (const auto& s : m.materials) {
      b.name(s);
    }
    for (auto i : m.triangle_materials) {
      b.put(i);
    }
  }
  if (flags & kKvmBlocks) {
    b.put(std::uint64_t{m.blocks.size()});
    for (const auto& s : m.blocks) {
      b.name(s);
    }
    for (auto i : m.object_blocks) {
      b.put(i);
    }
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

template <typename T>
void poke(std::string& bytes, std::size_t offset, T value) {
  std::memcpy(bytes.data() + offset, &value, sizeof value);
}

TEST(KvmFile, WriterProducesTheLayoutByteForByteAndReadsBackBitEqual) {
  ScratchDir dir;
  const Mesh m = sample_mesh();
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
}

TEST(KvmFile, NarrowUvsWidenAndNormalsScaleUnlessKeptAsStored) {
  Mesh m = sample_mesh();
  m.normals = {{0, 0, 2}, {0, 3, 4}};
  const Mesh narrow = read_bytes(layout(m, 0));
  ASSERT_EQ(narrow.uvs.size(), 3u);
  EXPECT_EQ(narrow.uvs[0][0], static_cast<double>(0.1f));
  EXPECT_NE(narrow.uvs[0][0], 0.1);
  EXPECT_EQ(narrow.uvs[2][0], static_cast<double>(static_cast<float>(1.0 / 3.0)));
  using Normals = std::vector<std::array<float, 3>>;
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
  EXPECT_EQ(read_error(header(0, 1, big, 0, 1, 1)), "too many elements");
  EXPECT_EQ(read_error(header(0, 1, 0, big, 1, 1)), "too many elements");
  EXPECT_EQ(read_error(header(0, 1, 0, 0, big, 1)), "too many elements");
  EXPECT_EQ(read_error(header(0, 1, 0, 0, 0, big)), "too many elements");
  EXPECT_EQ(read_error(header(0, 2147483647, 0, 0, 0, 1)), "mesh has no faces");
  EXPECT_EQ(read_error(header(0, 3, 0, 0, 1, 0)), "mesh has no objects");
}

TEST(KvmFile, SizeBelowTheBoundIsTruncatedBeforeAnyArrayIsRead) {
  const Mesh m = sample_mesh();
  for (std::uint32_t flags : {0u, 1u, 4u, 5u, 8u}) {
    SCOPED_TRACE(flags);
    std::string full = layout(m, flags);
    const std::uint64_t bound = 56 + 12 * 4 + ((flags & 1) ? 16 : 8) * 3 + 12 * 2 + 40 * 2 + 4 * 2 +
                                ((flags & 4) ? 8 + 4 * 2 : 0);
    // A bad position would be found if the arrays were read: they must not be.
    poke(full, 56, std::numeric_limits<float>::quiet_NaN());
    EXPECT_EQ(read_error(full.substr(0, bound - 1)), "the file is truncated");
  }
  // Huge counts with a tiny file: refused by the bound, nothing allocated.
  EXPECT_EQ(read_error(header(0, 2147483647, 2147483647, 2147483647, 2147483647, 2147483647)),
            "the file is truncated");
  // Past the bound but short in the names.
  Mesh named = sample_mesh();
  named.objects = {"a-long-object-name", "b"};
  const std::string names = layout(named, 0);
  EXPECT_EQ(read_error(names.substr(0, names.size() - 3)), "the file is truncated");
}

TEST(KvmFile, NameAndTableFaults) {
  const Mesh m = sample_mesh();
  const std::size_t names_at = 56 + 48 + 24 + 24 + 80;  // flags 0: float UVs
  std::string bytes = layout(m, 0);
  poke(bytes, names_at, std::uint32_t{65537});
  EXPECT_EQ(read_error(bytes), "object name too long");

  Mesh long_name = m;
  long_name.objects[0] = std::string(65536, 'x');
  EXPECT_EQ(read_bytes(layout(long_name, 0)).objects[0].size(), 65536u);

  const std::size_t materials_at = names_at + 8 + 4;  // "Body" and ""
  bytes = layout(m, kKvmMaterials);
  poke(bytes, materials_at, std::uint64_t{0});
  EXPECT_EQ(read_error(bytes), "bad material count 0");
  poke(bytes, materials_at, std::uint64_t{2147483648ull});
  EXPECT_EQ(read_error(bytes), "bad material count 2147483648");
  bytes = layout(m, kKvmMaterials);
  poke(bytes, materials_at + 8, std::uint32_t{70000});
  EXPECT_EQ(read_error(bytes), "material name too long");
  bytes = layout(m, kKvmMaterials);
  const std::size_t material_indices_at = materials_at + 8 + 4 + 4 + 4 + 5;
  poke(bytes, material_indices_at + 4, std::uint32_t{2});
  EXPECT_EQ(read_error(bytes), "triangle 1 has a material index out of range");

  const std::size_t blocks_at = materials_at;  // no materials before them
  bytes = layout(m, kKvmBlocks);
  poke(bytes, blocks_at, std::uint64_t{0});
  EXPECT_EQ(read_error(bytes), "bad block count 0");
  bytes = layout(m, kKvmBlocks);
  poke(bytes, blocks_at + 8, std::uint32_t{65537});
  EXPECT_EQ(read_error(bytes), "block name too long");
  bytes = layout(m, kKvmBlocks);
  poke(bytes, blocks_at + 8 + 4 + 5 + 4, std::uint32_t{1});
  EXPECT_EQ(read_error(bytes), "an object has a block index out of range");
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

  m = sample_mesh();
  m.normals[1] = {0, 0, 1e-20f};
  EXPECT_EQ(read_error(layout(m, 0)), "normal 1 has no direction");
  EXPECT_EQ(read_error(layout(m, kKvmNormalsAsIs)), "normal 1 has no direction");
  m.normals[1] = {0, 0, 1e-19f};  // squared 1e-38: just below the smallest normal float
  EXPECT_EQ(read_error(layout(m, 0)), "normal 1 has no direction");
  m.normals[1] = {0, 1.1e-19f, 0};  // squared above it: a direction
  EXPECT_EQ(read_error(layout(m, 0)), "");
  m.normals[1] = {3e19f, 3e19f, 3e19f};  // squared length overflows
  EXPECT_EQ(read_error(layout(m, 0)), "normal 1 has no direction");
  m.normals[1] = {0, std::numeric_limits<float>::quiet_NaN(), 1};
  EXPECT_EQ(read_error(layout(m, 0)), "normal 1 has no direction");

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
  m = sample_mesh();
  m.triangles[0].object = 9;
  m.normals[0] = {0, 0, 0};
  m.positions[2][0] = std::numeric_limits<float>::quiet_NaN();
  EXPECT_EQ(read_error(layout(m, 0)), "position 2 is not finite");
  m.positions[2][0] = 0;
  EXPECT_EQ(read_error(layout(m, 0)), "normal 0 has no direction");
}

TEST(KvmFile, DuplicateObjectNamesAreRefusedFirstInObjectOrder) {
  Mesh m = sample_mesh();
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
  const std::string good = layout(m, kKvmUvDouble);
  const Mesh one = read_bytes(good, 1);
  const Mesh two = read_bytes(good, 2);
  test::expect_same_mesh(one, two);
  const auto& n = m.normals[129999];
  const double len = std::sqrt(double{n[0]} * n[0] + double{n[1]} * n[1] + double{n[2]} * n[2]);
  EXPECT_NEAR(one.normals[129999][0], n[0] / len, 1e-6);
  EXPECT_NEAR(one.normals[129999][2], n[2] / len, 1e-6);

  m.positions[70000][2] = std::numeric_limits<float>::infinity();
  m.positions[5][0] = std::numeric_limits<float>::quiet_NaN();
  m.positions[199999][1] = std::numeric_limits<float>::quiet_NaN();
  m.normals[131072] = {0, 0, 0};
  m.normals[65536] = {0, 0, 0};
  m.triangles[66000].corners[1].normal = 200000;
  m.triangles[40000].corners[0].uv = -7;
  std::string bad = layout(m, kKvmUvDouble);
  for (int threads : {1, 2, 0}) {
    EXPECT_EQ(read_error(bad, threads), "position 5 is not finite");
  }
  m.positions[5][0] = 0;
  m.positions[70000][2] = 0;
  m.positions[199999][1] = 0;
  bad = layout(m, kKvmUvDouble);
  for (int threads : {1, 2}) {
    EXPECT_EQ(read_error(bad, threads), "normal 65536 has no direction");
  }
  m.normals[131072] = {1, 0, 0};
  m.normals[65536] = {1, 0, 0};
  bad = layout(m, kKvmUvDouble);
  for (int threads : {1, 2}) {
    EXPECT_EQ(read_error(bad, threads), "triangle 40000 has an index out of range");
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
  struct Case {
    std::function<void(Mesh&)> change;
    std::uint32_t flags;
    std::string message;
  };
  const std::vector<Case> cases = {
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
  for (const Case& c : cases) {
    Mesh m = sample_mesh();
    c.change(m);
    EXPECT_EQ(write_error(m, c.flags), c.message) << c.message;
  }
  Mesh m = sample_mesh();
  m.object_blocks[1] = 5;
  EXPECT_EQ(read_error(layout(m, kKvmBlocks)), "an object has a block index out of range");
}

TEST(KvmFile, FailedWriteLeavesTheDestinationUntouched) {
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
