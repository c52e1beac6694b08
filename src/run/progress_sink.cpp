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

Json region_event(std::int32_t x, std::int32_t y, std::int32_t w, std::int32_t h,
                  std::uint64_t done, std::uint64_t total) {
  Json event = make_event("region");
  event["x"] = x;
  event["y"] = y;
  event["w"] = w;
  event["h"] = h;
  event["done"] = done;
  event["total"] = total;
  return event;
}

}  // namespace kv::run
