#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "platform/platform.h"

namespace {

// Mapping pages ahead of use must leave every byte as it was, also in the
// partial pages at both ends of an unaligned range. (Whether the system can
// map them at all is its own affair; the result is only a hint.)
TEST(Prefault, LeavesContentsAsTheyWere) {
  std::vector<std::uint8_t> bytes(3 * 4096 + 123);
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    bytes[i] = static_cast<std::uint8_t>(i * 7 + 1);
  }
  kv::platform::prefault_for_write(bytes.data() + 5, bytes.size() - 9);
  EXPECT_TRUE(kv::platform::prefault_for_write(bytes.data(), 0));
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    ASSERT_EQ(bytes[i], static_cast<std::uint8_t>(i * 7 + 1)) << i;
  }
}

}  // namespace
