// Mesh loads and object listings: cancellable work on the load threads that
// replies once, when the mesh is in the store.
#include <limits>

#include "mesh/mesh_cache.h"
#include "mesh/mesh_format.h"
#include "service/job_sink.h"
#include "service/mesh_transform.h"
#include "service/protocol_error.h"
#include "service/request_rules.h"
#include "service/service.h"

namespace kv::service {
namespace {

std::filesystem::path read_path(const FieldReader& fields, std::string_view field) {
  const std::string text = fields.string(fields.at(field), field);
  return std::filesystem::path(std::u8string(text.begin(), text.end()));
}

std::string optional_text(const FieldReader& fields, std::string_view field) {
  return fields.has(field) ? fields.string(field) : std::string();
}

bool optional_flag(const FieldReader& fields, std::string_view field, bool otherwise) {
  return fields.has(field) ? fields.boolean(field) : otherwise;
}

void check_cancel(const Job& job) {
  if (job.cancel.load()) {
    throw Cancelled(job.op + ": cancelled");
  }
}

void send_load_progress(Output& output, const Job& job, std::string_view stage,
                        std::uint64_t triangles) {
  // A cancelled load says nothing more but its cancelled reply.
  check_cancel(job);
  Json fields = Json::object();
  fields["stage"] = stage;
  fields["triangles"] = triangles;
  output.write_line(event_line("load_progress", job.id, fields));
}

// A client that wants no UVs gets the mesh as if it had none.
void drop_uvs(Mesh& mesh) {
  mesh.uvs = {};
  for (Triangle& t : mesh.triangles) {
    for (Corner& c : t.corners) {
      c.uv = -1;
    }
  }
}

// A load's mark in the store, taken back when the load fails.
class PendingLoad {
 public:
  PendingLoad(MeshStore& store, std::string key, std::uint64_t generation)
      : store_(store), key_(std::move(key)), generation_(generation) {}
  ~PendingLoad() { store_.abandon_load(key_, generation_); }
  PendingLoad(const PendingLoad&) = delete;
  PendingLoad& operator=(const PendingLoad&) = delete;

