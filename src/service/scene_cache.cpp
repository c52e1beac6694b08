#include "service/scene_cache.h"

#include <algorithm>

namespace kv::service {
namespace {

// What groups the meshes by name; with it, the LowPrep and the tracer
// depend on both meshes.
std::string matching_text(const NormalBakeSettings& s) {
  if (!s.match_by_name) {
    return "match off";
  }
  return "match " + std::to_string(s.match_objects) + " " + std::to_string(s.low_suffix.size()) +
         ":" + s.low_suffix + " " + std::to_string(s.high_suffix.size()) + ":" + s.high_suffix;
}

std::string mesh_text(const std::string& key, std::uint64_t generation) {
  return std::to_string(key.size()) + ":" + key + "#" + std::to_string(generation);
}

}  // namespace

std::string prep_key(const NormalBakeSettings& s, const std::string& low,
                     std::uint64_t low_generation, const std::string& high_keys) {
  std::string text = "prep " + mesh_text(low, low_generation) + " " + std::to_string(s.width) +
                     "x" + std::to_string(s.height) + " udim " + std::to_string(s.udim) + " aa " +
                     std::to_string(s.aa) + " snap " + std::to_string(s.uv_snap_bits) +
                     std::to_string(s.uv_snap_texel) + " avg " + std::to_string(s.average_normals) +
                     " ts " + std::to_string(s.tangent_space) + " tile " +
                     std::to_string(s.uv_tile) + " " + matching_text(s);
  for (const std::string& material : s.raster_materials) {
    text += " m" + std::to_string(material.size()) + ":" + material;
  }
  if (s.match_by_name) {
    text += " high " + high_keys;
  }
  return text;
}

std::string tracer_key(const NormalBakeSettings& s, const std::string& low,
                       std::uint64_t low_generation, const std::string& high_keys) {
  std::string text = "tracer " + high_keys + " " + matching_text(s);
  if (s.match_by_name) {
    text += " low " + mesh_text(low, low_generation);
  }
  return text;
}

SceneCache::Entry* SceneCache::find(std::list<Entry>& list, const std::string& key) {
  const auto it =
      std::find_if(list.begin(), list.end(), [&](const Entry& e) { return e.key == key; });
  if (it == list.end()) {
    return nullptr;
  }
  list.splice(list.begin(), list, it);
  return &list.front();
}

void SceneCache::keep(std::list<Entry>& list, Entry entry) {
  list.remove_if([&](const Entry& e) { return e.key == entry.key; });
  list.push_front(std::move(entry));
  if (list.size() > kCapacity) {
    list.pop_back();
  }
}

std::shared_ptr<const LowPrep> SceneCache::find_prep(const std::string& key) {
  std::lock_guard guard(lock_);
  const Entry* entry = find(preps_, key);
  return entry != nullptr ? entry->prep : nullptr;
}

std::optional<KeptTracer> SceneCache::find_tracer(const std::string& key) {
  std::lock_guard guard(lock_);
  const Entry* entry = find(tracers_, key);
  if (entry == nullptr) {
    return std::nullopt;
  }
  return entry->tracer;
}

void SceneCache::keep_prep(const std::string& key, std::shared_ptr<const LowPrep> prep,
                           std::shared_ptr<const Mesh> low, std::vector<std::string> keys) {
  Entry entry;
  entry.key = key;
  entry.mesh_keys = std::move(keys);
  entry.prep = std::move(prep);
  entry.low = std::move(low);
  std::lock_guard guard(lock_);
  keep(preps_, std::move(entry));
}

void SceneCache::keep_tracer(const std::string& key, KeptTracer tracer,
                             std::vector<std::string> keys) {
  Entry entry;
  entry.key = key;
  entry.mesh_keys = std::move(keys);
  entry.tracer = std::move(tracer);
  std::lock_guard guard(lock_);
  keep(tracers_, std::move(entry));
}

void SceneCache::drop_key(const std::string& mesh_key) {
  std::list<Entry> dropped;  // freed after the lock
  std::lock_guard guard(lock_);
  for (std::list<Entry>* list : {&preps_, &tracers_}) {
    for (auto it = list->begin(); it != list->end();) {
      const auto next = std::next(it);
      if (std::find(it->mesh_keys.begin(), it->mesh_keys.end(), mesh_key) != it->mesh_keys.end()) {
        dropped.splice(dropped.end(), *list, it);
      }
      it = next;
    }
  }
}

std::size_t SceneCache::trim_preps() {
  std::list<Entry> dropped;
  std::lock_guard guard(lock_);
  dropped.swap(preps_);
  return dropped.size();
}

std::size_t SceneCache::trim_tracers() {
  std::list<Entry> dropped;
  std::lock_guard guard(lock_);
  dropped.swap(tracers_);
  return dropped.size();
}

std::size_t SceneCache::prep_count() const {
  std::lock_guard guard(lock_);
  return preps_.size();
}

std::size_t SceneCache::tracer_count() const {
  std::lock_guard guard(lock_);
  return tracers_.size();
}

}  // namespace kv::service
