// IEEE 754 binary16 conversion, done on bits so that it rounds the same way
// on every compiler and machine.
#pragma once

#include <bit>
#include <cstdint>

namespace kv {

// The half float nearest to value, ties to even; values beyond the half range
// become infinities, NaN stays NaN (its sign and top payload bits kept).
constexpr std::uint16_t float_to_half_bits(float value) {
  const std::uint32_t bits = std::bit_cast<std::uint32_t>(value);
  const auto sign = static_cast<std::uint16_t>((bits >> 16) & 0x8000u);
  const std::uint32_t magnitude = bits & 0x7fffffffu;
  if (magnitude >= 0x7f800000u) {  // infinity or NaN
    if (magnitude == 0x7f800000u) {
      return static_cast<std::uint16_t>(sign | 0x7c00u);
    }
    return static_cast<std::uint16_t>(sign | 0x7e00u | ((magnitude >> 13) & 0x3ffu));
  }
  if (magnitude >= 0x477ff000u) {  // 65520 and above round past the largest half
    return static_cast<std::uint16_t>(sign | 0x7c00u);
  }
  if (magnitude >= 0x38800000u) {  // a normal half: rebias, round off 13 bits
    std::uint32_t half = (magnitude >> 13) - (112u << 10);
    const std::uint32_t rest = magnitude & 0x1fffu;
    if (rest > 0x1000u || (rest == 0x1000u && (half & 1u) != 0)) {
      ++half;  // a carry into the exponent is the right result
    }
    return static_cast<std::uint16_t>(sign | half);
  }
  // A subnormal half (or zero): the value in units of 2^-24.
  const std::uint32_t exponent = magnitude >> 23;
  if (exponent < 102) {  // below 2^-25: rounds to zero
    return sign;
  }
  const std::uint32_t mantissa = (magnitude & 0x7fffffu) | 0x800000u;
  const std::uint32_t shift = 126u - exponent;  // 14 to 24
  std::uint32_t half = mantissa >> shift;
  const std::uint32_t rest = mantissa & ((1u << shift) - 1u);
  const std::uint32_t halfway = 1u << (shift - 1u);
  if (rest > halfway || (rest == halfway && (half & 1u) != 0)) {
    ++half;
  }
  return static_cast<std::uint16_t>(sign | half);
}

}  // namespace kv
