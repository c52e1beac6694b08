// Per-corner tangents and bitangent signs by the MikkTSpace method (default
// generation: 180 degree angular threshold), reproducing its results bit for
// bit: the same welding of identical corners, the same treatment of degenerate
// and zero-UV-area triangles, the same groups, the same angle-weighted sums in
// the same order. Normal maps baked against these frames shade correctly in
// every renderer that uses the method.
#pragma once

#include <array>
#include <span>
#include <vector>

#include "mesh/mesh.h"

namespace kv {

// One triangle corner as the method sees it; three per triangle, in order.
struct MikkCorner {
  std::array<float, 3> position;
  std::array<float, 3> normal;  // expected to be unit length
  std::array<float, 2> uv;
};

struct CornerTangent {
  std::array<float, 3> tangent;
  float sign = 1.0f;  // +1 or -1: the bitangent is sign * (normal x tangent)
};

// corners.size() must be a multiple of 3; the result has one entry per corner.
std::vector<CornerTangent> mikktspace_tangents(std::span<const MikkCorner> corners);

// The same over a mesh: positions and UVs (narrowed to 32-bit floats) from the
// mesh, one normal per corner supplied by the caller (3 per triangle). Every
// corner must have a UV; the caller checks that.
std::vector<CornerTangent> mikktspace_tangents(const Mesh& mesh,
                                               std::span<const std::array<float, 3>> normals);

}  // namespace kv
