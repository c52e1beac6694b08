// One whole Normal/Opacity bake from two meshes in memory: validation, the
// prepared low mesh, the CPU tracer over the high mesh, the banded resolve
// and the miss fill. Padding and file writing are the caller's next steps.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "mesh/mesh.h"
#include "normal/miss_fill.h"
#include "normal/normal_bake_settings.h"
#include "normal/normal_resolve.h"
#include "texel/low_prep.h"

namespace kv {

// The bake lowered its memory use: what was running, why, and the value
// (such as band rows) before and after.
struct BakeMemoryNotice {
  std::string stage;
  std::string reason;
  std::uint64_t from = 0;
  std::uint64_t to = 0;
};

struct BakeMemoryReport {
  std::uint64_t budget_mb = 0;  // 0: no budget known
  std::uint64_t band_rows = 0;  // texel rows per band as baked
  std::uint64_t band_retries = 0;
  bool bands_pipelined = false;  // this bake traces and resolves in turn
  std::vector<BakeMemoryNotice> notices;
};

struct NormalBakeCallbacks {
  // At the start of each phase: "bvh" (tracer build), then "bake".
  std::function<void(std::string_view phase)> phase_started;
  // Once, just before the first band is traced, with the tracer's description.
  std::function<void(std::string_view backend)> tracing_started;
  // After every band (see BandFinished); may throw Cancelled.
  BandFinished region_finished;
  // Each time the bake lowers its memory use.
  std::function<void(const BakeMemoryNotice&)> low_memory;
};

struct NormalBakeSeconds {
  double bvh = 0.0;            // tracer build
  double setup = 0.0;          // name groups and the LowPrep build
  double trace = 0.0;          // the whole band loop and the miss fill
  double trace_rays = 0.0;     // inside trace_batch
  double trace_wait = 0.0;     // inside the region callback
  double trace_resolve = 0.0;  // raster lookups, ray setup, resolve, miss fill
};

struct NormalBakeRun {
  NormalBakeResult result;  // after the miss fill: normal_valid includes filled texels
  std::string backend;      // the tracer's description
  bool retried_compact = false;
  double scale = 1.0;  // factor applied to the front and rear distances
  float front = 0.0f;  // distances in mesh units after scaling
  float rear = 0.0f;
  std::uint64_t low_triangles = 0;
  std::uint64_t high_triangles = 0;
  std::uint64_t unmatched_low_objects = 0;
  std::uint64_t zero_uv_area_triangles = 0;  // low UV triangles that own no texels
  std::uint64_t corners_without_normal = 0;  // low corners given (0, 0, 1) for their frame
  std::uint64_t texels_valid = 0;            // Normals after the miss fill
  MissFill coverage;
  NormalBakeSeconds seconds;
  BakeMemoryReport memory;
};

// The LowPrep a Normal bake with these settings needs: tangent frames on.
LowPrepSettings low_prep_settings_of(const NormalBakeSettings& settings);

// Bakes the high mesh onto the low mesh's UV layout with `threads` worker
// threads (0: every hardware thread). Throws Error with the first failing
// check's message, OutOfMemory, or Cancelled from a callback.
NormalBakeRun bake_normal_map(const Mesh& low, const Mesh& high, const NormalBakeSettings& settings,
                              int threads, const NormalBakeCallbacks& callbacks = {});

// Name groups for matching by name: one group per low object and one per
// high triangle. An object's key is its name, or with `--match objects` its
// block's name when the mesh has blocks, without the mesh's suffix when it
// ends with it. Equal keys share a group; a low object whose key no high
// object has gets a group of its own and is counted as unmatched.
struct NameGroups {
  std::vector<std::uint32_t> low_objects;
  std::vector<std::uint32_t> high_triangles;
  std::uint64_t unmatched_low_objects = 0;
};
// With ignore_case, keys and suffixes are compared without regard to ASCII
// case (the texture transfer's matching by objects).
NameGroups match_name_groups(const Mesh& low, const Mesh& high, const NormalBakeSettings& settings,
                             bool ignore_case = false);

}  // namespace kv
