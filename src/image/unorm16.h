// The one conversion of the program from a float in [0, 1] to a UNORM16 code
// (c stands for c / 65535). Every Normal and Opacity code is made here; a
// float-to-code conversion anywhere else is a bug.
#pragma once

#include <cstdint>

namespace kv {

// 0 when x is not above 0 (NaN included), 65535 when x >= 1, otherwise
// floor(x * 65535 + 0.5): round half up, in 64-bit.
inline std::uint16_t encode_unorm16(double x) {
  if (!(x > 0.0)) {
    return 0;
  }
  if (x >= 1.0) {
    return 65535;
  }
  const double scaled = x * 65535.0;
  // scaled + 0.5 lies in (0.5, 65535.5) here, where truncation is floor: one
  // conversion instead of a library call for every channel of every texel.
  return static_cast<std::uint16_t>(static_cast<std::uint32_t>(scaled + 0.5));
}

// The value a code stands for.
inline double decode_unorm16(std::uint16_t code) {
  return static_cast<double>(code) / 65535.0;
}

}  // namespace kv
