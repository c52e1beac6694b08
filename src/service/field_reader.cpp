#include "service/field_reader.h"

#include <algorithm>
#include <cmath>

#include "service/protocol_error.h"

namespace kv::service {

std::string json_type_name(const Json& value) {
  return value.type_name();
}

void FieldReader::expect(std::initializer_list<std::string_view> required,
                         std::initializer_list<std::string_view> optional) const {
  for (const std::string_view field : required) {
    if (!has(field)) {
      fail_request("missing field \"" + std::string(field) + "\"");
    }
  }
  // No structured binding: the lambda below captures the key, which clang
  // 14 (the fuzz build's compiler) does not allow for a binding.
  for (const auto& item : object_.items()) {
    const std::string& key = item.key();
    if (key == "id" || key == "op") {
      continue;
    }
    const auto named = [&](std::initializer_list<std::string_view> list) {
      return std::find(list.begin(), list.end(), key) != list.end();
    };
    if (!named(required) && !named(optional)) {
      fail_request("unknown field \"" + key + "\"");
    }
  }
}

bool FieldReader::has(std::string_view field) const {
  return object_.find(field) != object_.end();
}

const Json& FieldReader::at(std::string_view field) const {
  const auto it = object_.find(field);
  if (it == object_.end()) {
    fail_request("missing field \"" + std::string(field) + "\"");
  }
  return *it;
}

void FieldReader::fail(std::string_view field, std::string_view text) const {
  throw ProtocolError(id_, context_ + ": " + std::string(field) + ": " + std::string(text));
}

void FieldReader::fail_request(std::string_view text) const {
  throw ProtocolError(id_, context_ + ": " + std::string(text));
}

const Json& FieldReader::object(const Json& value, std::string_view field) const {
  if (!value.is_object()) {
    fail(field, "expected an object, got " + json_type_name(value));
  }
  return value;
}

std::string FieldReader::string(const Json& value, std::string_view field, bool non_empty,
                                std::size_t max_bytes) const {
  if (!value.is_string()) {
    fail(field, "expected a string, got " + json_type_name(value));
  }
  const std::string& text = value.get_ref<const std::string&>();
  if (non_empty && text.empty()) {
    fail(field, "must not be empty");
  }
  if (text.find('\0') != std::string::npos) {
    fail(field, "must not hold a NUL character");
  }
  if (text.size() > max_bytes) {
    fail(field, "longer than " + std::to_string(max_bytes) + " bytes");
  }
  return text;
}

std::vector<std::string> FieldReader::strings(const Json& value, std::string_view field) const {
  if (!value.is_array()) {
    fail(field, "expected a list of strings, got " + json_type_name(value));
  }
  std::vector<std::string> out;
  out.reserve(value.size());
  for (std::size_t i = 0; i < value.size(); ++i) {
    out.push_back(string(value[i], std::string(field) + "[" + std::to_string(i) + "]", false,
                         std::string::npos));
  }
  return out;
}

double FieldReader::number(const Json& value, std::string_view field) const {
  if (!value.is_number()) {
    fail(field, "expected a number, got " + json_type_name(value));
  }
  const double x = value.get<double>();
  if (!std::isfinite(x)) {
    fail(field, "must be finite");
  }
  return x;
}

std::vector<double> FieldReader::numbers(const Json& value, std::string_view field,
                                         std::size_t count, std::string_view finite_text) const {
  const std::string expected = "expected a list of " + std::to_string(count) + " numbers";
  if (!value.is_array() || value.size() != count) {
    fail(field, expected);
  }
  std::vector<double> out;
  out.reserve(count);
  for (const Json& element : value) {
    if (!element.is_number()) {
      fail(field, expected);
    }
    const double x = element.get<double>();
    if (!std::isfinite(x)) {
      fail(field, finite_text);
    }
    out.push_back(x);
  }
  return out;
}

std::int64_t FieldReader::integer(const Json& value, std::string_view field, std::int64_t min,
                                  std::int64_t max) const {
  if (!value.is_number_integer()) {
    fail(field, "expected an integer, got " + json_type_name(value));
  }
  if (value.is_number_unsigned()) {
    const std::uint64_t u = value.get<std::uint64_t>();
    if (u > static_cast<std::uint64_t>(max) || (max < 0)) {
      fail(field, "integer out of range");
    }
    const auto v = static_cast<std::int64_t>(u);
    if (v < min) {
      fail(field, "integer out of range");
    }
    return v;
  }
  const std::int64_t v = value.get<std::int64_t>();
  if (v < min || v > max) {
    fail(field, "integer out of range");
  }
  return v;
}

std::uint64_t FieldReader::non_negative(const Json& value, std::string_view field) const {
  const std::string start = "expected a non-negative integer, got ";
  if (value.is_number_float()) {
    fail(field, start + "a non-integer number");
  }
  if (value.is_number_integer() && !value.is_number_unsigned()) {
    if (value.get<std::int64_t>() < 0) {
      fail(field, start + "a negative integer");
    }
    return static_cast<std::uint64_t>(value.get<std::int64_t>());
  }
  if (!value.is_number_unsigned()) {
    fail(field, start + json_type_name(value));
  }
  return value.get<std::uint64_t>();
}

bool FieldReader::boolean(const Json& value, std::string_view field) const {
  if (!value.is_boolean()) {
    fail(field, "expected true or false, got " + json_type_name(value));
  }
  return value.get<bool>();
}

const Json& FieldReader::objects(const Json& value, std::string_view field) const {
  if (!value.is_array()) {
    fail(field, "expected a list of objects, got " + json_type_name(value));
  }
  if (value.empty()) {
    fail(field, "must not be empty");
  }
  for (std::size_t i = 0; i < value.size(); ++i) {
    object(value[i], std::string(field) + "[" + std::to_string(i) + "]");
  }
  return value;
}

}  // namespace kv::service
