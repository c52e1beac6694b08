#include <gtest/gtest.h>

#include <limits>
#include <string>

#include "bake/normal_bake_settings.h"
#include "core/error.h"

namespace kv {
namespace {

std::string start_failure(const NormalBakeSettings& s) {
  try {
    check_bake_start(s);
  } catch (const Error& e) {
    return e.what();
  }
  return "";
}

TEST(BakeStart, EachCheckAtItsBoundaries) {
  NormalBakeSettings s;
  EXPECT_EQ(start_failure(s), "");
  s.width = 16384;
  s.height = 1;
  EXPECT_EQ(start_failure(s), "");
  s.height = 16385;
  EXPECT_EQ(start_failure(s), "output size must be 1 to 16384 texels per side");
  s = {};
  for (int aa : {1, 2, 4, 8}) {
    s.aa = aa;
    EXPECT_EQ(start_failure(s), "");
  }
  for (int aa : {0, 3, 16, -1}) {
    s.aa = aa;
    EXPECT_EQ(start_failure(s), "antialiasing must be 1, 2, 4 or 8 sub-samples per side");
  }
  s = {};
  s.uv_snap_bits = -2;
  EXPECT_EQ(start_failure(s), "UV snap bits must be -1 (off) or 0 to 16");
  s.uv_snap_bits = -1;
  EXPECT_EQ(start_failure(s), "");
  s = {};
  s.udim = 1000;
  EXPECT_EQ(start_failure(s), "UDIM tile must be 1001 to 1999");
  s.udim = 1999;
  EXPECT_EQ(start_failure(s), "");
  s = {};
  s.band_samples = 0;
  EXPECT_EQ(start_failure(s), "band_samples must be at least 1");
  s = {};
  s.front = 0.0f;
  s.rear = 0.0f;
  EXPECT_EQ(start_failure(s), "");
  s.rear = -0.0f;  // negative zero is not below zero
  EXPECT_EQ(start_failure(s), "");
  s.front = std::numeric_limits<float>::infinity();
  EXPECT_EQ(start_failure(s), "ray distances must be finite and not negative");
  // Order: the size check comes before the others.
  s.width = 0;
  s.aa = 3;
  EXPECT_EQ(start_failure(s), "output size must be 1 to 16384 texels per side");
}

}  // namespace
}  // namespace kv
