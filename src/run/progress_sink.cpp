#include "run/progress_sink.h"

namespace kv::run {

Json make_event(std::string_view name) {
  Json event = Json::object();
  event["event"] = name;
  return event;
}

Json phase_event(std::string_view phase) {
  Json event = make_event("phase");
  event["phase"] = phase;
  return event;
}

}  // namespace kv::run
