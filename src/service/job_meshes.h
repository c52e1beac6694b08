// The meshes a queued job reads, found by key when the job starts, and the
// keys it releases when it ends.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "service/field_reader.h"
#include "service/job_runner.h"
#include "service/mesh_store.h"

namespace kv::service {

struct JobMeshes {
  StoredMesh first;                // the low or target mesh
  std::vector<StoredMesh> others;  // the high or source keys, in list order
  // Every key with the generation found, the first key first: what the
  // job's sink watches for a release.
  std::vector<std::pair<std::string, std::uint64_t>> used;

  std::vector<const Mesh*> other_meshes() const;
  std::uint64_t other_quads_split() const;
};

// Waits for loads into the keys still running (a job may follow its loads
// without waiting for their replies), then finds each key. Throws Cancelled
// "<op>: cancelled" when the job is cancelled meanwhile, and ProtocolError
// "<op>: no mesh is loaded under the key "<key>"" for a key that holds none.
JobMeshes find_job_meshes(const MeshStore& store, Job& job, const std::string& first,
                          const std::vector<std::string>& others);

// The other meshes as one: the only one as it is, several joined in order.
std::shared_ptr<const Mesh> joined_others(const JobMeshes& meshes);

// The keys of a job's optional "release_after" field; none when it is absent.
std::vector<std::string> read_release_after(const FieldReader& fields);

// Keys a job releases when it ends, however it ends.
class ReleaseAfter {
 public:
  ReleaseAfter(std::function<void(const std::vector<std::string>&)> release,
               std::vector<std::string> keys)
      : release_(std::move(release)), keys_(std::move(keys)) {}
  ~ReleaseAfter() { release_(keys_); }
  ReleaseAfter(const ReleaseAfter&) = delete;
  ReleaseAfter& operator=(const ReleaseAfter&) = delete;

 private:
  std::function<void(const std::vector<std::string>&)> release_;
  std::vector<std::string> keys_;
};

}  // namespace kv::service
