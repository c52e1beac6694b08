// One mesh-maps run from meshes already in memory, from the bake to the
// summary: what the command and the service both run.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "core/json_line.h"
#include "core/stopwatch.h"
#include "mesh/mesh.h"
#include "meshmaps/meshmaps_output.h"
#include "meshmaps/meshmaps_settings.h"
#include "meshmaps/normal_map_input.h"
#include "meshmaps/sample_directions.h"
#include "sampling/band_loop.h"

namespace kv::meshmaps {

// What a run reads beside the meshes, read before them.
struct MeshMapsExtras {
  std::string gpu_fallback;  // why a GPU request runs on the CPU; empty: it does not
  std::optional<NoiseTable> noise;
  std::optional<NormalMapImage> normal_map;
};

// The settings' checks and the backend choice. Throws Error.
std::string check_meshmaps_run(const MeshMapsSettings& settings);

// Reads the noise table and the normal map the settings name.
MeshMapsExtras read_meshmaps_extras(const MeshMapsSettings& settings, std::string gpu_fallback);

// Where the caller follows the run; both may throw to end it.
struct MeshMapsHooks {
  std::function<void()> between_bands;
  // After each band, with the rows it finished (before between_bands).
  BandDone band_finished;
  MapWritten map_written;
};

// Bakes, pads and writes every map, and returns the summary object.
// `load_seconds` is what reading the meshes took; `start` when the run began.
Json meshmaps_loaded_meshes(const MeshMapsSettings& settings, const MeshMapsEnvironment& env,
                            const MeshMapsExtras& extras, const Mesh& low, const Mesh& high,
                            Clock::time_point start, double load_seconds,
                            const MeshMapsHooks& hooks = {});

}  // namespace kv::meshmaps
