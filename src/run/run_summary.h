// The summary of a finished bake run, as a JSON object; its compact dump is
// the line that ends the bake command's stdout.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "core/json_line.h"
#include "normal/normal_bake.h"
#include "normal/normal_bake_settings.h"

namespace kv::run {

// Unsigned counts of a run, in the order the summary lists them.
struct RunCounts {
  std::uint64_t low_triangles = 0;
  std::uint64_t high_triangles = 0;
  std::uint64_t low_quads_split = 0;
  std::uint64_t high_quads_split = 0;
  std::uint64_t unmatched_low_objects = 0;
  std::uint64_t gpu_blas_build_bytes = 0;
  std::uint64_t texels_covered = 0;
  std::uint64_t texels_valid = 0;
  std::uint64_t texels_opaque = 0;
  std::uint64_t texels_gutter = 0;
  std::uint64_t texels_padded = 0;
  std::uint64_t samples_covered = 0;
  std::uint64_t rays = 0;
  std::uint64_t hits = 0;
  std::uint64_t invalid_ray_normals = 0;
  std::uint64_t invalid_hit_normals = 0;
  std::uint64_t degenerate_frames = 0;
  std::uint64_t zero_uv_area_triangles = 0;
  std::uint64_t corners_without_normal = 0;
  std::uint64_t gpu_dispatches = 0;
};

// Phase times in seconds, in the order the summary lists them.
struct RunSeconds {
  double load = 0, bvh = 0, setup = 0, trace = 0, trace_rays = 0, trace_wait = 0, trace_resolve = 0,
         gpu_fill = 0, gpu_submit = 0, gpu_busy = 0, gpu_scene = 0, gpu_scene_upload = 0,
         gpu_scene_build = 0, gpu_scene_compact = 0, gpu_low = 0, gpu_copy = 0, padding = 0,
         write = 0, total = 0;
};

// What a finished bake run reports.
struct RunResult {
  std::string backend;
  std::string gpu_unavailable;
  std::string gpu_pipeline;
  std::string gpu_pipeline_fallback;
  std::uint64_t gpu_bands = 0;
  double scale = 1.0;
  float front = 0.0f;  // distances in mesh units after scaling
  float rear = 0.0f;
  RunCounts counts;
  RunSeconds seconds;
  BakeMemoryReport memory;  // notices empty: memory use was never reduced
  std::uint64_t coverage_texels = 0;
  std::uint64_t coverage_hits = 0;
  std::uint64_t coverage_filled = 0;
  std::uint64_t stacked_skipped = 0;
};

// The summary object. Float settings and distances hold the shortest decimal
// that reads back as the same float, so they dump as the user wrote them.
Json run_summary_json(const NormalBakeSettings& settings, const RunResult& result);

// The words the summary uses for enumerated settings.
const char* padding_word(PaddingMode mode);

}  // namespace kv::run
