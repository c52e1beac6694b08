#include "normal/normal_bake.h"

#include <map>
#include <memory>
#include <new>

#include "core/error.h"
#include "core/parallel.h"
#include "core/stopwatch.h"
#include "sampling/ray_setup.h"
#include "texel/low_prep.h"
#include "trace/cpu_tracer.h"

namespace kv {
namespace {

constexpr std::uint64_t kMiB = 1024 * 1024;

std::string ascii_lower(std::string text) {
  for (char& c : text) {
    if (c >= 'A' && c <= 'Z') {
      c = static_cast<char>(c - 'A' + 'a');
    }
  }
  return text;
}

std::string object_key(const Mesh& mesh, std::size_t object, bool by_block, std::string suffix,
                       bool ignore_case) {
  std::string key = mesh.objects[object];
  if (by_block && !mesh.object_blocks.empty()) {
    key = mesh.blocks[mesh.object_blocks[object]];
  }
  if (ignore_case) {
    key = ascii_lower(std::move(key));
    suffix = ascii_lower(std::move(suffix));
  }
  if (!suffix.empty() && key.size() >= suffix.size() &&
      key.compare(key.size() - suffix.size(), suffix.size(), suffix) == 0) {
    key.resize(key.size() - suffix.size());
  }
  return key;
}

}  // namespace

NameGroups match_name_groups(const Mesh& low, const Mesh& high, const NormalBakeSettings& settings,
                             bool ignore_case) {
  NameGroups groups;
  std::map<std::string, std::uint32_t> ids;
  std::vector<std::uint8_t> low_has_high;
  auto id_of = [&](const std::string& key) {
    const auto [it, added] = ids.emplace(key, static_cast<std::uint32_t>(ids.size()));
    if (added) {
      low_has_high.push_back(0);
    }
    return it->second;
  };
  for (std::size_t o = 0; o < low.objects.size(); ++o) {
    groups.low_objects.push_back(
        id_of(object_key(low, o, settings.match_objects, settings.low_suffix, ignore_case)));
  }
  std::vector<std::uint32_t> high_object_groups;
  for (std::size_t o = 0; o < high.objects.size(); ++o) {
    const std::uint32_t id =
        id_of(object_key(high, o, settings.match_objects, settings.high_suffix, ignore_case));
    high_object_groups.push_back(id);
    low_has_high[id] = 1;
  }
  for (const std::uint32_t id : groups.low_objects) {
    if (low_has_high[id] == 0) {
      ++groups.unmatched_low_objects;
    }
  }
  groups.high_triangles.reserve(high.triangles.size());
  for (const Triangle& t : high.triangles) {
    groups.high_triangles.push_back(t.object < high_object_groups.size()
                                        ? high_object_groups[t.object]
                                        : static_cast<std::uint32_t>(ids.size()));
  }
  return groups;
}

namespace {

// Reports a lowered memory use to the caller and keeps it for the summary.
void add_notice(NormalBakeRun& run, const NormalBakeCallbacks& callbacks, BakeMemoryNotice n) {
  if (callbacks.low_memory) {
    callbacks.low_memory(n);
  }
  run.memory.notices.push_back(std::move(n));
}

std::unique_ptr<CpuTracer> build_tracer(const Mesh& high, std::vector<std::uint32_t> groups,
                                        int threads, const NormalBakeCallbacks& callbacks,
                                        NormalBakeRun& run) {
  if (callbacks.phase_started) {
    callbacks.phase_started("bvh");
  }
  const Clock::time_point start = Clock::now();
  std::unique_ptr<CpuTracer> tracer =
      build_cpu_tracer_with_retry(high, std::move(groups), threads, &run.retried_compact);
  if (run.retried_compact) {
    add_notice(run, callbacks, {"bvh", "out_of_memory", 0, 1});
  }
  run.backend = tracer->description();
  run.seconds.bvh = seconds_since(start);
  return tracer;
}

// Bands shrink until their working memory fits beside the tracer and the
// result; smaller bands give the same codes, only more slowly.
std::int32_t plan_band_rows(const NormalBakeSettings& settings, const CpuTracer& tracer,
                            const NormalBakeCallbacks& callbacks, NormalBakeRun& run) {
  const std::uint64_t budget = memory_budget_bytes(settings.memory_budget_mb);
  run.memory.budget_mb = budget / kMiB;
  const std::uint64_t texels =
      static_cast<std::uint64_t>(settings.width) * static_cast<std::uint64_t>(settings.height);
  const BandPlan plan =
      plan_bands(settings.band_samples, settings.width, settings.height, settings.aa, budget,
                 tracer.memory_bytes() + texels * kNormalResultBytesPerTexel);
  if (plan.rows != plan.wanted_rows) {
    add_notice(run, callbacks,
               {"bake", "memory_budget", static_cast<std::uint64_t>(plan.wanted_rows),
                static_cast<std::uint64_t>(plan.rows)});
  }
  run.memory.band_rows = static_cast<std::uint64_t>(plan.rows);
  return plan.rows;
}

// The resolve over every band, then the miss fill, with their times.
void resolve_and_fill(const LowPrep& prep, const Mesh& high, const CpuTracer& tracer,
                      const NormalBakeSettings& settings, const ResolveOptions& options,
                      int threads, const NormalBakeCallbacks& callbacks, NormalBakeRun& run) {
  if (callbacks.phase_started) {
    callbacks.phase_started("bake");
  }
  if (callbacks.tracing_started) {
    callbacks.tracing_started(run.backend);
  }
  const WorkerPool pool(threads);
  ResolveSeconds resolve_seconds;
  try {
    run.result = resolve_normals(prep, high, tracer, settings, options, pool,
                                 callbacks.region_finished, &resolve_seconds);
  } catch (const std::bad_alloc&) {
    throw OutOfMemory(
        "out of memory while baking; a smaller --memory-budget-mb gives smaller bands");
  }
  const Clock::time_point start = Clock::now();
  run.coverage = fill_normal_misses(run.result);
  const double fill_seconds = seconds_since(start);
  run.texels_valid = run.coverage.hits + run.coverage.filled;
  run.seconds.trace = resolve_seconds.total + fill_seconds;
  run.seconds.trace_rays = resolve_seconds.rays;
  run.seconds.trace_wait = resolve_seconds.wait;
  run.seconds.trace_resolve = resolve_seconds.resolve + fill_seconds;
}

}  // namespace

NormalBakeRun bake_normal_map(const Mesh& low, const Mesh& high, const NormalBakeSettings& settings,
                              int threads, const NormalBakeCallbacks& callbacks) {
  NormalBakeRun run;
  run.low_triangles = low.triangles.size();
  run.high_triangles = high.triangles.size();

  const Clock::time_point start = Clock::now();
  check_bake_start(settings);
  NameGroups groups;
  if (settings.match_by_name) {
    groups = match_name_groups(low, high, settings);
    run.unmatched_low_objects = groups.unmatched_low_objects;
  }
  NormalBakeSettings prep_settings = settings;
  prep_settings.threads = threads;
  const LowPrepSettings low_settings = low_prep_settings_of(prep_settings);
  const LowPrep prep = LowPrep::build(low, groups.low_objects, low_settings);
  run.zero_uv_area_triangles = prep.raster().degenerate_count();
  run.corners_without_normal = prep.tangent_normal_fallbacks();
  run.seconds.setup = seconds_since(start);

  const std::unique_ptr<CpuTracer> tracer =
      build_tracer(high, std::move(groups.high_triangles), threads, callbacks, run);
  check_low_prep_use(prep, low_settings, {}, tracer->has_name_groups());

  ResolveOptions options;
  options.distances = ray_distances(high, settings.front, settings.rear, settings.relative_scale);
  run.scale = static_cast<double>(options.distances.scale);
  run.front = options.distances.front;
  run.rear = options.distances.rear;
  options.band_rows = plan_band_rows(settings, *tracer, callbacks, run);
  resolve_and_fill(prep, high, *tracer, prep_settings, options, threads, callbacks, run);
  return run;
}

}  // namespace kv
