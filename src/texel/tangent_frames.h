// The low mesh's per-corner tangent frames: MikkTSpace tangent and sign beside
// the corner normal they were generated against.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "mesh/mesh.h"

namespace kv {

struct TangentFrame {
  std::array<float, 3> tangent = {0.0f, 0.0f, 0.0f};
  float sign = 1.0f;  // +1 or -1
  std::array<float, 3> normal = {0.0f, 0.0f, 0.0f};
};
static_assert(sizeof(TangentFrame) == 28, "a tangent frame is seven 32-bit floats");

struct TangentFrames {
  std::vector<TangentFrame> frames;    // three per triangle, in triangle order
  std::uint64_t normal_fallbacks = 0;  // corners whose normal could not be formed
};

// Throws kv::Error naming the first triangle with a corner without UV.
TangentFrames build_tangent_frames(const Mesh& mesh);

}  // namespace kv
