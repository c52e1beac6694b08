// A job's progress sink: the run's events become the job's event lines under
// the output lock. It is also where a job notices, between bands, that it
// was cancelled or that a mesh key it uses was released.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "core/error.h"
#include "run/progress_sink.h"
#include "service/job_runner.h"
#include "service/line_writer.h"
#include "service/mesh_store.h"

namespace kv::service {

// A key the job uses was released while it ran. A kind of cancellation, so
// that the band loop stops on it as it stops on a cancel.
class KeyReleased : public Cancelled {
 public:
  using Cancelled::Cancelled;
};

class JobSink final : public run::ProgressSink {
 public:
  // `keys`: the keys the job reads, each with the generation it found.
  JobSink(Job& job, Output& output, const MeshStore& store,
          std::vector<std::pair<std::string, std::uint64_t>> keys)
      : job_(job), output_(output), store_(store), keys_(std::move(keys)) {}

  bool wants_events() const override { return true; }
  // Throws Cancelled or KeyReleased instead of writing once the job must end.
  void event(const Json& event) override;
  // Warnings become "notice" events; the run goes on.
  void warning(std::string_view text) override;

  // Throws when the job must end: cancelled, or a key released.
  void check() const;

 private:
  Job& job_;
  Output& output_;
  const MeshStore& store_;
  std::vector<std::pair<std::string, std::uint64_t>> keys_;
};

}  // namespace kv::service
