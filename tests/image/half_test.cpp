// Half-float conversion: the double and float roundings and the widening.
// The float rounding is also checked against the EXR library's in exr_test.
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <iterator>

#include "image/half.h"

namespace kv {
namespace {

TEST(HalfFloat, RoundsToNearestEven) {
  // 65520 is halfway to infinity, which is even; 1 + 2^-11 and 1 + 3 2^-11
  // are halfway with the even neighbour below and above; 2^-25 is halfway to
  // 0; 1023.5 2^-24 (0x1.ffcp-15) rounds up into the normals; 1.9996 carries
  // into the exponent.
  const double values[] = {1.0,      -2.0,      0.0,         -0.0,      65504.0,
                           65519.99, 65520.0,   0x1.002p0,   0x1.006p0, 0x1p-24,
                           0x1p-25,  0x1.8p-25, 0x1.ffcp-15, 1.9996,    INFINITY};
  const int halves[] = {0x3C00, 0xC000, 0x0000, 0x8000, 0x7BFF, 0x7BFF, 0x7C00, 0x3C00,
                        0x3C02, 0x0001, 0x0000, 0x0001, 0x0400, 0x4000, 0x7C00};
  for (std::size_t i = 0; i < std::size(values); ++i) {
    EXPECT_EQ(double_to_half_bits(values[i]), halves[i]) << values[i];
  }
  const std::uint16_t nan = double_to_half_bits(NAN);
  EXPECT_EQ(nan & 0x7C00, 0x7C00);
  EXPECT_NE(nan & 0x03FF, 0);
  for (std::uint32_t bits = 0; bits < 0x10000; ++bits) {
    const auto h = static_cast<std::uint16_t>(bits);
    if ((h & 0x7C00) == 0x7C00 && (h & 0x03FF) != 0) {
      EXPECT_TRUE(std::isnan(half_bits_to_double(h)));
    } else {
      ASSERT_EQ(double_to_half_bits(half_bits_to_double(h)), h) << bits;
    }
  }
  EXPECT_EQ(half_bits_to_double(0x0001), std::ldexp(1.0, -24));
  EXPECT_EQ(half_bits_to_double(0x3555), 0.333251953125);
}

TEST(HalfFloat, DoubleEdgesBeyondTheNormalTies) {
  // Subnormal ties go to the even unit; 2^-25 plus a bit no float holds is
  // past the halfway to 0; negative values round as their magnitude; values
  // far outside the float range still saturate or vanish.
  const double values[] = {0x1.8p-24, 0x1.4p-23,    -0x1.8p-24, 0x1.0000000000001p-25,
                           -65520.0,  -65519.99,    1e300,      -1e300,
                           0x1p-1074, -0x1.ff8p-15, -INFINITY};
  const int halves[] = {0x0002, 0x0002, 0x8002, 0x0001, 0xFC00, 0xFBFF,
                        0x7C00, 0xFC00, 0x0000, 0x83FF, 0xFC00};
  for (std::size_t i = 0; i < std::size(values); ++i) {
    EXPECT_EQ(double_to_half_bits(values[i]), halves[i]) << values[i];
  }
  // Every NaN becomes the one quiet NaN, its sign kept, its payload not.
  EXPECT_EQ(double_to_half_bits(std::bit_cast<double>(0x7FF0000000000001u)), 0x7E00);
  EXPECT_EQ(double_to_half_bits(std::bit_cast<double>(0xFFF4000000000000u)), 0xFE00);
}

TEST(HalfFloat, FloatNaNKeepsSignAndTopPayloadAndIsMadeQuiet) {
  EXPECT_EQ(float_to_half_bits(std::bit_cast<float>(0x7FC00000u)), 0x7E00);
  EXPECT_EQ(float_to_half_bits(std::bit_cast<float>(0xFFC02000u)), 0xFE01);
  // A signalling NaN whose payload lies below the half's bits stays a NaN.
  EXPECT_EQ(float_to_half_bits(std::bit_cast<float>(0x7F800001u)), 0x7E00);
  EXPECT_EQ(float_to_half_bits(std::bit_cast<float>(0x7FA00000u)), 0x7F00);
}

TEST(HalfFloat, ADoubleIsRoundedOnceNotThroughAFloat) {
  // Just above and just below a halfway point between halves: the float
  // step drops the 2^-40 and leaves an exact tie, which goes to the even half.
  const double above = 0x1.002p0 + 0x1p-40;  // 1 + 2^-11 + 2^-40
  const double below = 0x1.006p0 - 0x1p-40;  // 1 + 3 2^-11 - 2^-40
  EXPECT_EQ(double_to_half_bits(above), 0x3C01);
  EXPECT_EQ(float_to_half_bits(static_cast<float>(above)), 0x3C00);
  EXPECT_EQ(double_to_half_bits(below), 0x3C01);
  EXPECT_EQ(float_to_half_bits(static_cast<float>(below)), 0x3C02);
}

TEST(HalfFloat, WideningIsExactAtTheRangeEdges) {
  const std::uint16_t halves[] = {0x03FF, 0x0400, 0x7BFF, 0xFBFF, 0x8001, 0x7C00, 0xFC00};
  const double values[] = {0x1.ff8p-15, 0x1p-14, 65504.0, -65504.0, -0x1p-24, INFINITY, -INFINITY};
  for (std::size_t i = 0; i < std::size(halves); ++i) {
    EXPECT_EQ(half_bits_to_double(halves[i]), values[i]) << halves[i];
  }
  EXPECT_TRUE(std::signbit(half_bits_to_double(0x8000)));
  EXPECT_EQ(half_bits_to_double(0x8000), 0.0);
  const double negative_nan = half_bits_to_double(0xFE01);
  EXPECT_TRUE(std::isnan(negative_nan));
  EXPECT_TRUE(std::signbit(negative_nan));
  // The conversions stay usable in constant expressions.
  static_assert(float_to_half_bits(65519.0f) == 0x7BFF);
  static_assert(double_to_half_bits(0x1.002p0) == 0x3C00);
  static_assert(half_bits_to_double(0x3C01) == 0x1.004p0);
}

}  // namespace
}  // namespace kv
