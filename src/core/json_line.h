// JSON output as the program writes it everywhere: compact, members in
// insertion order, UTF-8 unescaped, invalid UTF-8 replaced by U+FFFD.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

namespace kv {

using Json = nlohmann::ordered_json;

inline std::string json_line(const Json& value) {
  return value.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

}  // namespace kv
