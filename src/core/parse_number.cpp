#include "core/parse_number.h"

#include <charconv>
#include <cmath>
#include <cstdlib>
#include <string>
#include <system_error>

namespace kv {

std::optional<std::int32_t> parse_int32(std::string_view text) {
  if (!text.empty() && text.front() == '+') {
    text.remove_prefix(1);
  }
  bool negative = false;
  if (!text.empty() && text.front() == '-') {
    negative = true;
    text.remove_prefix(1);
  }
  if (text.empty()) {
    return std::nullopt;
  }
  std::int64_t value = 0;
  for (char c : text) {
    if (c < '0' || c > '9') {
      return std::nullopt;
    }
    value = value * 10 + (c - '0');
    if (value > 2147483648LL) {
      return std::nullopt;
    }
  }
  if (negative) {
    value = -value;
  }
  if (value > 2147483647LL) {
    return std::nullopt;
  }
  return static_cast<std::int32_t>(value);
}

std::optional<std::uint64_t> parse_uint64(std::string_view text) {
  if (text.empty()) {
    return std::nullopt;
  }
  std::uint64_t value = 0;
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (ec != std::errc() || end != text.data() + text.size() || text.front() == '-') {
    return std::nullopt;
  }
  return value;
}

namespace {

template <typename T>
std::optional<T> parse_float(std::string_view text) {
  if (!text.empty() && text.front() == '+') {
    text.remove_prefix(1);
  }
  // from_chars would also read a second sign; only one is allowed.
  if (text.empty() || text.front() == '+') {
    return std::nullopt;
  }
  T value{};
  const char* first = text.data();
  const char* last = first + text.size();
  const auto [end, ec] = std::from_chars(first, last, value, std::chars_format::general);
  if (end != last) {
    return std::nullopt;
  }
  if (ec == std::errc::result_out_of_range) {
    // Out of range is either overflow (refused) or underflow (rounds to a
    // signed zero); a wide parse tells them apart.
    const std::string copy(text);
    const long double wide = std::strtold(copy.c_str(), nullptr);
    if (std::fabs(wide) >= 1.0L) {
      return std::nullopt;
    }
    return std::signbit(wide) ? -T(0) : T(0);
  }
  if (ec != std::errc()) {
    return std::nullopt;
  }
  return value;
}

}  // namespace

std::optional<float> parse_float32(std::string_view text) {
  return parse_float<float>(text);
}

std::optional<double> parse_float64(std::string_view text) {
  return parse_float<double>(text);
}

}  // namespace kv
