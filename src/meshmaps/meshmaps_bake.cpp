#include "meshmaps/meshmaps_bake.h"

#include <algorithm>
#include <memory>
#include <new>

#include "core/error.h"
#include "core/parallel.h"
#include "core/stopwatch.h"
#include "meshmaps/map_evaluator.h"
#include "sampling/band_loop.h"
#include "sampling/ray_setup.h"
#include "trace/cpu_tracer.h"

namespace kv::meshmaps {
namespace {

constexpr std::uint64_t kMiB = 1024 * 1024;

bool any_same_name(const MeshMapsSettings& s) {
  return s.ao.self == SelfOcclusion::same_name || s.bent.self == SelfOcclusion::same_name ||
         s.thickness.self == SelfOcclusion::same_name ||
         s.curvature.self == SelfOcclusion::same_name;
}

std::unique_ptr<CpuTracer> build_tracer(const Mesh& high, std::vector<std::uint32_t> groups,
                                        const MeshMapsEnvironment& env, int threads,
                                        MeshMapsRun& run) {
  const Clock::time_point start = Clock::now();
  std::unique_ptr<CpuTracer> tracer;
  if (env.embree_compact) {
    CpuTracerOptions options;
    options.compact = true;
    tracer = std::make_unique<CpuTracer>(high, std::move(groups), options, threads);
  } else {
    tracer = build_cpu_tracer_with_retry(high, std::move(groups), threads, &run.retried_compact);
  }
  if (run.retried_compact) {
    run.memory.notices.push_back({"bvh", "out_of_memory", 0, 1});
  }
  run.backend = tracer->description();
  run.seconds.bvh = seconds_since(start);
  return tracer;
}

// The lowest point of the high mesh along the up axis.
float lowest(const Mesh& high, std::int32_t axis) {
  float level = 0.0f;
  for (std::size_t i = 0; i < high.positions.size(); ++i) {
    const float v = high.positions[i][static_cast<std::size_t>(axis)];
    level = i == 0 ? v : std::min(level, v);
  }
  return level;
}

EvaluatorSetup evaluator_setup(const Mesh& low, const Mesh& high, const MeshMapsSettings& s,
                               const BakeExtras& extras, const RayDistances& d, float scale,
                               std::vector<std::uint32_t> high_groups) {
  EvaluatorSetup e;
  e.high = &high;
  e.noise = extras.noise;
  e.normal_map = extras.normal_map;
  e.normal_map_shading = extras.normal_map != nullptr && s.low_as_high;
  e.curvature_from_normal_map =
      extras.normal_map != nullptr && s.curvature_method == CurvatureMethod::normal_map;
  e.request = request_of(s);
  e.ao = map_rays(s.ao, scale, 1);
  e.bent = map_rays(s.bent, scale, 2);
  e.thickness = map_rays(s.thickness, scale, 3);
  e.curvature = map_rays(s.curvature, scale, 4);
  e.ao_attenuation = s.ao_attenuation;
  const RaySettings& a = s.ao;
  const RaySettings& b = s.bent;
  // Bent normals cast with the occlusion's settings are the occlusion's own
  // rays, queried the same way, whether or not that map is asked for too.
  const bool same_rays = a.rays == b.rays && a.min == b.min && a.max == b.max &&
                         a.spread == b.spread && a.absolute == b.absolute &&
                         a.distribution == b.distribution && a.self == b.self;
  e.bent_shares_ao = same_rays && e.request.ao && e.request.bent_normals;
  if (same_rays) {
    e.bent.salt = e.ao.salt;
    e.bent_nearest = s.ao_attenuation != Attenuation::none;
  }
  e.ground.on = s.ao_ground_plane;
  e.ground.axis = s.world_normal_up;
  e.ground.level =
      lowest(high, s.world_normal_up) - s.ao_ground_offset * (s.ao.absolute ? 1.0f : scale);
  e.front = d.front;
  e.neutral_height = s.low_as_high;
  if (any_same_name(s)) {
    e.high_groups = std::move(high_groups);
  }
  if (e.request.id) {
    e.ids = triangle_ids(high, s.id_source, s.id_generator, s.id_seed);
  }
  e.world_up = s.world_normal_up;
  e.position = position_scale(low, s.position_mode, s.position_normalization);
  e.directx = s.bake.normal_format == 1;
  return e;
}

// Every sub-sample casts its secondary rays, so a band of the Normal bake's
// size can hold the whole bake. At least this many bands keep a cancel (or
// a release) waiting for a small part of the bake, and progress coming; the
// maps do not depend on the band size.
constexpr std::int32_t kMinBands = 16;

std::int32_t plan_band_rows(const MeshMapsSettings& s, std::uint64_t tracer_bytes,
                            const MapRequest& request, MeshMapsRun& run) {
  const std::uint64_t budget = memory_budget_bytes(s.bake.memory_budget_mb);
  run.memory.budget_mb = budget / kMiB;
  const std::uint64_t texels =
      static_cast<std::uint64_t>(s.bake.width) * static_cast<std::uint64_t>(s.bake.height);
  const std::uint64_t band_samples = band_samples_for_bands(s.bake.band_samples, s.bake.width,
                                                            s.bake.height, s.bake.aa, kMinBands);
  const BandPlan plan = plan_bands(band_samples, s.bake.width, s.bake.height, s.bake.aa, budget,
                                   tracer_bytes + texels * buffer_bytes_per_texel(request));
  if (plan.rows != plan.wanted_rows) {
    run.memory.notices.push_back({"bake", "memory_budget",
                                  static_cast<std::uint64_t>(plan.wanted_rows),
                                  static_cast<std::uint64_t>(plan.rows)});
  }
  run.memory.band_rows = static_cast<std::uint64_t>(plan.rows);
  return plan.rows;
}

}  // namespace

MapRequest request_of(const MeshMapsSettings& s) {
  const MapOutputs& o = s.out;
  const bool raw = !o.raw.empty();
  MapRequest r;
  r.opacity = !o.opacity.empty();
  r.ao = raw || !o.ao.empty();
  r.thickness = raw || !o.thickness.empty();
  r.curvature = raw || !o.curvature.empty();
  r.height = raw || !o.height.empty();
  r.world_normal = !o.world_normal.empty();
  r.position = !o.position.empty();
  r.id = !o.id.empty();
  r.bent_normals = !o.bent_normals.empty();
  return r;
}

namespace {

// What a bake sets up before any ray: the checks, the name groups, the
// LowPrep, the distances and the evaluator's inputs.
struct Prepared {
  LowPrep prep;
  LowPrepSettings low_settings;
  RayDistances distances;
  EvaluatorSetup setup;
  std::vector<std::uint32_t> high_groups;
};

Prepared prepare(const Mesh& low, const Mesh& high, const MeshMapsSettings& s,
                 const BakeExtras& extras, int threads, MeshMapsRun& run) {
  run.low_triangles = low.triangles.size();
  run.high_triangles = high.triangles.size();
  const Clock::time_point start = Clock::now();
  check_bake_start(s.bake);
  NameGroups groups;
  if (s.bake.match_by_name || any_same_name(s)) {
    groups = match_name_groups(low, high, s.bake);
    run.unmatched_low_objects = s.bake.match_by_name ? groups.unmatched_low_objects : 0;
  }
  NormalBakeSettings prep_settings = s.bake;
  prep_settings.threads = threads;
  LowPrepSettings low_settings = low_prep_settings_of(prep_settings);
  low_settings.tangent_frames =
      !s.out.bent_normals.empty() || (extras.normal_map != nullptr && s.low_as_high);
  const std::vector<std::uint32_t> no_groups;
  LowPrep prep = LowPrep::build(
      low, s.bake.match_by_name ? std::span(groups.low_objects) : std::span(no_groups),
      low_settings);
  const RayDistances d = ray_distances(high, s.bake.front, s.bake.rear, s.bake.relative_scale);
  run.scale = d.scale;
  run.front = d.front;
  run.rear = d.rear;
  const double extent = mesh_extent(high);
  run.extent = extent > 0.0 ? static_cast<float>(extent) : 1.0f;
  EvaluatorSetup setup =
      evaluator_setup(low, high, s, extras, d, run.extent, groups.high_triangles);
  run.seconds.setup = seconds_since(start);
  return {std::move(prep), std::move(low_settings), d, std::move(setup),
          std::move(groups.high_triangles)};
}

void bake_prepared(const Prepared& p, const Tracer& tracer, std::uint64_t tracer_bytes,
                   const MeshMapsSettings& s, int threads, const BandDone& band_done,
                   MeshMapsRun& run) {
  if (any_same_name(s) && !tracer.has_name_groups()) {
    throw Error("meshmaps: name filters require tracer name groups");
  }
  check_low_prep_use(p.prep, p.low_settings, {}, tracer.has_name_groups());
  BandLoopSettings loop;
  loop.band_rows = plan_band_rows(s, tracer_bytes, p.setup.request, run);
  loop.distances = p.distances;
  loop.ignore_backface = s.bake.ignore_backface;
  const WorkerPool pool(threads);
  try {
    run.buffers = make_buffers(s.bake.width, s.bake.height, p.setup.request);
  } catch (const std::bad_alloc&) {
    throw OutOfMemory("the maps of " + std::to_string(s.bake.width) + " x " +
                      std::to_string(s.bake.height) + " texels do not fit in memory");
  }
  try {
    MeshMapsEvaluator evaluator(p.prep, tracer, p.setup, run.buffers);
    BandLoopSeconds seconds;
    const BandLoopCounters k =
        run_band_loop(p.prep, tracer, loop, evaluator, pool, band_done, &seconds);
    run.buffers.counters.samples_covered = k.samples_covered;
    run.buffers.counters.rays = k.rays;
    run.seconds.bake = seconds.total;
    run.seconds.rays = seconds.rays;
  } catch (const std::bad_alloc&) {
    throw OutOfMemory("while baking; a smaller --memory-budget-mb gives smaller bands");
  }
}

}  // namespace

std::vector<std::uint32_t> high_name_groups(const Mesh& low, const Mesh& high,
                                            const MeshMapsSettings& s) {
  if (!s.bake.match_by_name && !any_same_name(s)) {
    return {};
  }
  return match_name_groups(low, high, s.bake).high_triangles;
}

MeshMapsRun bake_mesh_maps(const Mesh& low, const Mesh& high, const MeshMapsSettings& s,
                           const MeshMapsEnvironment& env, const BakeExtras& extras, int threads,
                           const BandDone& band_done) {
  MeshMapsRun run;
  Prepared p = prepare(low, high, s, extras, threads, run);
  const std::unique_ptr<CpuTracer> tracer =
      build_tracer(high, std::move(p.high_groups), env, threads, run);
  bake_prepared(p, *tracer, tracer->memory_bytes(), s, threads, band_done, run);
  return run;
}

MeshMapsRun bake_mesh_maps_on(const Mesh& low, const Mesh& high, const MeshMapsSettings& s,
                              const BakeExtras& extras, const Tracer& tracer,
                              std::uint64_t tracer_bytes, int threads) {
  MeshMapsRun run;
  const Prepared p = prepare(low, high, s, extras, threads, run);
  run.backend = tracer.description();
  bake_prepared(p, tracer, tracer_bytes, s, threads, {}, run);
  return run;
}

}  // namespace kv::meshmaps
