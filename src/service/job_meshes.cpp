#include "service/job_meshes.h"

#include "core/error.h"
#include "service/mesh_join.h"
#include "service/protocol_error.h"

namespace kv::service {
namespace {

StoredMesh stored_mesh(const MeshStore& store, const Job& job, const std::string& key) {
  std::optional<StoredMesh> stored = store.find(key);
  if (!stored) {
    throw ProtocolError(job.id, job.op + ": no mesh is loaded under the key \"" + key + "\"");
  }
  return *stored;
}

void check_cancel(const Job& job) {
  if (job.cancel.load()) {
    throw Cancelled(job.op + ": cancelled");
  }
}

}  // namespace

std::vector<const Mesh*> JobMeshes::other_meshes() const {
  std::vector<const Mesh*> meshes;
  for (const StoredMesh& other : others) {
    meshes.push_back(other.mesh.get());
  }
  return meshes;
}

std::uint64_t JobMeshes::other_quads_split() const {
  std::uint64_t quads = 0;
  for (const StoredMesh& other : others) {
    quads += other.stats.quads_split;
  }
  return quads;
}

JobMeshes find_job_meshes(const MeshStore& store, Job& job, const std::string& first,
                          const std::vector<std::string>& others) {
  check_cancel(job);
  std::vector<std::string> keys = others;
  keys.push_back(first);
  store.wait_for_loads(keys, job.cancel);
  check_cancel(job);
  JobMeshes meshes;
  meshes.first = stored_mesh(store, job, first);
  meshes.used.emplace_back(first, meshes.first.generation);
  for (const std::string& key : others) {
    meshes.others.push_back(stored_mesh(store, job, key));
    meshes.used.emplace_back(key, meshes.others.back().generation);
  }
  return meshes;
}

std::shared_ptr<const Mesh> joined_others(const JobMeshes& meshes) {
  if (meshes.others.size() == 1) {
    return meshes.others.front().mesh;
  }
  return std::make_shared<const Mesh>(join_meshes(meshes.other_meshes()));
}

std::vector<std::string> read_release_after(const FieldReader& fields) {
  return fields.has("release_after") ? fields.strings(fields.at("release_after"), "release_after")
                                     : std::vector<std::string>();
}

}  // namespace kv::service
