#include "run/option_values.h"

#include "core/error.h"
#include "core/parse_number.h"
#include "core/utf8.h"

namespace kv::pipeline {

void throw_invalid_value(std::string_view option, std::string_view value) {
  throw UsageError("invalid value for " + std::string(option) + ": '" + std::string(value) + "'");
}

std::int32_t read_int_value(std::string_view option, std::string_view value) {
  const auto parsed = parse_int32(value);
  if (!parsed) {
    throw_invalid_value(option, value);
  }
  return *parsed;
}

float read_float_value(std::string_view option, std::string_view value) {
  const auto parsed = parse_float32(value);
  if (!parsed) {
    throw_invalid_value(option, value);
  }
  return *parsed;
}

bool read_bool_value(std::string_view option, std::string_view value) {
  if (value == "1" || value == "true" || value == "on") {
    return true;
  }
  if (value == "0" || value == "false" || value == "off") {
    return false;
  }
  throw UsageError(std::string(option) + " takes 0 or 1, not '" + std::string(value) + "'");
}

std::string checked_path_text(std::string_view value) {
  if (value.find('\0') != std::string_view::npos) {
    throw UsageError("a path holds a NUL character");
  }
  if (!is_valid_utf8(value)) {
    throw UsageError("a path is not valid UTF-8");
  }
  return std::string(value);
}

std::filesystem::path read_path_value(std::string_view value) {
  const std::string text = checked_path_text(value);
  return std::filesystem::path(std::u8string(text.begin(), text.end()));
}

}  // namespace kv::pipeline
