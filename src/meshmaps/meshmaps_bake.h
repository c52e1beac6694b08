// One whole mesh-maps bake from meshes in memory: the prepared low mesh, the
// tracer, the evaluator on the band loop under the memory budget, and the
// range mappings. Padding and writing are the caller's next steps.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "mesh/mesh.h"
#include "meshmaps/map_buffers.h"
#include "meshmaps/meshmaps_settings.h"
#include "meshmaps/normal_map_input.h"
#include "meshmaps/sample_directions.h"
#include "normal/normal_bake.h"
#include "sampling/band_loop.h"
#include "trace/tracer.h"

namespace kv::meshmaps {

struct MeshMapsSeconds {
  double setup = 0.0;  // name groups, ID sources and the LowPrep
  double bvh = 0.0;    // tracer build
  double bake = 0.0;   // the band loop with every secondary ray
  double rays = 0.0;   // inside the primary trace_batch
};

struct MeshMapsRun {
  MeshMapsBuffers buffers;
  std::string backend;  // the tracer's description
  bool retried_compact = false;
  float scale = 1.0f;   // factor applied to the primary distances
  float extent = 1.0f;  // the high box's largest side: the unit of relative map distances
  float front = 0.0f;   // primary distances in mesh units
  float rear = 0.0f;
  std::uint64_t low_triangles = 0;
  std::uint64_t high_triangles = 0;
  std::uint64_t unmatched_low_objects = 0;
  MeshMapsSeconds seconds;
  BakeMemoryReport memory;
};

// The buffers the outputs need; --out-raw needs the four raw maps.
MapRequest request_of(const MeshMapsSettings& settings);

// What the bake reads beside the meshes; null where not given.
struct BakeExtras {
  const NoiseTable* noise = nullptr;
  const NormalMapImage* normal_map = nullptr;
};

// Bakes with `threads` worker threads (0: every hardware thread). `high` is
// the low mesh itself under --low-as-high. `band_done` runs after each band
// and may throw Cancelled to end the bake. Throws Error, OutOfMemory.
MeshMapsRun bake_mesh_maps(const Mesh& low, const Mesh& high, const MeshMapsSettings& settings,
                           const MeshMapsEnvironment& env, const BakeExtras& extras, int threads,
                           const BandDone& band_done = {});

// The same with a tracer the caller built over `high`, with one name group
// per high triangle when names are matched or any map keeps to the same
// name (see high_name_groups); `tracer_bytes` is what it holds, for the
// band plan.
MeshMapsRun bake_mesh_maps_on(const Mesh& low, const Mesh& high, const MeshMapsSettings& settings,
                              const BakeExtras& extras, const Tracer& tracer,
                              std::uint64_t tracer_bytes, int threads);

// The name groups of the high triangles such a tracer needs; empty when
// none are needed.
std::vector<std::uint32_t> high_name_groups(const Mesh& low, const Mesh& high,
                                            const MeshMapsSettings& settings);

}  // namespace kv::meshmaps
