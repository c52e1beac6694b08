#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>
#include <string>
#include <utility>

#include "core/error.h"
#include "image/unorm16.h"
#include "normal/normal_bake_settings.h"
#include "support/bake_test_meshes.h"

namespace kv {
namespace {

std::string start_failure(const std::function<void(NormalBakeSettings&)>& change) {
  NormalBakeSettings s;
  change(s);
  return test::message_of([&] { check_bake_start(s); });
}

TEST(BakeStart, EachCheckAtItsBoundariesInOrder) {
  const std::string ok = "(no error)";
  const std::string size = "output size must be 1 to 16384 texels per side";
  const std::string aa = "antialiasing must be 1, 2, 4 or 8 sub-samples per side";
  const std::string snap = "UV snap bits must be -1 (off) or 0 to 16";
  const std::string udim = "UDIM tile must be 1001 to 1999";
  const std::string distances = "ray distances must be finite and not negative";
  const float inf = std::numeric_limits<float>::infinity();
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const std::pair<std::function<void(NormalBakeSettings&)>, std::string> cases[] = {
      {[](auto&) {}, ok},
      {[](auto& s) { s.width = 16384, s.height = 1; }, ok},
      {[](auto& s) { s.width = 0; }, size},
      {[](auto& s) { s.height = 16385; }, size},
      {[](auto& s) { s.uv_snap_bits = -1; }, ok},
      {[](auto& s) { s.uv_snap_bits = 16; }, ok},
      {[](auto& s) { s.uv_snap_bits = -2; }, snap},
      {[](auto& s) { s.uv_snap_bits = 17; }, snap},
      {[](auto& s) { s.udim = 1999; }, ok},
      {[](auto& s) { s.udim = 1000; }, udim},
      {[](auto& s) { s.udim = 2000; }, udim},
      {[](auto& s) { s.band_samples = 1; }, ok},
      {[](auto& s) { s.band_samples = 0; }, "band_samples must be at least 1"},
      {[](auto& s) { s.front = 0.0f, s.rear = -0.0f; }, ok},  // -0 is not below 0
      {[&](auto& s) { s.front = inf; }, distances},
      {[&](auto& s) { s.front = nan; }, distances},
      {[](auto& s) { s.rear = -0.5f; }, distances},
      {[](auto& s) { s.width = 0, s.aa = 3; }, size},  // the earlier check speaks
  };
  for (const auto& [change, message] : cases) {
    EXPECT_EQ(start_failure(change), message);
  }
  for (const int n : {1, 2, 4, 8, 0, 3, 16, -1}) {
    EXPECT_EQ(start_failure([n](auto& s) { s.aa = n; }),
              n == 1 || n == 2 || n == 4 || n == 8 ? ok : aa)
        << n;
  }
}

TEST(Encode, ClampsRoundsHalfUpAndRoundTrips) {
  const double inf = std::numeric_limits<double>::infinity();
  const double nan = std::numeric_limits<double>::quiet_NaN();
  // The smallest positive value rounds down to 0; just below 1,
  // 65534.99... + 0.5 floors to 65535 and never wraps.
  const double values[] = {0.5,  1.0,  1.5, inf,  0.0,       -0.0,
                           -0.2, -inf, nan, -nan, 0x1p-1074, std::nextafter(1.0, 0.0)};
  const int codes[] = {32768, 65535, 65535, 65535, 0, 0, 0, 0, 0, 0, 0, 65535};
  for (std::size_t i = 0; i < std::size(values); ++i) {
    EXPECT_EQ(encode_unorm16(values[i]), codes[i]) << values[i];
  }
  // Values whose product with 65535 is exactly k + 0.5 go up to k + 1; the
  // next double below goes down to k. Half-to-even would send 0.5 to 0 and
  // 2.5 to 2.
  int checked = 0;
  for (const int k : {0, 1, 2, 1000, 32767, 65533}) {
    const double x = (k + 0.5) / 65535.0;
    if (x * 65535.0 != k + 0.5) {
      continue;  // not exactly representable; the boundary lies elsewhere
    }
    ++checked;
    EXPECT_EQ(encode_unorm16(x), k + 1) << k;
    EXPECT_EQ(encode_unorm16(std::nextafter(x, 0.0)), k) << k;
  }
  EXPECT_GE(checked, 3);
  for (int c = 0; c <= 65535; ++c) {
    ASSERT_EQ(encode_unorm16(decode_unorm16(static_cast<std::uint16_t>(c))), c);
  }
}

}  // namespace
}  // namespace kv
