// Meshes kept under the client's keys between jobs. A mesh is moved in once
// and shared read-only by the jobs that use it; releasing a key drops the
// store's hold, and the mesh goes when its last job ends.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "core/json_line.h"
#include "mesh/mesh.h"

namespace kv::service {

struct StoredMesh {
  std::shared_ptr<const Mesh> mesh;
  MeshStats stats;
  std::string token;  // as the client gave them; empty when not given
  std::string hash;
  std::uint64_t generation = 0;  // changes with every store or release of the key
};

class MeshStore {
 public:
  // Notes that a load into `key` starts; returns the generation the load
  // must still find when it finishes (see finish_load).
  std::uint64_t begin_load(const std::string& key);
  // Stores the loaded mesh when the key was not released (or loaded again)
  // since begin_load; false when it was, and the mesh is dropped.
  bool finish_load(const std::string& key, std::uint64_t load_generation, Mesh&& mesh,
                   const MeshStats& stats, const std::string& token, const std::string& hash);

  // Waits while a load into any of the keys is still running, so that a job
  // sent right after its loads finds their meshes; returns early once
  // `cancel` is set.
  void wait_for_loads(const std::vector<std::string>& keys, const std::atomic<bool>& cancel) const;

  // Forgets a load that failed (nothing when the key moved on since).
  void abandon_load(const std::string& key, std::uint64_t load_generation);

  std::optional<StoredMesh> find(const std::string& key) const;
  // Whether the key still holds the mesh of that generation.
  bool holds(const std::string& key, std::uint64_t generation) const;
  // Releases the keys (unknown keys are ignored); returns those that held a
  // mesh or a load.
  std::vector<std::string> release(const std::vector<std::string>& keys);
  void clear();

  // [{"key", "triangles", "bytes"}...] in key order.
  Json status() const;

 private:
  mutable std::mutex lock_;
  mutable std::condition_variable loads_changed_;
  std::map<std::string, StoredMesh> meshes_;
  std::map<std::string, std::uint64_t> loads_;  // key: generation of its running load
  std::uint64_t next_generation_ = 1;
};

}  // namespace kv::service
