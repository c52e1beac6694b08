// The ID map's sources and colours: every high triangle gets an ID by the
// chosen source, and every ID one colour by the chosen generator.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "mesh/mesh.h"
#include "meshmaps/meshmaps_settings.h"

namespace kv::meshmaps {

// One ID per high triangle, numbered 0..count-1 in order of first use.
struct TriangleIds {
  std::vector<std::uint32_t> ids;
  // One colour per ID, each channel in [0, 1].
  std::vector<std::array<double, 3>> colours;
};

// Vertex colours are the colours themselves (the generator does not apply);
// a mesh without them, materials or polygroups gives every triangle ID 0.
TriangleIds triangle_ids(const Mesh& high, IdSource source, IdGenerator generator,
                         std::uint32_t seed);

// The colour of ID `index` among `count`: distinct IDs give distinct colours.
std::array<double, 3> id_colour(std::uint32_t index, std::uint32_t count, IdGenerator generator,
                                std::uint32_t seed);

// Connected groups of triangles that share a position, numbered in order of
// their first triangle.
std::vector<std::uint32_t> mesh_islands(const Mesh& mesh);

}  // namespace kv::meshmaps
