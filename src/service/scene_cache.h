// LowPreps and CPU tracers kept between bakes. An entry is found by a text
// naming what it was built from (mesh keys with their generations, and the
// settings that shape it) and holds the meshes it refers to, so a released
// key's mesh lives on only until its entries are dropped.
#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "mesh/mesh.h"
#include "normal/normal_bake.h"
#include "texel/low_prep.h"
#include "trace/cpu_tracer.h"

namespace kv::service {

// A tracer with the high mesh it traces (one key's mesh, or several joined).
struct KeptTracer {
  std::shared_ptr<const CpuTracer> tracer;
  std::shared_ptr<const Mesh> high;
};

class SceneCache {
 public:
  // Entries kept of each kind; the least recently used goes first.
  static constexpr std::size_t kCapacity = 4;

  std::shared_ptr<const LowPrep> find_prep(const std::string& key);
  std::optional<KeptTracer> find_tracer(const std::string& key);
  // `keys`: the mesh keys the entry was built from.
  void keep_prep(const std::string& key, std::shared_ptr<const LowPrep> prep,
                 std::shared_ptr<const Mesh> low, std::vector<std::string> keys);
  void keep_tracer(const std::string& key, KeptTracer tracer, std::vector<std::string> keys);

  // Drops the entries built from a mesh key.
  void drop_key(const std::string& mesh_key);
  // Drops the kept LowPreps or tracers; returns how many went.
  std::size_t trim_preps();
  std::size_t trim_tracers();

  std::size_t prep_count() const;
  std::size_t tracer_count() const;

 private:
  struct Entry {
    std::string key;
    std::vector<std::string> mesh_keys;
    std::shared_ptr<const LowPrep> prep;
    std::shared_ptr<const Mesh> low;
    KeptTracer tracer;
  };
  static void keep(std::list<Entry>& list, Entry entry);
  static Entry* find(std::list<Entry>& list, const std::string& key);

  mutable std::mutex lock_;
  std::list<Entry> preps_;  // most recently used first
  std::list<Entry> tracers_;
};

// The key text of a LowPrep and of a tracer for a bake.
std::string prep_key(const NormalBakeSettings& settings, const std::string& low,
                     std::uint64_t low_generation, const std::string& high_keys);
std::string tracer_key(const NormalBakeSettings& settings, const std::string& low,
                       std::uint64_t low_generation, const std::string& high_keys);

}  // namespace kv::service
