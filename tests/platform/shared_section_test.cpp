#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <string>

#include "platform/platform.h"

namespace {

using kv::platform::SharedSection;

std::string unique_name(const char* what) {
  return std::string("kv-test-") + what + "-" + std::to_string(kv::platform::process_id());
}

// A writer's bytes reach a second, read-only mapping of the same section;
// the real size is reported whether or not the mapping succeeds.
TEST(SharedSection, TwoMappingsShareBytesAndSizeIsChecked) {
  const std::string name = unique_name("share");
  int error = 0;
  ASSERT_TRUE(kv::platform::create_shared_section(name, 10000, &error)) << error;
  std::uint64_t bytes = 0;
  auto writer = SharedSection::open(name, 10000, true, &error, &bytes);
  ASSERT_TRUE(writer.has_value()) << error;
  EXPECT_EQ(bytes, 10000u);
  writer->data()[9999] = 0xA5;
  writer->data()[0] = 0x5A;

  auto reader = SharedSection::open(name, 10000, false, &error, &bytes);
  ASSERT_TRUE(reader.has_value());
  EXPECT_EQ(reader->data()[0], 0x5A);
  EXPECT_EQ(reader->data()[9999], 0xA5);
  EXPECT_EQ(reader->data()[5000], 0);

  bytes = 0;
  EXPECT_FALSE(SharedSection::open(name, 10001, false, &error, &bytes).has_value());
  EXPECT_EQ(error, ERANGE);
  EXPECT_EQ(bytes, 10000u);

  EXPECT_FALSE(kv::platform::create_shared_section(name, 1, &error));
  EXPECT_EQ(error, EEXIST);
  kv::platform::remove_shared_section(name);
  EXPECT_FALSE(SharedSection::open(name, 1, false, &error, &bytes).has_value());
  EXPECT_EQ(error, ENOENT);
  // The mapping outlives the name.
  EXPECT_EQ(reader->data()[9999], 0xA5);
}

}  // namespace
