// The 32-bit vector of positions and normals, and its one normalisation.
#pragma once

#include <array>
#include <cmath>

namespace kv {

using Vec3f = std::array<float, 3>;

// v scaled by 1 / |v| in 32-bit float, the squares summed as (x + y) + z;
// false (and v unchanged) when the length is not above 0 or not finite.
// Inline: the bake runs it twice per sample.
inline bool normalize_in_place(Vec3f& v) {
  const float xx = v[0] * v[0];
  const float yy = v[1] * v[1];
  const float zz = v[2] * v[2];
  const float length = std::sqrt((xx + yy) + zz);
  if (!(length > 0.0f) || !std::isfinite(length)) {
    return false;
  }
  const float inv = 1.0f / length;
  v = {v[0] * inv, v[1] * inv, v[2] * inv};
  return true;
}

}  // namespace kv
