// A deterministic OBJ file for the reading benchmarks: several objects, each
// a displaced grid of quads and triangles with positions, UVs and normals.
#pragma once

#include <cstdint>
#include <filesystem>

#include "mesh/mesh.h"

namespace kv::bench {

struct BenchObjShape {
  int objects = 8;
  int grid = 360;  // cells per side of each object's grid
};

struct BenchObjInfo {
  std::uint64_t bytes = 0;
  std::uint64_t positions = 0;
  std::uint64_t triangles = 0;  // after quads are split
  std::uint64_t quads = 0;
};

// The counts a file of this shape holds, without writing it.
BenchObjInfo bench_obj_info(const BenchObjShape& shape);

// Writes the file (replacing it); the same shape always gives the same bytes.
// Throws kv::Error when the file cannot be written.
BenchObjInfo write_bench_obj(const std::filesystem::path& path, const BenchObjShape& shape = {});

// Bytes a finished mesh holds in its arrays and names.
std::uint64_t mesh_array_bytes(const Mesh& mesh);

// Reads a whole file into fresh memory in one call, its pages mapped on
// `threads` threads first as the mesh readers map theirs: the floor of any
// reader that must read the file once. Throws kv::Error on failure.
void plain_read(const std::filesystem::path& path, int threads);

}  // namespace kv::bench
