// IEEE 754 binary16 conversion, done on bits so that it rounds the same way
// on every compiler and machine.
//
// A value is rounded to half once, from the type it is held in: a double
// rounded to float first and then to half can land on a different half
// (the float step may make a tie, or break one), so the float and the double
// each have their own entry, both with the one rounding below.
#pragma once

#include <bit>
#include <cstdint>

namespace kv {

namespace half_detail {

// The half nearest to a finite magnitude given as the bits of a wider IEEE
// binary format (sign bit clear) with `kFractionBits` fraction bits and
// exponent bias `kBias`, ties to even; from 65520 on (halfway between the
// largest half, 65504, and 2^16; ties go to the even infinity) infinity.
template <typename Bits, int kFractionBits, int kBias>
constexpr std::uint16_t round_magnitude(Bits magnitude) {
  constexpr Bits kOne = 1;
  constexpr int kDropped = kFractionBits - 10;  // fraction bits a half has no room for
  constexpr Bits kInfinityFrom = (static_cast<Bits>(kBias + 15) << kFractionBits) |
                                 (Bits{0x3ffu} << kDropped) | (kOne << (kDropped - 1));
  constexpr Bits kSmallestNormal = static_cast<Bits>(kBias - 14) << kFractionBits;
  if (magnitude >= kInfinityFrom) {
    return 0x7c00u;
  }
  if (magnitude >= kSmallestNormal) {  // a normal half: rebias, round off the dropped bits
    Bits half = (magnitude >> kDropped) - (static_cast<Bits>(kBias - 15) << 10);
    const Bits rest = magnitude & ((kOne << kDropped) - 1u);
    const Bits halfway = kOne << (kDropped - 1);
    if (rest > halfway || (rest == halfway && (half & 1u) != 0)) {
      ++half;  // a carry into the exponent is the right result
    }
    return static_cast<std::uint16_t>(half);
  }
  // A subnormal half (or zero): the value in units of 2^-24.
  const auto exponent = static_cast<int>(magnitude >> kFractionBits);
  if (exponent < kBias - 25) {  // below 2^-25: rounds to zero
    return 0;
  }
  const Bits significand = (magnitude & ((kOne << kFractionBits) - 1u)) | (kOne << kFractionBits);
  const int shift = kBias + kFractionBits - 24 - exponent;  // bits below the unit 2^-24
  Bits half = significand >> shift;
  const Bits rest = significand & ((kOne << shift) - 1u);
  const Bits halfway = kOne << (shift - 1);
  if (rest > halfway || (rest == halfway && (half & 1u) != 0)) {
    ++half;  // 1024 is exactly the smallest normal's encoding
  }
  return static_cast<std::uint16_t>(half);
}

}  // namespace half_detail

// The half float nearest to the float, ties to even; values beyond the half
// range become infinities, NaN stays NaN (its sign and top payload bits kept,
// made quiet).
constexpr std::uint16_t float_to_half_bits(float value) {
  const std::uint32_t bits = std::bit_cast<std::uint32_t>(value);
  const auto sign = static_cast<std::uint16_t>((bits >> 16) & 0x8000u);
  const std::uint32_t magnitude = bits & 0x7fffffffu;
  if (magnitude > 0x7f800000u) {
    return static_cast<std::uint16_t>(sign | 0x7e00u | ((magnitude >> 13) & 0x3ffu));
  }
  return static_cast<std::uint16_t>(
      sign | half_detail::round_magnitude<std::uint32_t, 23, 127>(magnitude));
}

// The half float nearest to the double itself, ties to even, in one rounding
// (not through a float); values beyond the half range become infinities,
// NaN becomes the quiet NaN 0x7e00 with its sign.
constexpr std::uint16_t double_to_half_bits(double value) {
  const std::uint64_t bits = std::bit_cast<std::uint64_t>(value);
  const auto sign = static_cast<std::uint16_t>((bits >> 48) & 0x8000u);
  const std::uint64_t magnitude = bits & 0x7fffffffffffffffu;
  if (magnitude > 0x7ff0000000000000u) {
    return static_cast<std::uint16_t>(sign | 0x7e00u);
  }
  return static_cast<std::uint16_t>(
      sign | half_detail::round_magnitude<std::uint64_t, 52, 1023>(magnitude));
}

// The exact value of a half float; a NaN becomes the quiet NaN without
// payload, its sign kept.
constexpr double half_bits_to_double(std::uint16_t bits) {
  const std::uint64_t sign = static_cast<std::uint64_t>(bits & 0x8000u) << 48;
  const std::uint64_t exponent = (bits >> 10) & 0x1fu;
  const std::uint64_t fraction = bits & 0x3ffu;
  if (exponent == 0) {  // zero or subnormal: units of 2^-24, exact in a double
    const double magnitude = static_cast<double>(fraction) * 0x1p-24;
    return sign != 0 ? -magnitude : magnitude;
  }
  if (exponent == 31) {
    const std::uint64_t quiet = fraction != 0 ? 0x8000000000000u : 0u;
    return std::bit_cast<double>(sign | 0x7ff0000000000000u | quiet);
  }
  return std::bit_cast<double>(sign | ((exponent + 1023u - 15u) << 52) | (fraction << 42));
}

}  // namespace kv
