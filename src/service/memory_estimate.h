// The memory a job would need, as the service's memory budget judges it
// before a job starts, and the budget itself when none is given.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kv::service {

struct JobShape {
  std::uint32_t width = 0, height = 0, antialias = 1;
  std::vector<std::string> maps;  // names from estimate_map_names()
  bool gpu = false;
  std::uint64_t high_triangles = 0;
  std::uint64_t low_triangles = 0;
};

struct MemoryEstimate {
  std::uint64_t total_bytes = 0;    // the sum of the parts below
  std::uint64_t texel_bytes = 0;    // per-texel maps, masks and their padding and writing
  std::uint64_t texture_bytes = 0;  // input textures (transfer); 0 for bakes
  std::uint64_t mesh_bytes = 0;     // built over the meshes: tracer scene, LowPrep
  std::uint64_t band_bytes = 0;     // one band of sub-samples, rays and hits
};

// The map names an estimate knows, in a fixed order: "normal", "opacity",
// then the mesh maps.
const std::vector<std::string>& estimate_map_names();

// An upper bound of what the job allocates beside the meshes it reads (those
// are counted by the mesh store once loaded). Throws kv::Error "unknown map
// "<name>"" for a name estimate_map_names() lacks.
MemoryEstimate estimate_job_memory(const JobShape& shape);

// The budget when none is given: half of the memory free (MemAvailable) when
// the service starts, as the command line's default. The other half stays
// for the client application beside us, which holds the same meshes and
// textures itself, and for the system's file cache; taken once at the start,
// since later readings would count our own caches as used by others.
std::uint64_t automatic_budget_bytes();

}  // namespace kv::service
