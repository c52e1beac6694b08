// The value readers every command's option parser shares, so that a value
// is judged, and its refusal worded, the same way everywhere.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

namespace kv::pipeline {

// Throws the usage error "invalid value for <option>: '<value>'".
[[noreturn]] void throw_invalid_value(std::string_view option, std::string_view value);

// A whole number in the signed 32-bit range, else the invalid-value error.
std::int32_t read_int_value(std::string_view option, std::string_view value);

// A float32 number, else the invalid-value error.
float read_float_value(std::string_view option, std::string_view value);

// 1/true/on or 0/false/off, else "<option> takes 0 or 1, not '<value>'".
bool read_bool_value(std::string_view option, std::string_view value);

// The value as path text: refused when it holds a NUL character or is not
// valid UTF-8.
std::string checked_path_text(std::string_view value);

// The value as a path, after checked_path_text.
std::filesystem::path read_path_value(std::string_view value);

}  // namespace kv::pipeline
