// Small helpers the mesh reader tests share: a mesh touching every section,
// a bit-for-bit comparison and the message a call fails with.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "core/error.h"
#include "mesh/kvm_file.h"
#include "mesh/mesh.h"
#include "support/test_support.h"

namespace kv::test {

// The most positions a .kvm file may hold.
inline constexpr std::uint64_t kMostKvmPositions = 2147483647;

// An intact .kvm file of a mesh too large for memory: its header announces
// the most positions a .kvm may hold (24 GiB of them), and the file is a
// sparse one of the length that header implies. Returns that length.
inline std::uint64_t write_oversized_kvm(const std::filesystem::path& path) {
  std::string header(kKvmHeaderBytes, '\0');
  const std::uint32_t version = 1, flags = kKvmUvDouble | kKvmNormalsAsIs;
  // Positions, UVs, normals, triangles and objects, as the header orders them.
  const std::uint64_t counts[5] = {kMostKvmPositions, 0, 0, 1, 1};
  std::memcpy(header.data(), kKvmMagic, sizeof kKvmMagic);
  std::memcpy(header.data() + 8, &version, 4);
  std::memcpy(header.data() + 12, &flags, 4);
  std::memcpy(header.data() + 16, counts, sizeof counts);
  write_text_file(path, header);
  // The header, the positions, one triangle and one object name's length.
  const std::uint64_t size = kKvmHeaderBytes + 12 * kMostKvmPositions + 40 + 4;
  std::filesystem::resize_file(path, size);
  return size;
}

// UVs float32 cannot hold, normals that are not unit length, corners without
// UV or normal, objects in blocks.
inline Mesh sample_mesh() {
  Mesh m;
  m.positions = {{0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {0, 1, 0.5f}};
  m.uvs = {{0.1, 0.2}, {0.7, 1.0 / 7.0}, {1.0 / 3.0, 0.9}};
  m.normals = {{0, 0, 2}, {0, 0.6f, 0.81f}};
  Triangle a;
  a.corners = {Corner{0, 0, 0}, Corner{1, 1, 0}, Corner{2, 2, 1}};
  a.object = 0;
  Triangle b;
  b.corners = {Corner{0, -1, -1}, Corner{2, 2, -1}, Corner{3, -1, 1}};
  b.object = 1;
  m.triangles = {a, b};
  m.objects = {"Body", ""};
  m.materials = {"skin", "metal"};
  m.triangle_materials = {1, 0};
  m.blocks = {"group"};
  m.object_blocks = {0, 0};
  return m;
}

template <typename T, typename A>
bool same_bytes(const std::vector<T, A>& a, const std::vector<T, A>& b) {
  return a.size() == b.size() &&
         (a.empty() || std::memcmp(a.data(), b.data(), a.size() * sizeof(T)) == 0);
}

// Bit-equal arrays and equal tables (materials only when asked).
inline void expect_same_mesh(const Mesh& a, const Mesh& b, bool materials = true) {
  EXPECT_TRUE(same_bytes(a.positions, b.positions));
  EXPECT_TRUE(same_bytes(a.uvs, b.uvs));
  EXPECT_TRUE(same_bytes(a.normals, b.normals));
  EXPECT_TRUE(same_bytes(a.triangles, b.triangles));
  EXPECT_TRUE(same_bytes(a.colors, b.colors));
  EXPECT_EQ(a.objects, b.objects);
  EXPECT_EQ(a.blocks, b.blocks);
  EXPECT_EQ(a.object_blocks, b.object_blocks);
  if (materials) {
    EXPECT_EQ(a.materials, b.materials);
    EXPECT_EQ(a.triangle_materials, b.triangle_materials);
  }
}

// The message of the kv::Error the call throws ("" when it returns), less
// `prefix`, which the message must start with.
template <typename F>
std::string error_of(F&& call, const std::string& prefix = "") {
  try {
    call();
  } catch (const Error& e) {
    const std::string what = e.what();
    EXPECT_EQ(what.rfind(prefix, 0), 0u) << what;
    return what.substr(std::min(prefix.size(), what.size()));
  }
  return "";
}

}  // namespace kv::test
