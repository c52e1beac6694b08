// The line reader: limits, "\r", blank lines and the end of input, over
// reads of every size.
#include <gtest/gtest.h>

#include <algorithm>

#include "service/line_reader.h"

namespace kv::service {
namespace {

// Lines of `input`, read `step` bytes at a time with a line limit.
std::vector<std::string> lines_of(const std::string& input, std::size_t step, std::size_t limit) {
  std::size_t at = 0;
  LineReader reader(
      [&](char* data, std::size_t size) -> std::int64_t {
        const std::size_t n = std::min({size, step, input.size() - at});
        std::copy_n(input.data() + at, n, data);
        at += n;
        return static_cast<std::int64_t>(n);
      },
      limit);
  std::vector<std::string> out;
  std::string line;
  for (;;) {
    const LineStatus status = reader.next(line);
    if (status == LineStatus::end) {
      return out;
    }
    out.push_back(status == LineStatus::too_long ? "<too long>" : line);
  }
}

TEST(LineReader, SplitsTrimsAndLimitsOnAnyReadSize) {
  const std::string input = "ab\r\ncdefgh\n\n \t\r\nabcde\nlast\r";
  for (const std::size_t step : {1u, 2u, 3u, 7u, 100u}) {
    const std::vector<std::string> lines = lines_of(input, step, 5);
    const std::vector<std::string> expected = {"ab", "<too long>", "", " \t", "abcde", "last"};
    EXPECT_EQ(lines, expected) << "step " << step;
  }
  // One "\r" goes, the one before it stays; the limit counts the "\r".
  EXPECT_EQ(lines_of("ab\r\r\nabcd\r\nabcde\r\n", 4, 5),
            (std::vector<std::string>{"ab\r", "abcd", "<too long>"}));
  EXPECT_EQ(lines_of("", 4, 5), std::vector<std::string>{});
  EXPECT_EQ(lines_of("\n", 4, 5), std::vector<std::string>{""});
  EXPECT_EQ(lines_of("abcdef", 4, 5), std::vector<std::string>{"<too long>"});
}

TEST(LineReader, BlankMeansOnlySpacesAndTabs) {
  EXPECT_TRUE(is_blank(""));
  EXPECT_TRUE(is_blank(" \t \t"));
  EXPECT_FALSE(is_blank(" \v"));
  EXPECT_FALSE(is_blank("\r"));
}

}  // namespace
}  // namespace kv::service
