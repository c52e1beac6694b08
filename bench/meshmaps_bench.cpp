// The mesh maps of the standard scene beside the limits they are measured
// against, in one run:
// - ambient occlusion with 64 rays per sub-sample: the bake's secondary rays
//   against a plain Embree occlusion loop (rtcOccluded1, same scene flags)
//   over the very same rays, and the whole AO bake against the plain
//   primary rays plus that loop (targets: at least 0.8, at most 1.3);
// - every map alone and all nine in one bake (target: all nine at most 1.5
//   times the slowest single map), and that all nine come out the same bit
//   for bit when every secondary ray is cast alone or in coherent packets;
// - the peak memory of an all-maps bake under a budget (target: within it).
// Times of the occlusion loops are summed over the threads on both sides.
//
//   meshmaps_bench [--threads N] [--size S] [--rays R] [--peak-size P (0: skip)] [--budget-mb B]
#include <algorithm>
#include <atomic>
#include <cstdio>
#include <ctime>
#include <string>
#include <vector>

#include "common/bench_common.h"
#include "core/parallel.h"
#include "limit/plain_embree.h"
#include "meshmaps/meshmaps_bake.h"
#include "meshmaps/meshmaps_options.h"
#include "meshmaps/sample_directions.h"
#include "meshmaps/secondary_rays.h"
#include "platform/platform.h"
#include "sampling/band_loop.h"
#include "sampling/ray_setup.h"
#include "scene/standard_scene.h"
#include "texel/low_prep.h"
#include "trace/cpu_tracer.h"
#include "trace/embree_api.h"

using kv::bench::Clock;
using kv::bench::int_option;
using kv::bench::seconds_since;
namespace mm = kv::meshmaps;

namespace {

// The bake's tracer, timing the secondary-ray batches it answers.
class TimedTracer final : public kv::Tracer {
 public:
  explicit TimedTracer(const kv::CpuTracer& inner) : inner_(inner) {}
  std::string description() const override { return inner_.description(); }
  kv::RayHit trace(const kv::RayQuery& q) const override { return inner_.trace(q); }
  kv::RayHit trace_excluding(const kv::RayQuery& q, std::int32_t e) const override {
    return inner_.trace_excluding(q, e);
  }
  bool runs_on_gpu() const override { return false; }
  void trace_batch(const kv::RayQuery* q, kv::RayHit* h, std::uint64_t n,
                   const kv::WorkerPool& pool) const override {
    inner_.trace_batch(q, h, n, pool);
  }
  void trace_fanned_batch(const kv::RayQuery* q, kv::RayHit* h, std::uint64_t n,
                          const kv::WorkerPool& pool) const override {
    inner_.trace_fanned_batch(q, h, n, pool);
  }
  void occluded_batch(const kv::OcclusionQuery* q, std::uint8_t* o, std::uint64_t n,
                      const kv::WorkerPool& pool) const override {
    const Clock::time_point start = Clock::now();
    inner_.occluded_batch(q, o, n, pool);
    occluded_ns_ += static_cast<std::uint64_t>(seconds_since(start) * 1e9);
  }
  bool check_known_hit(const kv::RayQuery& q, kv::RayHit& h) const override {
    return inner_.check_known_hit(q, h);
  }
  bool has_name_groups() const override { return inner_.has_name_groups(); }
  kv::GpuTraceStatistics gpu_statistics() const override { return {0, 0, 0, 0, 0}; }
  double occluded_seconds() const { return static_cast<double>(occluded_ns_.load()) * 1e-9; }
  void reset() { occluded_ns_ = 0; }

 private:
  const kv::CpuTracer& inner_;
  mutable std::atomic<std::uint64_t> occluded_ns_{0};
};

// The bake's tracer as it was before secondary rays ran as fanned packets:
// every nearest-hit batch in coherent packets. The maps it gives must be
// the same bit for bit.
class CoherentTracer final : public kv::Tracer {
 public:
  explicit CoherentTracer(const kv::CpuTracer& inner) : inner_(inner) {}
  std::string description() const override { return inner_.description(); }
  kv::RayHit trace(const kv::RayQuery& q) const override { return inner_.trace(q); }
  bool runs_on_gpu() const override { return false; }
  void trace_batch(const kv::RayQuery* q, kv::RayHit* h, std::uint64_t n,
                   const kv::WorkerPool& pool) const override {
    inner_.trace_batch(q, h, n, pool);
  }
  void occluded_batch(const kv::OcclusionQuery* q, std::uint8_t* o, std::uint64_t n,
                      const kv::WorkerPool& pool) const override {
    for (std::uint64_t i = 0; i < n; ++i) {
      o[i] = inner_.occluded(q[i]) ? 1 : 0;
    }
    (void)pool;
  }
  bool check_known_hit(const kv::RayQuery& q, kv::RayHit& h) const override {
    return inner_.check_known_hit(q, h);
  }
  bool has_name_groups() const override { return inner_.has_name_groups(); }
  kv::GpuTraceStatistics gpu_statistics() const override { return {0, 0, 0, 0, 0}; }

