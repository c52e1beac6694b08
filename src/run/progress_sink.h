// Where a bake run reports while it works: progress events, preview updates
// and warnings. The command line writes them to stdout and stderr; the
// service hands them to its clients.
#pragma once

#include <cstdint>
#include <string_view>

#include "core/json_line.h"

namespace kv::run {

// Called from any thread, possibly at once; a sink orders its own output.
// A call may throw to end the run; the run passes the error on.
class ProgressSink {
 public:
  virtual ~ProgressSink() = default;

  // Whether events reach anyone. The sink still receives every event; the
  // run only skips building the frequent ones when nobody wants them.
  virtual bool wants_events() const = 0;

  // One event: an object whose first key, "event", names it.
  virtual void event(const Json& event) = 0;

  // The preview file now shows the finished texel rectangle. Sinks with no
  // one to tell ignore it.
  virtual void preview_updated(std::int32_t /*x*/, std::int32_t /*y*/, std::int32_t /*w*/,
                               std::int32_t /*h*/) {}

  // A warning: one whole line, line break included.
  virtual void warning(std::string_view text) = 0;
};

// An event object with its first key, "event", already set.
Json make_event(std::string_view name);

// The event that opens a phase of the run.
Json phase_event(std::string_view phase);

// The event of a finished rectangle of texels: `done` texels of `total` are
// finished with it.
Json region_event(std::int32_t x, std::int32_t y, std::int32_t w, std::int32_t h,
                  std::uint64_t done, std::uint64_t total);

}  // namespace kv::run
