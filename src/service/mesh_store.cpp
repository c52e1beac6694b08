#include "service/mesh_store.h"

#include <chrono>

namespace kv::service {

std::uint64_t MeshStore::begin_load(const std::string& key) {
  std::lock_guard guard(lock_);
  const std::uint64_t generation = next_generation_++;
  loads_[key] = generation;
  return generation;
}

bool MeshStore::finish_load(const std::string& key, std::uint64_t load_generation, Mesh&& mesh,
                            const MeshStats& stats, const std::string& token,
                            const std::string& hash) {
  std::lock_guard guard(lock_);
  const auto load = loads_.find(key);
  if (load == loads_.end() || load->second != load_generation) {
    return false;
  }
  loads_.erase(load);
  loads_changed_.notify_all();
  StoredMesh stored;
  stored.mesh = std::make_shared<const Mesh>(std::move(mesh));
  stored.stats = stats;
  stored.token = token;
  stored.hash = hash;
  stored.generation = load_generation;
  meshes_[key] = std::move(stored);
  return true;
}

void MeshStore::abandon_load(const std::string& key, std::uint64_t load_generation) {
  std::lock_guard guard(lock_);
  const auto load = loads_.find(key);
  if (load != loads_.end() && load->second == load_generation) {
    loads_.erase(load);
    loads_changed_.notify_all();
  }
}

void MeshStore::wait_for_loads(const std::vector<std::string>& keys,
                               const std::atomic<bool>& cancel) const {
  std::unique_lock guard(lock_);
  const auto loading = [&] {
    for (const std::string& key : keys) {
      if (loads_.count(key) != 0) {
        return true;
      }
    }
    return false;
  };
  // A cancel sets only a flag, so the wait looks at it now and then.
  while (loading() && !cancel.load()) {
    loads_changed_.wait_for(guard, std::chrono::milliseconds(20));
  }
}

std::optional<StoredMesh> MeshStore::find(const std::string& key) const {
  std::lock_guard guard(lock_);
  const auto it = meshes_.find(key);
  if (it == meshes_.end()) {
    return std::nullopt;
  }
  return it->second;
}

bool MeshStore::holds(const std::string& key, std::uint64_t generation) const {
  std::lock_guard guard(lock_);
  const auto it = meshes_.find(key);
  return it != meshes_.end() && it->second.generation == generation;
}

std::vector<std::string> MeshStore::release(const std::vector<std::string>& keys) {
  std::vector<std::shared_ptr<const Mesh>> dropped;  // freed outside the lock
  std::vector<std::string> released;
  {
    std::lock_guard guard(lock_);
    for (const std::string& key : keys) {
      bool held = loads_.erase(key) > 0;
      loads_changed_.notify_all();
      if (const auto it = meshes_.find(key); it != meshes_.end()) {
        dropped.push_back(std::move(it->second.mesh));
        meshes_.erase(it);
        held = true;
      }
      if (held) {
        released.push_back(key);
      }
    }
  }
  return released;
}

void MeshStore::clear() {
  std::map<std::string, StoredMesh> dropped;
  std::lock_guard guard(lock_);
  dropped.swap(meshes_);
  loads_.clear();
}

Json MeshStore::status() const {
  std::lock_guard guard(lock_);
  Json list = Json::array();
  for (const auto& [key, stored] : meshes_) {
    Json entry = Json::object();
    entry["key"] = key;
    entry["triangles"] = stored.mesh->triangles.size();
    entry["bytes"] = mesh_memory_bytes(*stored.mesh);
    list.push_back(std::move(entry));
  }
  return list;
}

}  // namespace kv::service