 private:
  const kv::CpuTracer& inner_;
};

bool same_maps(const mm::MeshMapsBuffers& a, const mm::MeshMapsBuffers& b) {
  return a.hit == b.hit && a.opacity == b.opacity && a.ao == b.ao && a.thickness == b.thickness &&
         a.curvature == b.curvature && a.height_map == b.height_map &&
         a.world_normal == b.world_normal && a.position == b.position && a.id == b.id &&
         a.bent_normals == b.bent_normals;
}

// Casts the AO bake's own rays, built the same way from the same primary
// hits, through a plain rtcOccluded1 loop.
class PlainAoEvaluator final : public kv::TexelEvaluator {
 public:
  PlainAoEvaluator(const kv::Mesh& high, const mm::MapRays& ao_rays, kv::embree::Scene scene)
      : high_(high), rays_(ao_rays), scene_(scene) {}
  void begin_band(std::uint64_t) override {}
  void end_band() override {}
  void evaluate(std::uint64_t, const kv::SampleRows& rows) override {
    std::vector<kv::OcclusionQuery> queries;
    std::uint64_t cast = 0;
    std::uint64_t blocked = 0;
    double seconds = 0.0;
    for (std::int32_t y = rows.y_begin; y < rows.y_end; ++y) {
      for (std::int32_t x = 0; x < rows.width; ++x) {
        const kv::SubSample* texel = rows.texel(x, y);
        for (std::uint32_t i = 0; i < rows.texel_samples(); ++i) {
          const kv::SubSample& s = texel[i];
          if (s.triangle < 0 || s.ray < 0 || rows.hits[s.ray].triangle < 0) {
            continue;
          }
          mm::HitSurface surface;
          if (!mm::hit_surface(high_, rows.hits[s.ray], surface)) {
            continue;
          }
          mm::ao_occlusion_queries(rays_, surface, mm::sample_rotation(x, y, i, 1, nullptr),
                                   queries);
          const Clock::time_point start = Clock::now();
          for (const kv::OcclusionQuery& q : queries) {
            blocked += kv::embree::occluded1(scene_, q.origin.data(), q.direction.data(), q.t_near,
                                             q.t_far)
                           ? 1
                           : 0;
          }
          seconds += seconds_since(start);
          cast += queries.size();
        }
      }
    }
    rays += cast;
    occluded += blocked;
    ns += static_cast<std::uint64_t>(seconds * 1e9);
  }
  std::atomic<std::uint64_t> rays{0};
  std::atomic<std::uint64_t> occluded{0};
  std::atomic<std::uint64_t> ns{0};

 private:
  const kv::Mesh& high_;
  const mm::MapRays& rays_;
  kv::embree::Scene scene_;
};

mm::MeshMapsSettings settings_for(int size, const std::vector<std::string>& maps,
                                  const std::vector<std::string>& extra) {
  std::vector<std::string> args = {"korvane", "meshmaps", "--low",  "low",
                                   "--high",  "high",     "--size", std::to_string(size)};
  for (const std::string& map : maps) {
    args.push_back("--out-" + map);
    args.push_back(map + ".exr");
  }
  args.insert(args.end(), extra.begin(), extra.end());
  mm::MeshMapsSettings s = mm::parse_meshmaps_options(args);
  mm::check_meshmaps_settings(s);
  return s;
}

const std::vector<std::string> kMaps = {"opacity",   "ao",     "thickness",
                                        "curvature", "height", "world-normal",
                                        "position",  "id",     "bent-normals"};

void peak_memory(const kv::bench::StandardScene& scene, int size, int budget_mb, int threads) {
  const std::uint64_t before = kv::platform::peak_resident_bytes();
  std::vector<std::string> extra = {"--ao-rays",          "1",
                                    "--bent-rays",        "1",
                                    "--thickness-rays",   "1",
                                    "--curvature-rays",   "1",
                                    "--memory-budget-mb", std::to_string(budget_mb)};
  const mm::MeshMapsSettings s = settings_for(size, kMaps, extra);
  const Clock::time_point start = Clock::now();
  const mm::MeshMapsRun run = mm::bake_mesh_maps(scene.low, scene.high, s, {}, {}, threads);
  const std::uint64_t peak = kv::platform::peak_resident_bytes();
  const double mib = 1024.0 * 1024.0;
  std::printf(
      "all maps %dx%d under --memory-budget-mb %d: %.2f s, band rows %llu, peak resident %.0f "
      "MiB (%.0f MiB before the bake), peak / budget %.3f (target at most 1)\n",
      size, size, budget_mb, seconds_since(start),
      static_cast<unsigned long long>(run.memory.band_rows), static_cast<double>(peak) / mib,
      static_cast<double>(before) / mib, static_cast<double>(peak) / mib / budget_mb);
}

}  // namespace

