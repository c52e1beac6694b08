#include "meshmaps/meshmaps_run.h"

#include "core/error.h"
#include "meshmaps/meshmaps_bake.h"
#include "meshmaps/meshmaps_options.h"
#include "meshmaps/meshmaps_summary.h"

namespace kv::meshmaps {

// Until the GPU backend bakes mesh maps, a GPU request runs on the CPU
// under the fallback policy and fails under the others.
std::string check_meshmaps_run(const MeshMapsSettings& s) {
  check_meshmaps_settings(s);
  if (s.bake.backend != "gpu") {
    return {};
  }
  const std::string why = "the GPU mesh maps backend is not available in this build";
  if (s.gpu_failure_policy != GpuFailurePolicy::fallback) {
    throw Error("meshmaps: the GPU backend cannot run: " + why);
  }
  return why;
}

MeshMapsExtras read_meshmaps_extras(const MeshMapsSettings& s, std::string gpu_fallback) {
  MeshMapsExtras extras;
  extras.gpu_fallback = std::move(gpu_fallback);
  if (!s.noise_x.empty()) {
    extras.noise = NoiseTable::read_raw(s.noise_x);
  } else if (!s.noise.empty()) {
    extras.noise = NoiseTable::read_png(s.noise);
  }
  if (!s.normal_map.empty()) {
    extras.normal_map = decode_normal_map(read_normal_map_texels(s.normal_map),
                                          s.bake.normal_format == 1, s.normal_map);
  }
  return extras;
}

Json meshmaps_loaded_meshes(const MeshMapsSettings& s, const MeshMapsEnvironment& env,
                            const MeshMapsExtras& extras, const Mesh& low, const Mesh& high,
                            Clock::time_point start, double load_seconds,
                            const MeshMapsHooks& hooks) {
  RunTimes times;
  times.load = load_seconds;
  BakeExtras bake_extras;
  bake_extras.noise = extras.noise ? &*extras.noise : nullptr;
  bake_extras.normal_map = extras.normal_map ? &*extras.normal_map : nullptr;
  BandDone band_done;
  if (hooks.between_bands || hooks.band_finished) {
    band_done = [&hooks](const TexelRegion& region) {
      if (hooks.band_finished) {
        hooks.band_finished(region);
      }
      if (hooks.between_bands) {
        hooks.between_bands();
      }
    };
  }
  MeshMapsRun run = bake_mesh_maps(low, high, s, env, bake_extras, s.bake.threads, band_done);
  // A run ended during its last band writes nothing either.
  if (hooks.between_bands) {
    hooks.between_bands();
  }
  const std::vector<WrittenMap> written =
      write_mesh_maps(run, s, s.bake.threads, &times.output, hooks.map_written);
  times.total = seconds_since(start);
  return meshmaps_summary_json(s, env, run, written, extras.gpu_fallback, times);
}

}  // namespace kv::meshmaps
