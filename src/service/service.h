// The service's state and its handling of one request line: the request
// frame, the dispatch by op, the immediate replies and the queued jobs.
#pragma once

#include <atomic>
#include <cstdint>
#include <exception>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "core/json_line.h"
#include "normal/normal_bake_settings.h"
#include "service/field_reader.h"
#include "service/job_runner.h"
#include "service/line_writer.h"
#include "service/memory_estimate.h"
#include "service/mesh_store.h"
#include "service/protocol_error.h"
#include "service/request.h"
#include "service/scene_cache.h"
#include "service/serve_options.h"

namespace kv::service {

class Service {
 public:
  // `threads`: JobThreads::none holds queued work without running it, for
  // checking how requests are answered.
  Service(const ServeOptions& options, const ResolvedCounts& counts, Output& output,
          JobThreads threads = JobThreads::start);

  // Handles one request line: every failure becomes one error reply.
  void handle_line(std::string_view line);

  bool shutdown_requested() const { return shutdown_.load(); }
  JobRunner& runner() { return runner_; }
  MeshStore& meshes() { return meshes_; }
  SceneCache& scenes() { return scenes_; }
  // The memory budget in bytes; 0 when none is known.
  std::uint64_t budget_bytes() const { return budget_bytes_; }

 private:
  void dispatch(const Request& request);
  Json hello_fields();
  Json cache_status() const;
  Json memory_trim(const FieldReader& fields);
  Json memory_estimate(const FieldReader& fields);
  // "high" (loaded keys) or "high_triangles" of memory.estimate.
  std::uint64_t estimate_high_triangles(const FieldReader& fields) const;
  Json release(const FieldReader& fields);
  // Releases mesh keys and drops the scenes built from them.
  std::vector<std::string> release_keys(const std::vector<std::string>& keys);
  Json cancel(const FieldReader& fields);
  void queue(const Request& request, JobLane lane, std::function<std::string(Job&)> run);
  // "<op>: job <id> is already queued or running".
  static ProtocolError already_active(const Request& request);
  void refuse_running_id(const Request& request) const;
  // Answers {"queued":true} and queues a bake-lane job that releases the
  // keys of release_after when it ends, however it ends.
  void queue_job(const Request& request, std::vector<std::string> release_after,
                 std::function<std::string(Job&)> run);

  // Mesh loads (mesh_ops.cpp).
  void load_file(const Request& request, const FieldReader& fields);
  void load_section(const Request& request, const FieldReader& fields);
  void list_objects(const Request& request, const FieldReader& fields);
  // Starts a load under the key: refuses an id still at work, answers at
  // once (nullopt) when the key holds the mesh of that hash (or token), else
  // returns the generation the load fills.
  std::optional<std::uint64_t> begin_load(const Request& request, const std::string& key,
                                          const std::string& token, const std::string& hash);
  std::string finish_load(Job& job, const std::string& key, std::uint64_t generation, Mesh&& mesh,
                          const MeshStats& stats, const std::string& token,
                          const std::string& hash);

  // Bakes (bake_job.cpp).
  void bake(const Request& request, const FieldReader& fields);
  void prepare_scene(const Request& request, const FieldReader& fields);
  void check_budget(Job& job, const NormalBakeSettings& settings, bool opacity_section,
                    const Mesh& low, const std::vector<const Mesh*>& highs) const;

  // Texture transfers (transfer_job.cpp).
  void transfer(const Request& request, const FieldReader& fields);
  void meshmaps(const Request& request, const FieldReader& fields);

  // The refusal of work that needs more than the budget (memory_request.cpp).
  // Throws the "out_of_memory" error of a job whose shape does not fit.
  void refuse_over_budget(Job& job, const JobShape& shape) const;
  std::string out_of_memory_message(const std::string& op, std::uint64_t need_bytes) const;
  Json out_of_memory_fields(std::uint64_t need_bytes) const;

  std::string job_failure(const Job& job, std::exception_ptr error) const;

  ServeOptions options_;
  ResolvedCounts counts_;
  Output& output_;
  std::uint64_t budget_bytes_ = 0;  // 0: no budget known
  MeshStore meshes_;
  SceneCache scenes_;
  std::once_flag gpu_probed_;
  Json gpu_ = nullptr;
  std::atomic<bool> shutdown_{false};
  JobRunner runner_;  // last: its threads stop before the rest goes
};

}  // namespace kv::service
