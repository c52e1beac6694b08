// The strict readers of a request's fields. Every failure is a
// ProtocolError "<context>: <field>: <text>" carrying the request's id.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

#include "core/json_line.h"

namespace kv::service {

class FieldReader {
 public:
  // `object` must outlive the reader.
  FieldReader(const Json& object, std::string context, std::int64_t id)
      : object_(object), context_(std::move(context)), id_(id) {}

  const std::string& context() const { return context_; }
  std::int64_t id() const { return id_; }

  // Missing required fields (in list order), then fields neither list names.
  void expect(std::initializer_list<std::string_view> required,
              std::initializer_list<std::string_view> optional) const;
  bool has(std::string_view field) const;
  const Json& at(std::string_view field) const;

  [[noreturn]] void fail(std::string_view field, std::string_view text) const;
  [[noreturn]] void fail_request(std::string_view text) const;  // "<context>: <text>"

  // Readers of one value; `field` names it in messages (e.g. "objects[2]").
  const Json& object(const Json& value, std::string_view field) const;
  std::string string(const Json& value, std::string_view field, bool non_empty = true,
                     std::size_t max_bytes = 8192) const;
  std::vector<std::string> strings(const Json& value, std::string_view field) const;
  double number(const Json& value, std::string_view field) const;
  std::vector<double> numbers(const Json& value, std::string_view field, std::size_t count,
                              std::string_view finite_text = "must be finite") const;
  std::int64_t integer(const Json& value, std::string_view field, std::int64_t min,
                       std::int64_t max) const;
  std::uint64_t non_negative(const Json& value, std::string_view field) const;
  bool boolean(const Json& value, std::string_view field) const;
  const Json& objects(const Json& value, std::string_view field) const;

  // The same readers on a field of the request by name.
  std::string string(std::string_view field, bool non_empty = true,
                     std::size_t max_bytes = 8192) const {
    return string(at(field), field, non_empty, max_bytes);
  }
  bool boolean(std::string_view field) const { return boolean(at(field), field); }
  std::uint64_t non_negative(std::string_view field) const {
    return non_negative(at(field), field);
  }

 private:
  const Json& object_;
  std::string context_;
  std::int64_t id_;
};

// The JSON parser's own name of a value's type ("string", "number", ...).
std::string json_type_name(const Json& value);

}  // namespace kv::service
