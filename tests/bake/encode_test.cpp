#include "bake/encode.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace kv {
namespace {

TEST(Encode, FixedPointsAndClamping) {
  EXPECT_EQ(encode_unorm16(0.5), 32768);
  EXPECT_EQ(encode_unorm16(1.0), 65535);
  EXPECT_EQ(encode_unorm16(-0.2), 0);
  EXPECT_EQ(encode_unorm16(std::numeric_limits<double>::quiet_NaN()), 0);
  EXPECT_EQ(encode_unorm16(-std::numeric_limits<double>::quiet_NaN()), 0);
  EXPECT_EQ(encode_unorm16(0.0), 0);
  EXPECT_EQ(encode_unorm16(-0.0), 0);
  EXPECT_EQ(encode_unorm16(1.5), 65535);
  EXPECT_EQ(encode_unorm16(std::numeric_limits<double>::infinity()), 65535);
  EXPECT_EQ(encode_unorm16(-std::numeric_limits<double>::infinity()), 0);
  // The smallest positive values still round down to 0.
  EXPECT_EQ(encode_unorm16(std::numeric_limits<double>::denorm_min()), 0);
  // Just below 1: 65534.99... + 0.5 floors to 65535, never wraps.
  EXPECT_EQ(encode_unorm16(std::nextafter(1.0, 0.0)), 65535);
}

TEST(Encode, RoundsHalfUp) {
  // Values whose product with 65535 is exactly k + 0.5 go up to k + 1; the
  // next double below goes down to k. Half-to-even would send 0.5 to 0 and
  // 2.5 to 2.
  int checked = 0;
  for (int k : {0, 1, 2, 1000, 32767, 65533}) {
    const double x = (k + 0.5) / 65535.0;
    if (x * 65535.0 != k + 0.5) {
      continue;  // not exactly representable; the boundary lies elsewhere
    }
    ++checked;
    EXPECT_EQ(encode_unorm16(x), k + 1) << k;
    EXPECT_EQ(encode_unorm16(std::nextafter(x, 0.0)), k) << k;
  }
  EXPECT_GE(checked, 3);
}

TEST(Encode, EveryCodeSurvivesDecodeAndEncode) {
  for (int c = 0; c <= 65535; ++c) {
    const auto code = static_cast<std::uint16_t>(c);
    ASSERT_EQ(encode_unorm16(decode_unorm16(code)), code);
  }
}

}  // namespace
}  // namespace kv
