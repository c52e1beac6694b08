// The request envelope: one line read into an id, an op and the op's fields,
// the fields checked against the op's list.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "core/json_line.h"

namespace kv::service {

struct Request {
  std::int64_t id = 0;
  std::string op;
  Json body;  // the whole request object, "id" and "op" included
};

// Parses and checks the envelope and the op's field list (missing fields,
// then unknown ones). Throws ProtocolError with the id once it is known.
Request parse_request(std::string_view line);

}  // namespace kv::service
