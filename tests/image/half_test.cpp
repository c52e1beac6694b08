// Half-float conversion: the double and float roundings and the widening.
// The float rounding is also checked against the EXR library's in exr_test.
#include <gtest/gtest.h>

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

}  // namespace
}  // namespace kv
