// Normals of the low mesh's triangle corners: a corner's own normal and the
// angle-weighted average over the corners that share its position.
#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <vector>

#include "mesh/mesh.h"

namespace kv {

// The unit normal (p1 - p0) x (p2 - p0) of triangle t in 32-bit floats, or
// nothing when its length is not above 0 or not finite.
std::optional<std::array<float, 3>> face_normal(const Mesh& mesh, std::size_t t);

// The mesh's normal of corner `corner` of triangle t when it has one, else
// the triangle's face normal (which may be missing).
std::optional<std::array<float, 3>> corner_normal(const Mesh& mesh, std::size_t t, int corner);

// One normal per corner (3 per triangle): the corners that share an object and
// a position (bit for bit, -0 taken as +0) average their own normals, each
// weighted by its corner angle, in 64-bit. A corner whose sum cannot be
// normalised keeps its own normal, or (0, 0, 0) when it has none.
std::vector<std::array<float, 3>> averaged_normals(const Mesh& mesh, int threads);

}  // namespace kv
