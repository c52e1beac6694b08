// The command line's progress sink: events as JSON lines on stdout, only
// when progress is on, and warnings on stderr.
#pragma once

#include <mutex>
#include <string_view>

#include "run/progress_sink.h"

namespace kv::cli {

class ConsoleSink final : public run::ProgressSink {
 public:
  explicit ConsoleSink(bool progress) : progress_(progress) {}

  bool wants_events() const override { return progress_; }

  // One line each, written whole and flushed at once; an empty object is
  // written as "{}". Throws "cannot write to standard output" on failure.
  void event(const Json& event) override;

  // Written as given; a failed write is not worth failing the bake.
  void warning(std::string_view text) override;

 private:
  bool progress_;
  std::mutex lock_;
};

}  // namespace kv::cli
