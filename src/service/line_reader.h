// Request lines from a byte stream, each at most 64 MiB: a longer line is
// skipped to its end and reported once, without being kept.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

namespace kv::service {

inline constexpr std::size_t kLineLimit = 67108864;

enum class LineStatus { line, too_long, end };

class LineReader {
 public:
  // `read` fills up to `size` bytes and returns the count, 0 at the end of
  // input, negative on failure (treated as the end).
  using ReadFn = std::function<std::int64_t(char* data, std::size_t size)>;
  explicit LineReader(ReadFn read, std::size_t limit = kLineLimit)
      : read_(std::move(read)), limit_(limit) {}

  // The next line without its "\n" and without one trailing "\r". A last
  // line without "\n" still counts; `end` once nothing more was read.
  LineStatus next(std::string& line);

 private:
  bool fill();

  ReadFn read_;
  std::size_t limit_;
  char buffer_[65536];
  std::size_t begin_ = 0, end_ = 0;
  bool finished_ = false;
};

// Whether the line holds nothing but spaces and tabs.
bool is_blank(const std::string& line);

}  // namespace kv::service