 private:
  MeshStore& store_;
  std::string key_;
  std::uint64_t generation_;
};

bool has_uvs(const Mesh& mesh) {
  return !mesh.uvs.empty();
}

}  // namespace

std::optional<std::uint64_t> Service::begin_load(const Request& request, const std::string& key,
                                                 const std::string& token,
                                                 const std::string& hash) {
  refuse_running_id(request);
  const auto stored = meshes_.find(key);
  const bool same = stored && ((!hash.empty() && stored->hash == hash) ||
                               (hash.empty() && !token.empty() && stored->token == token));
  if (!same) {
    return meshes_.begin_load(key);
  }
  Json reply = Json::object();
  reply["key"] = key;
  reply["triangles"] = stored->mesh->triangles.size();
  reply["vertices"] = stored->mesh->positions.size();
  reply["objects"] = stored->mesh->objects;
  reply["has_uvs"] = has_uvs(*stored->mesh);
  reply["reused"] = true;
  output_.write_line(success_reply(request.id, reply));
  return std::nullopt;
}

std::string Service::finish_load(Job& job, const std::string& key, std::uint64_t generation,
                                 Mesh&& mesh, const MeshStats& stats, const std::string& token,
                                 const std::string& hash) {
  check_cancel(job);
  Json reply = Json::object();
  reply["key"] = key;
  reply["triangles"] = mesh.triangles.size();
  reply["vertices"] = mesh.positions.size();
  reply["objects"] = mesh.objects;
  reply["has_uvs"] = has_uvs(mesh);
  reply["reused"] = false;
  if (!meshes_.finish_load(key, generation, std::move(mesh), stats, token, hash)) {
    throw KeyReleased("the key was released while the mesh loaded; nothing was kept");
  }
  return success_reply(job.id, reply);
}

void Service::load_file(const Request& request, const FieldReader& fields) {
  const std::string key = read_key(fields, fields.at("key"), "key");
  const std::filesystem::path path = read_path(fields, "path");
  const QuadPolicy quads = read_quads(fields);
  const std::string token = optional_text(fields, "token");
  const std::string hash = optional_text(fields, "hash");
  const MeshPlacement placement = read_placement(fields);
  const bool filtered = fields.has("objects");
  const std::vector<std::string> names =
      filtered ? read_name_filter(fields, "objects") : std::vector<std::string>();
  const bool progress = optional_flag(fields, "progress", false);
  const bool keep_uvs = optional_flag(fields, "uvs", true);

  const std::optional<std::uint64_t> started = begin_load(request, key, token, hash);
  if (!started) {
    return;
  }
  const std::uint64_t generation = *started;
  queue(request, JobLane::load, [=, this](Job& job) {
    const PendingLoad pending(meshes_, key, generation);
    check_cancel(job);
    if (progress) {
      send_load_progress(output_, job, "read", 0);
    }
    MeshReadOptions read_options;
    read_options.threads = counts_.load_threads;
    read_options.quads = quads;
    MeshCacheSettings cache;
    cache.folder = counts_.cache_dir;
    cache.cap_bytes = counts_.cache_max_bytes;
    cache.store_warning = kMeshCacheServiceWarning;
    CachedMeshLoad load = load_mesh_cached(path, read_options, cache);
    check_cancel(job);
    JobSink sink(job, output_, meshes_, {});
    for (const std::string& warning : load.warnings) {
      sink.warning(warning);
    }
    if (placement.up_y) {
      apply_up_axis_y(load.mesh);
    }
    if (placement.matrix) {
      apply_matrix(load.mesh, *placement.matrix);
    }
    if (filtered) {
      load.mesh = filter_objects(std::move(load.mesh), names);
    }
    if (!keep_uvs) {
      drop_uvs(load.mesh);
    }
    if (progress) {
      send_load_progress(output_, job, "done", load.mesh.triangles.size());
    }
    return finish_load(job, key, generation, std::move(load.mesh), load.stats, token, hash);
  });
}

void Service::load_section(const Request& request, const FieldReader& fields) {
  const bool shm = request.op == "mesh.load_shm";
  const std::string key = read_key(fields, fields.at("key"), "key");
  std::string section;
  std::uint64_t size = 0;
  std::uint32_t pid = 0;
  if (shm) {
    section = fields.string("section");
    size = fields.non_negative("size");
    if (size == 0) {
      fields.fail("size", "must be positive");
    }
  } else {
    // Any whole number outside 1 to 2^32 - 1 is out of range, also one too
    // large for the integer reader's own range.
    const Json& raw = fields.at("pid");
    if (raw.is_number_unsigned() &&
        raw.get<std::uint64_t>() > std::numeric_limits<std::uint32_t>::max()) {
      fields.fail("pid", "out of range");
    }
    const std::int64_t value = fields.integer(raw, "pid", std::numeric_limits<std::int64_t>::min(),
                                              std::numeric_limits<std::int64_t>::max());
    if (value < 1 || value > std::numeric_limits<std::uint32_t>::max()) {
      fields.fail("pid", "out of range");
    }
    pid = static_cast<std::uint32_t>(value);
    if (pid != options_.parent_pid) {
      throw ProtocolError(request.id,
                          "mesh.load_process: pid must be the parent process (--parent-pid)");
    }
  }
  std::vector<SectionObject> objects = read_section_objects(fields);
  const std::string token = optional_text(fields, "token");
  const std::string hash = optional_text(fields, "hash");
  const std::optional<std::uint64_t> started = begin_load(request, key, token, hash);
  if (!started) {
    return;
  }
  const std::uint64_t generation = *started;
  queue(request, JobLane::load, [=, this](Job& job) {
    const PendingLoad pending(meshes_, key, generation);
    check_cancel(job);
    Mesh mesh;
    try {
      mesh = shm ? read_section_mesh(section, size, objects, &job.cancel)
                 : read_process_mesh(pid, objects, &job.cancel);
    } catch (const SectionLayoutError& layout) {
      throw ProtocolError(job.id, job.op + ": objects[" + std::to_string(layout.object) +
                                      "]: " + layout.field + ": " + layout.text);
    }
    return finish_load(job, key, generation, std::move(mesh), MeshStats{}, token, hash);
  });
}

void Service::list_objects(const Request& request, const FieldReader& fields) {
  const std::filesystem::path path = read_path(fields, "path");
  const bool progress = optional_flag(fields, "progress", false);
  queue(request, JobLane::load, [=, this](Job& job) {
    check_cancel(job);
    if (progress) {
      send_load_progress(output_, job, "read", 0);
    }
    MeshReadOptions read_options;
    read_options.threads = counts_.load_threads;
    const Mesh mesh = read_mesh(path, read_options);
    check_cancel(job);
    if (progress) {
      send_load_progress(output_, job, "done", mesh.triangles.size());
    }
    Json reply = Json::object();
    reply["objects"] = mesh.objects;
    return success_reply(job.id, reply);
  });
}

}  // namespace kv::service
