#include "run/run_events.h"

#include <string>

#include "core/error.h"
#include "platform/platform.h"

namespace kv::cli {

Json make_event(std::string_view name) {
  Json event = Json::object();
  event["event"] = name;
  return event;
}

void EventWriter::write(const Json& event) {
  if (!enabled_) {
    return;
  }
  const std::string line = json_line(event.is_null() ? Json::object() : event) + "\n";
  std::lock_guard guard(lock_);
  if (!platform::write_stdout(line)) {
    throw Error("cannot write to standard output");
  }
}

void EventWriter::phase(std::string_view name) {
  Json event = make_event("phase");
  event["phase"] = name;
  write(event);
}

}  // namespace kv::cli
