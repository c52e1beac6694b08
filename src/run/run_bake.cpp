#include "run/run_bake.h"

#include <string>

#include "core/error.h"
#include "core/stopwatch.h"
#include "gpu/gpu_probe.h"
#include "normal/normal_bake.h"
#include "platform/platform.h"
#include "run/bake_inputs.h"
#include "run/bake_maps.h"
#include "run/bake_progress.h"
#include "run/run_summary.h"

namespace kv::run {
namespace {

// Which backend bakes, as far as this build can tell.
struct BackendChoice {
  std::string gpu_unavailable;
};

BackendChoice choose_backend(const NormalBakeSettings& settings) {
  BackendChoice choice;
  if (settings.backend == "cpu") {
    return choice;
  }
  gpu::ProbeOptions options;
  options.low_priority = !platform::get_env("KORVANE_PROBE_NORMAL_PRIORITY").has_value();
  std::string why;
  const gpu::GpuProbe probe = gpu::probe_gpu(options, &why);
  if (!probe.available) {
    if (why.empty()) {
      why = "no usable GPU was found";
    }
    if (settings.backend == "gpu") {
      throw Error("the GPU backend cannot run: " + why);
    }
    choice.gpu_unavailable = why;
  }
  return choice;
}

RunCounts run_counts(const NormalBakeRun& run, const BakeMeshes& inputs, const PaddingCount& padded,
                     std::uint64_t texels) {
  RunCounts c;
  const NormalBakeCounters& k = run.result.counters;
  c.low_triangles = run.low_triangles;
  c.high_triangles = run.high_triangles;
  c.low_quads_split = inputs.low_quads_split;
  c.high_quads_split = inputs.high_quads_split;
  c.unmatched_low_objects = run.unmatched_low_objects;
  c.texels_covered = k.texels_covered;
  c.texels_valid = run.texels_valid;
  c.texels_opaque = k.texels_opaque;
  c.texels_gutter = texels - padded.before;
  c.texels_padded = padded.after - padded.before;
  c.samples_covered = k.samples_covered;
  c.rays = k.rays;
  c.hits = k.hits;
  c.invalid_ray_normals = k.invalid_ray_normals;
  c.invalid_hit_normals = k.invalid_hit_normals;
  c.degenerate_frames = k.degenerate_frames;
  c.zero_uv_area_triangles = run.zero_uv_area_triangles;
  c.corners_without_normal = run.corners_without_normal;
  return c;
}

// What the summary reports of the bake itself; the driver's own times and
// the backend choice are added by the caller.
RunResult run_result(const NormalBakeRun& run, const BakeMeshes& inputs, const PaddingCount& padded,
                     const NormalBakeSettings& settings) {
  RunResult summary;
  summary.backend = "cpu";
  summary.scale = run.scale;
  summary.front = run.front;
  summary.rear = run.rear;
  summary.counts = run_counts(
      run, inputs, padded,
      static_cast<std::uint64_t>(settings.width) * static_cast<std::uint64_t>(settings.height));
  RunSeconds& t = summary.seconds;
  t.bvh = run.seconds.bvh;
  t.setup = run.seconds.setup;
  t.trace = run.seconds.trace;
  t.trace_rays = run.seconds.trace_rays;
  t.trace_wait = run.seconds.trace_wait;
  t.trace_resolve = run.seconds.trace_resolve;
  summary.memory = run.memory;
  summary.coverage_texels = run.coverage.texels;
  summary.coverage_hits = run.coverage.hits;
  summary.coverage_filled = run.coverage.filled;
  summary.stacked_skipped = run.result.counters.stacked_skipped;
  return summary;
}

}  // namespace

Json run_bake(const NormalBakeSettings& settings, ProgressSink& sink) {
  const Clock::time_point start = Clock::now();
  check_bake_start(settings);
  sink.event(phase_event("load"));
  const BakeInputs inputs = load_bake_inputs(settings, sink);
  const BakeMeshes meshes{inputs.low.mesh, inputs.high.mesh, inputs.low.stats.quads_split,
                          inputs.high.stats.quads_split};
  return bake_loaded_meshes(settings, meshes, sink, start, seconds_since(start));
}

Json bake_loaded_meshes(const NormalBakeSettings& settings, const BakeMeshes& meshes,
                        ProgressSink& sink, Clock::time_point start, double load_seconds,
                        NormalBakeScene* scene, const BakeExtras& extras) {
  check_bake_start(settings);
  const BackendChoice backend = choose_backend(settings);
  BakeProgress progress(settings, sink, extras.preview);
  NormalBakeRun run = bake_normal_map(meshes.low, meshes.high, settings, settings.threads,
                                      progress.callbacks(), scene);

  sink.event(phase_event("padding"));
  const Clock::time_point padding_start = Clock::now();
  const PaddingCount padded = pad_normal_map(run.result, settings);
  const double padding_seconds = seconds_since(padding_start);

  sink.event(phase_event("write"));
  const Clock::time_point write_start = Clock::now();
  write_maps(run.result, settings);
  if (extras.write_more) {
    extras.write_more(run.result);
  }
  const double write_seconds = seconds_since(write_start);

  RunResult summary = run_result(run, meshes, padded, settings);
  summary.gpu_unavailable = backend.gpu_unavailable;
  summary.seconds.load = load_seconds;
  summary.seconds.padding = padding_seconds;
  summary.seconds.write = write_seconds;
  summary.seconds.total = seconds_since(start);
  return run_summary_json(settings, summary);
}

}  // namespace kv::run
