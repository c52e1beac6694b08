// The service's request errors: the client's own fault, answered with one
// error reply that names the request's id, and the service goes on.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "core/error.h"
#include "core/json_line.h"

namespace kv::service {

class ProtocolError : public Error {
 public:
  // `id`: the request's id once it was read; `extra`: fields added to the
  // error reply after "error" (such as "code"), an object or null.
  ProtocolError(std::optional<std::int64_t> id, const std::string& message, Json extra = nullptr)
      : Error(message), id_(id), extra_(std::move(extra)) {}

  const std::optional<std::int64_t>& id() const { return id_; }
  const Json& extra() const { return extra_; }

 private:
  std::optional<std::int64_t> id_;
  Json extra_;
};

}  // namespace kv::service
