// Strict number parsing for option values: the whole text must be consumed.
// Each function returns nothing on any failure; callers word the message.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace kv {

// Optional "+", then optional "-", then decimal digits; signed 32-bit range.
std::optional<std::int32_t> parse_int32(std::string_view text);

// Unsigned decimal digits only (no sign), within 64 bits.
std::optional<std::uint64_t> parse_uint64(std::string_view text);

// Optional "+", then a decimal number in plain or exponent notation (also
// inf and nan), correctly rounded to float. Magnitudes beyond float's range
// fail; values below its smallest step round to zero.
std::optional<float> parse_float32(std::string_view text);

// The same rules, rounded to double.
std::optional<double> parse_float64(std::string_view text);

}  // namespace kv
