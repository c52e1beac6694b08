#include "cli/console_sink.h"

#include <string>

#include "core/error.h"
#include "platform/platform.h"

namespace kv::cli {

void ConsoleSink::event(const Json& event) {
  if (!progress_) {
    return;
  }
  const std::string line = json_line(event.is_null() ? Json::object() : event) + "\n";
  std::lock_guard guard(lock_);
  if (!platform::write_stdout(line)) {
    throw Error("cannot write to standard output");
  }
}

void ConsoleSink::warning(std::string_view text) {
  platform::write_stderr(text);
}

}  // namespace kv::cli
