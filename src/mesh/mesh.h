// The one in-memory triangle mesh. Arrays index one another the way an OBJ
// file does: a corner names a position, a UV and a normal separately.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "core/large_array.h"

namespace kv {

struct Corner {
  std::uint32_t position = 0;  // index into positions
  std::int32_t uv = -1;        // index into uvs, or -1
  std::int32_t normal = -1;    // index into normals, or -1
};

struct Triangle {
  std::array<Corner, 3> corners;  // in the source's winding order
  std::uint32_t object = 0;       // index into objects
};
static_assert(sizeof(Corner) == 12, "Corner is three 32-bit fields");
static_assert(sizeof(Triangle) == 40, "Triangle is 40 bytes with no padding");

struct Mesh {
  LargeArray<std::array<float, 3>> positions;
  LargeArray<std::array<double, 2>> uvs;  // float64 from reading to the raster
  LargeArray<std::array<float, 3>> normals;
  LargeArray<Triangle> triangles;
  std::vector<std::string> objects;
  std::vector<std::string> materials;
  LargeArray<std::uint32_t> triangle_materials;  // one per triangle, or empty
  std::vector<std::string> blocks;
  LargeArray<std::uint32_t> object_blocks;    // one per object, or empty
  std::vector<std::string> object_alt_names;  // one per object, or empty
  LargeArray<std::uint32_t> polygroups;       // one per triangle, or empty
  LargeArray<std::array<float, 3>> colors;    // one per corner, or empty
};

// Counters a reader fills while it builds a Mesh.
struct MeshStats {
  std::uint64_t lines = 0;             // OBJ line elements, skipped
  std::uint64_t quads_split = 0;       // quads split into two triangles
  std::uint64_t polygons = 0;          // OBJ faces of five or more corners; not cached
  std::uint64_t polygons_inexact = 0;  // polygons left as their fan
};

// Bytes a Mesh occupies as the service's memory budget counts them.
std::uint64_t mesh_memory_bytes(const Mesh& mesh);

}  // namespace kv
