// Progress events of a one-shot bake: one JSON line each on stdout, written
// whole and flushed at once, from any thread; nothing when progress is off.
#pragma once

#include <cstdint>
#include <mutex>
#include <string_view>

#include "core/json_line.h"

namespace kv::cli {

class EventWriter {
 public:
  explicit EventWriter(bool enabled) : enabled_(enabled) {}

  bool enabled() const { return enabled_; }

  // Writes the event object as one line. An empty object is written as "{}".
  void write(const Json& event);

  void phase(std::string_view name);

 private:
  bool enabled_;
  std::mutex lock_;
};

// An event object with its first key, "event", already set.
Json make_event(std::string_view name);

}  // namespace kv::cli