int main(int argc, char** argv) {
  const int threads = int_option(argc, argv, "--threads", 2);
  const int size = int_option(argc, argv, "--size", 2048);
  const int rays = int_option(argc, argv, "--rays", 64);
  const int peak_size = int_option(argc, argv, "--peak-size", 4096);
  const int budget_mb = int_option(argc, argv, "--budget-mb", 2048);
  std::setvbuf(stdout, nullptr, _IOLBF, 0);  // each figure as soon as it is measured

  Clock::time_point start = Clock::now();
  const kv::bench::StandardScene scene = kv::bench::make_standard_scene();
  std::printf("scene: %zu high triangles, %zu low triangles, %dx%d, %d threads, %.2f s\n",
              scene.high.triangles.size(), scene.low.triangles.size(), size, size, threads,
              seconds_since(start));
  if (peak_size > 0) {
    peak_memory(scene, peak_size, budget_mb, threads);
  }

  const kv::CpuTracer tracer(scene.high, {}, {}, threads);
  TimedTracer timed(tracer);
  const kv::bench::PlainEmbree plain(scene.high, threads);
  const kv::WorkerPool pool(threads);

  // Ambient occlusion: occlusion queries (no attenuation) against the plain loop.
  const mm::MeshMapsSettings ao =
      settings_for(size, {"ao"}, {"--ao-rays", std::to_string(rays), "--ao-attenuation", "none"});
  kv::NormalBakeSettings primary = ao.bake;
  kv::LowPrepSettings low_settings = kv::low_prep_settings_of(primary);
  low_settings.tangent_frames = false;
  const kv::LowPrep prep = kv::LowPrep::build(scene.low, {}, low_settings);
  kv::BandLoopSettings loop;
  loop.band_rows = kv::band_rows_for(primary.band_samples, size, size, 1);
  loop.distances = kv::ray_distances(scene.high, primary.front, primary.rear, true);
  // Best of two rounds on each side, taken in turn.
  double ao_seconds = 0.0;
  double ours = 0.0;
  double plain_occluded = 0.0;
  mm::MeshMapsRun ao_run;
  std::uint64_t plain_rays = 0;
  std::uint64_t plain_blocked = 0;
  for (int round = 0; round < 2; ++round) {
    timed.reset();
    start = Clock::now();
    ao_run =
        mm::bake_mesh_maps_on(scene.low, scene.high, ao, {}, timed, tracer.memory_bytes(), threads);
    const double bake = seconds_since(start);
    ao_seconds = round == 0 ? bake : std::min(ao_seconds, bake);
    ours = round == 0 ? timed.occluded_seconds() : std::min(ours, timed.occluded_seconds());
    const mm::MapRays ao_rays = mm::map_rays(ao.ao, ao_run.extent, 1);
    PlainAoEvaluator limit(scene.high, ao_rays, plain.scene());
    kv::run_band_loop(prep, tracer, loop, limit, pool);
    const double t = static_cast<double>(limit.ns.load()) * 1e-9;
    plain_occluded = round == 0 ? t : std::min(plain_occluded, t);
    plain_rays = limit.rays.load();
    plain_blocked = limit.occluded.load();
  }
  const kv::bench::PlainRun plain_primary =
      kv::bench::plain_trace(scene.low, scene.high, primary, plain, pool);

  std::printf("ao %d rays: bake %.3f s, %llu secondary rays, inside occluded_batch %.3f thread-s\n",
              rays, ao_seconds,
              static_cast<unsigned long long>(ao_run.buffers.counters.secondary_rays), ours);
  std::printf(
      "ao %d rays: plain rtcOccluded1 over the same %llu rays: %.3f thread-s (%llu occluded)\n",
      rays, static_cast<unsigned long long>(plain_rays), plain_occluded,
      static_cast<unsigned long long>(plain_blocked));
  std::printf("ao: secondary-ray throughput / plain loop %.3f (target at least 0.8)\n",
              plain_occluded / ours);
  const double limit_seconds = plain_primary.seconds + plain_occluded / threads;
  std::printf(
      "ao: whole bake %.3f s / (plain primary %.3f s + plain occlusion %.3f s) %.3f (target at "
      "most 1.3)\n",
      ao_seconds, plain_primary.seconds, plain_occluded / threads, ao_seconds / limit_seconds);

  // The default attenuation needs each ray's distance: nearest-hit queries.
  const mm::MeshMapsSettings linear =
      settings_for(size, {"ao"}, {"--ao-rays", std::to_string(rays)});
  start = Clock::now();
  mm::bake_mesh_maps_on(scene.low, scene.high, linear, {}, timed, tracer.memory_bytes(), threads);
  std::printf("ao %d rays, linear attenuation (nearest hits): %.3f s, / no attenuation %.3f\n",
              rays, seconds_since(start), seconds_since(start) / ao_seconds);

  // Every map alone, then all nine at once.
  const std::vector<std::string> ray_counts = {"--ao-rays",        std::to_string(rays),
                                               "--bent-rays",      std::to_string(rays),
                                               "--thickness-rays", std::to_string(rays)};
  double slowest = 0.0;
  std::string slowest_map;
  for (const std::string& map : kMaps) {
    const mm::MeshMapsSettings s = settings_for(size, {map}, ray_counts);
    start = Clock::now();
    mm::bake_mesh_maps_on(scene.low, scene.high, s, {}, tracer, tracer.memory_bytes(), threads);
    const double t = seconds_since(start);
    std::printf("%s alone: %.3f s\n", map.c_str(), t);
    if (t > slowest) {
      slowest = t;
      slowest_map = map;
    }
  }
  // The slowest map again beside all nine, best of two each, so that a
  // change of load on a shared machine falls on both sides alike. Processor
  // seconds (both threads) stand beside the wall seconds: on a machine other
  // programs share, they move less with the load.
  const mm::MeshMapsSettings all = settings_for(size, kMaps, ray_counts);
  const mm::MeshMapsSettings single = settings_for(size, {slowest_map}, ray_counts);
  double all_seconds = 0.0;
  double all_cpu = 0.0;
  double slowest_cpu = 0.0;
  for (int round = 0; round < 2; ++round) {
    for (const bool nine : {true, false}) {
      start = Clock::now();
      const std::clock_t cpu_start = std::clock();
      mm::bake_mesh_maps_on(scene.low, scene.high, nine ? all : single, {}, tracer,
                            tracer.memory_bytes(), threads);
      const double wall = seconds_since(start);
      const double cpu = static_cast<double>(std::clock() - cpu_start) / CLOCKS_PER_SEC;
      double& best_wall = nine ? all_seconds : slowest;
      double& best_cpu = nine ? all_cpu : slowest_cpu;
      best_wall = nine && round == 0 ? wall : std::min(best_wall, wall);
      best_cpu = round == 0 ? cpu : std::min(best_cpu, cpu);
    }
  }
  std::printf("all nine maps: %.3f s / slowest single map (%s, %.3f s) %.3f (target at most 1.5)\n",
              all_seconds, slowest_map.c_str(), slowest, all_seconds / slowest);
  std::printf("all nine maps: %.3f cpu-s / slowest single map %.3f cpu-s %.3f\n", all_cpu,
              slowest_cpu, all_cpu / slowest_cpu);

  // The same maps through single occlusion rays and coherent packets; the
  // occlusion without attenuation too.
  const CoherentTracer coherent(tracer);
  for (const bool attenuated : {true, false}) {
    std::vector<std::string> extra = ray_counts;
    if (!attenuated) {
      extra.insert(extra.end(), {"--ao-attenuation", "none", "--bent-rays", "17"});
    }
    const mm::MeshMapsSettings s = settings_for(size, kMaps, extra);
    const mm::MeshMapsRun fast =
        mm::bake_mesh_maps_on(scene.low, scene.high, s, {}, tracer, tracer.memory_bytes(), threads);
    start = Clock::now();
    const mm::MeshMapsRun before = mm::bake_mesh_maps_on(scene.low, scene.high, s, {}, coherent,
                                                         tracer.memory_bytes(), threads);
    std::printf(
        "all nine maps%s: the same bits through single occlusion rays and coherent packets: %s "
        "(%.3f s that way)\n",
        attenuated ? "" : " (ao without attenuation)",
        same_maps(fast.buffers, before.buffers) ? "yes" : "NO", seconds_since(start));
  }
  return 0;
}
