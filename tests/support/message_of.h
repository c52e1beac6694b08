// The message a call throws, for tests of error messages.
#pragma once

#include <exception>
#include <string>

#include "core/error.h"

namespace kv::test {

// The message of the `E` that `fn` throws; any other outcome is named.
template <typename E = Error, typename F>
std::string message_of(F&& fn) {
  try {
    fn();
  } catch (const E& e) {
    return e.what();
  } catch (const std::exception& e) {
    return std::string("wrong type: ") + e.what();
  }
  return "(no error)";
}

}  // namespace kv::test
