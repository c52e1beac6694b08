#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "core/parse_number.h"

namespace kv {
namespace {

TEST(ParseInt32, SignsDigitsAndRange) {
  EXPECT_EQ(parse_int32("0"), 0);
  EXPECT_EQ(parse_int32("+4"), 4);
  EXPECT_EQ(parse_int32("-4"), -4);
  EXPECT_EQ(parse_int32("+-4"), -4);  // plus first, then minus
  EXPECT_EQ(parse_int32("007"), 7);
  EXPECT_EQ(parse_int32("2147483647"), 2147483647);
  EXPECT_EQ(parse_int32("-2147483648"), -2147483647 - 1);
  EXPECT_FALSE(parse_int32("2147483648"));
  EXPECT_FALSE(parse_int32("-2147483649"));
  EXPECT_FALSE(parse_int32("99999999999999999999"));
  for (const char* bad :
       {"", "+", "-", "-+4", "++4", "--4", "4x", " 4", "4 ", "1e3", "0x10", "4.0"}) {
    EXPECT_FALSE(parse_int32(bad)) << bad;
  }
}

TEST(ParseFloat32, CorrectRoundingAndWholeText) {
  EXPECT_EQ(parse_float32("0.01"), 0.01f);
  EXPECT_EQ(parse_float32("+2.5"), 2.5f);
  EXPECT_EQ(parse_float32("1e-3"), 1e-3f);
  EXPECT_EQ(parse_float32(".5"), 0.5f);
  EXPECT_EQ(parse_float32("5."), 5.0f);
  // Exactly halfway between two floats rounds to even; just above halfway
  // rounds up, which a parse through double (rounding to the halfway point
  // first) would get wrong.
  EXPECT_EQ(parse_float32("1.000000059604644775390625"), 1.0f);
  EXPECT_EQ(parse_float32("1.00000005960464477539062501"), std::nextafter(1.0f, 2.0f));
  EXPECT_EQ(parse_float32("3.4028235e38"), 3.4028235e38f);
  EXPECT_FALSE(parse_float32("3.5e38"));  // wider than float's range
  EXPECT_FALSE(parse_float32("-1e39"));
  const auto tiny = parse_float32("-1e-60");  // rounds to a signed zero
  ASSERT_TRUE(tiny);
  EXPECT_EQ(*tiny, 0.0f);
  EXPECT_TRUE(std::signbit(*tiny));
  EXPECT_TRUE(std::isnan(*parse_float32("nan")));
  EXPECT_TRUE(std::isinf(*parse_float32("inf")));
  for (const char* bad : {"", "+", "++1", "+-", "1.5e", "0x10", "1,5", " 1", "1 ", "e5", "."}) {
    EXPECT_FALSE(parse_float32(bad)) << bad;
  }
}

TEST(ParseFloat64, KeepsDoublePrecision) {
  EXPECT_EQ(parse_float64("0.1"), 0.1);
  EXPECT_EQ(parse_float64("+65535"), 65535.0);
  EXPECT_EQ(parse_float64("1e300"), 1e300);
  EXPECT_FALSE(parse_float64("1e400"));
  EXPECT_FALSE(parse_float64(""));
}

TEST(ParseUint64, DigitsOnly) {
  EXPECT_EQ(parse_uint64("18446744073709551615"), 18446744073709551615ull);
  EXPECT_FALSE(parse_uint64("18446744073709551616"));
  EXPECT_FALSE(parse_uint64("-1"));
  EXPECT_FALSE(parse_uint64("+1"));
  EXPECT_FALSE(parse_uint64("1a"));
}

}  // namespace
}  // namespace kv
