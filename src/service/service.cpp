#include "service/service.h"

#include <algorithm>
#include <new>

#include "core/error.h"
#include "gpu/gpu_probe.h"
#include "platform/platform.h"
#include "service/hello.h"
#include "service/job_meshes.h"
#include "service/job_sink.h"
#include "service/memory_estimate.h"
#include "service/protocol_error.h"

namespace kv::service {
namespace {

constexpr std::uint64_t kMiB = 1048576;

// Ops the protocol names whose work this build does not carry yet.
bool is_unavailable(std::string_view op) {
  static constexpr std::array<std::string_view, 5> ops = {"mesh.preview", "rays.hit", "cage.check",
                                                          "mesh.lod", "cage.fields"};
  return std::find(ops.begin(), ops.end(), op) != ops.end();
}

// The budget when the option gives none. The automatic one may be unknown;
// then no job is refused in advance and the bake's own checks still hold.
std::uint64_t budget_of(const ServeOptions& options) {
  if (options.memory_budget_mb != 0) {
    return std::uint64_t{options.memory_budget_mb} * kMiB;
  }
  try {
    return automatic_budget_bytes();
  } catch (const Error&) {
    return 0;
  }
}

}  // namespace

Service::Service(const ServeOptions& options, const ResolvedCounts& counts, Output& output,
                 JobThreads threads)
    : options_(options),
      counts_(counts),
      output_(output),
      budget_bytes_(budget_of(options)),
      runner_(
          counts.load_threads,
          [this](const Job& job, std::exception_ptr error) { return job_failure(job, error); },
          [this](const std::string& line) { output_.write_line(line); }, threads) {}

void Service::handle_line(std::string_view line) {
  std::optional<std::int64_t> id;
  try {
    const Request request = parse_request(line);
    id = request.id;
    dispatch(request);
  } catch (const ProtocolError& error) {
    output_.write_line(error_reply(error.id(), error.what(), error.extra()));
  } catch (const std::exception& error) {
    output_.write_line(error_reply(id, "internal error: " + std::string(error.what())));
  }
}

void Service::dispatch(const Request& request) {
  const FieldReader fields(request.body, request.op, request.id);
  const std::string& op = request.op;
  if (op == "hello") {
    output_.write_line(success_reply(request.id, hello_fields()));
  } else if (op == "shutdown") {
    output_.write_line(success_reply(request.id, Json{{"bye", true}}));
    shutdown_ = true;
  } else if (op == "cache.status") {
    output_.write_line(success_reply(request.id, cache_status()));
  } else if (op == "cancel") {
    // The job that the flag ends answers after this reply, never before:
    // the flag is set while the output lock is held (output, then runner's).
    output_.write_line_built([&] { return success_reply(request.id, cancel(fields)); });
  } else if (op == "mesh.release") {
    output_.write_line(success_reply(request.id, release(fields)));
  } else if (op == "memory.trim") {
    output_.write_line(success_reply(request.id, memory_trim(fields)));
  } else if (op == "memory.estimate") {
    output_.write_line(success_reply(request.id, memory_estimate(fields)));
  } else if (op == "mesh.load_file") {
    load_file(request, fields);
  } else if (op == "mesh.load_shm" || op == "mesh.load_process") {
    load_section(request, fields);
  } else if (op == "mesh.objects") {
    list_objects(request, fields);
  } else if (op == "bake") {
    bake(request, fields);
  } else if (op == "scene.prepare") {
    prepare_scene(request, fields);
  } else if (op == "transfer") {
    transfer(request, fields);
  } else if (op == "meshmaps") {
    meshmaps(request, fields);
  } else if (is_unavailable(op)) {
    fields.fail_request("not available in this korvane build");
  } else {
    throw Error("no handler for " + op);
  }
}

Json Service::hello_fields() {
  // The GPU probe can take a while; it runs once, on the first hello.
  std::call_once(gpu_probed_, [this] {
    gpu::ProbeOptions probe_options;
    std::string why;
    const gpu::GpuProbe probe = gpu::probe_gpu(probe_options, &why);
    gpu_ = Json::object();
    gpu_["available"] = probe.available;
    gpu_["name"] = probe.device;
    gpu_["resident"] = false;  // no resident GPU path in this build
  });
  Json f = Json::object();
  f["version"] = kServiceVersion;
  f["protocol"] = kProtocol;
  f["gpu"] = gpu_;
  f["threads"] = counts_.threads;
  f["pid"] = platform::process_id();
  f["transfer"] = true;
  f["meshmaps"] = true;
  f["lod"] = true;
  f["load_objects"] = true;
  f["fixes"] = Json::array();
  for (const std::string_view word : kFixes) {
    f["fixes"].push_back(word);
  }
  f["cage_fields"] = true;
  f["meshmaps_outputs"] = Json::array();
  for (const std::string_view word : kMeshmapsOutputs) {
    f["meshmaps_outputs"].push_back(word);
  }
  f["transfer_modes"] = Json::array({"uv2uv", "m2m"});
  return f;
}

Json Service::cache_status() const {
  Json f = Json::object();
  f["meshes"] = meshes_.status();
  f["low_preps"] = scenes_.prep_count();
  f["scenes"] = scenes_.tracer_count();
  f["cache_dir"] = counts_.cache_dir.string();
  f["cache_max_mb"] = counts_.cache_max_bytes / kMiB;
  f["memory_budget_mb"] = budget_bytes_ / kMiB;
  return f;
}

Json Service::cancel(const FieldReader& fields) {
  const std::int64_t job =
      fields.integer(fields.at("job"), "job", std::numeric_limits<std::int64_t>::min(),
                     std::numeric_limits<std::int64_t>::max());
  if (!runner_.cancel(job)) {
    fields.fail_request("job " + std::to_string(job) + " is not queued or running");
  }
  return Json{{"cancelling", true}};
}

Json Service::release(const FieldReader& fields) {
  const std::vector<std::string> keys = fields.strings(fields.at("keys"), "keys");
  Json f = Json::object();
  f["released"] = release_keys(keys);
  return f;
}

std::vector<std::string> Service::release_keys(const std::vector<std::string>& keys) {
  for (const std::string& key : keys) {
    scenes_.drop_key(key);
  }
  return meshes_.release(keys);
}

Json Service::memory_trim(const FieldReader& fields) {
  bool scenes = true, preparations = true;
  if (fields.has("caches")) {
    scenes = preparations = false;
    for (const std::string& cache : fields.strings(fields.at("caches"), "caches")) {
      if (cache != "scenes" && cache != "preparations") {
        fields.fail("caches", "unknown cache \"" + cache + "\"");
      }
      scenes = scenes || cache == "scenes";
      preparations = preparations || cache == "preparations";
    }
  }
  Json f = Json::object();
  f["scenes"] = scenes ? scenes_.trim_tracers() : 0;
  f["preparations"] = preparations ? scenes_.trim_preps() : 0;
  return f;
}

ProtocolError Service::already_active(const Request& request) {
  return ProtocolError(request.id, request.op + ": job " + std::to_string(request.id) +
                                       " is already queued or running");
}

void Service::refuse_running_id(const Request& request) const {
  if (runner_.is_active(request.id)) {
    throw already_active(request);
  }
}

void Service::queue(const Request& request, JobLane lane, std::function<std::string(Job&)> run) {
  auto job = std::make_shared<Job>();
  job->id = request.id;
  job->op = request.op;
  job->run = std::move(run);
  // Refused on the runner's own answer: the other job may end before a
  // second look, and the request would then go without a reply.
  if (!runner_.submit(job, lane)) {
    throw already_active(request);
  }
}

void Service::queue_job(const Request& request, std::vector<std::string> release_after,
                        std::function<std::string(Job&)> run) {
  refuse_running_id(request);
  // The early reply goes out before the job can write anything of its own.
  output_.write_line(success_reply(request.id, Json{{"queued", true}}));
  queue(request, JobLane::bake,
        [this, release_after = std::move(release_after), run = std::move(run)](Job& job) {
          const ReleaseAfter release(
              [this](const std::vector<std::string>& keys) { release_keys(keys); }, release_after);
          return run(job);
        });
}

std::string Service::job_failure(const Job& job, std::exception_ptr error) const {
  try {
    std::rethrow_exception(error);
  } catch (const KeyReleased& released) {
    return error_reply(job.id, released.what(), Json{{"code", "released"}});
  } catch (const Cancelled&) {
    return error_reply(job.id, job.op + ": cancelled", Json{{"code", "cancelled"}});
  } catch (const ProtocolError& protocol) {
    return error_reply(job.id, protocol.what(), protocol.extra());
  } catch (const OutOfMemory& failure) {
    // Failed, not refused, for lack of memory: the same code and numbers.
    return error_reply(job.id, failure.what(), out_of_memory_fields(job.need_bytes));
  } catch (const std::bad_alloc&) {
    return error_reply(job.id, job.op + ": out of memory", out_of_memory_fields(job.need_bytes));
  } catch (const std::exception& failure) {
    return error_reply(job.id, failure.what());
  } catch (...) {
    return error_reply(job.id, "internal error: an unknown failure");
  }
}

}  // namespace kv::service
