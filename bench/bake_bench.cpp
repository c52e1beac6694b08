// The whole Normal bake of the standard scene at anti-aliasing 1 and 4,
// beside the limit it is measured against: the same rays cast through a plain
// Embree closest-hit loop (no filter, same scene flags, same thread count) in
// the same run. Prints the bake's phase times and the ratios.
//
//   bake_bench [--threads N] [--size S] [--aa A (0: both 1 and 4)]
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bake/embree_api.h"
#include "bake/low_prep.h"
#include "bake/normal_bake.h"
#include "bake/ray_setup.h"
#include "core/parallel.h"
#include "platform/platform.h"
#include "scene/standard_scene.h"

namespace {

using Clock = std::chrono::steady_clock;

double seconds_since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// Embree alone: closest hit, no filter, the tracer's scene flags.
class PlainEmbree {
 public:
  PlainEmbree(const kv::Mesh& mesh, int threads) {
    const std::string config = "threads=" + std::to_string(threads);
    device_ = kv::embree::new_device(config.c_str());
    scene_ = kv::embree::new_scene(device_, {});
    auto geometry = kv::embree::new_triangle_geometry(device_);
    float* vertices = kv::embree::new_vertex_buffer(geometry, mesh.positions.size());
    std::uint32_t* indices = kv::embree::new_index_buffer(geometry, mesh.triangles.size());
    if (vertices == nullptr || indices == nullptr) {
      std::fprintf(stderr, "bake_bench: Embree buffers could not be allocated\n");
      std::exit(1);
    }
    std::memcpy(vertices, mesh.positions.data(), mesh.positions.size() * 12);
    for (std::size_t i = 0; i < mesh.triangles.size(); ++i) {
      for (std::size_t k = 0; k < 3; ++k) {
        indices[3 * i + k] = mesh.triangles[i].corners[k].position;
      }
    }
    kv::embree::commit_geometry(geometry);
    kv::embree::attach_geometry(scene_, geometry);
    kv::embree::release_geometry(geometry);
    kv::embree::commit_scene(scene_);
  }
  ~PlainEmbree() {
    kv::embree::release_scene(scene_);
    kv::embree::release_device(device_);
  }
  PlainEmbree(const PlainEmbree&) = delete;
  PlainEmbree& operator=(const PlainEmbree&) = delete;

  // Traces the queries in tasks of 1024 like the tracer; returns the hits.
  std::uint64_t trace(const std::vector<kv::RayQuery>& queries, const kv::WorkerPool& pool) const {
    std::vector<std::uint64_t> hits = pool.map_chunks<std::uint64_t>(
        queries.size(), 1024, [&](std::uint64_t begin, std::uint64_t end) {
          std::uint64_t n = 0;
          for (std::uint64_t i = begin; i < end; ++i) {
            const kv::RayQuery& q = queries[i];
            RTCRayHit ray = kv::embree::make_ray(q.origin.data(), q.direction.data(), q.t_max);
            kv::embree::intersect1(scene_, &ray);
            n += ray.hit.geomID != kv::embree::kInvalidId ? 1 : 0;
          }
          return n;
        });
    std::uint64_t total = 0;
    for (const std::uint64_t n : hits) {
      total += n;
    }
    return total;
  }

 private:
  kv::embree::Device device_ = nullptr;
  kv::embree::Scene scene_ = nullptr;
};

int int_option(int argc, char** argv, const char* name, int fallback) {
  for (int i = 1; i + 1 < argc; ++i) {
    if (std::strcmp(argv[i], name) == 0) {
      return std::atoi(argv[i + 1]);
    }
  }
  return fallback;
}

struct PlainRun {
  std::uint64_t rays = 0;
  std::uint64_t hits = 0;
  double seconds = 0.0;  // tracing only, not the query building
};

// The bake's own rays, band by band (so they never all sit in memory), each
// band traced by the plain loop.
PlainRun plain_trace(const kv::Mesh& low, const kv::Mesh& high,
                     const kv::NormalBakeSettings& settings, const PlainEmbree& plain,
                     const kv::WorkerPool& pool) {
  const kv::LowPrep prep = kv::LowPrep::build(low, {}, settings);
  kv::RaySetup setup;
  setup.low = &low;
  setup.averaged_normals = prep.averaged_normals();
  setup.distances = kv::ray_distances(high, settings.front, settings.rear, settings.relative_scale);
  setup.ignore_backface = settings.ignore_backface;
  const std::int32_t aa = settings.aa;
  const std::int64_t sample_width = static_cast<std::int64_t>(settings.width) * aa;
  const std::int64_t sample_height = static_cast<std::int64_t>(settings.height) * aa;
  const std::int64_t band = std::max<std::int64_t>(1, 1048576 / sample_width);
  PlainRun run;
  std::vector<kv::RayQuery> queries;
  for (std::int64_t y0 = 0; y0 < sample_height; y0 += band) {
    const std::int64_t y1 = std::min(sample_height, y0 + band);
    queries.clear();
    for (std::int64_t sy = y0; sy < y1; ++sy) {
      for (std::int64_t sx = 0; sx < sample_width; ++sx) {
        const kv::RasterHit hit = prep.raster().lookup(sx, sy, aa);
        kv::RayQuery q;
        if (hit.triangle >= 0 &&
            kv::build_ray_query(setup, static_cast<std::uint32_t>(hit.triangle), hit.b1, hit.b2,
                                q)) {
          queries.push_back(q);
        }
      }
    }
    const Clock::time_point start = Clock::now();
    run.hits += plain.trace(queries, pool);
    run.seconds += seconds_since(start);
    run.rays += queries.size();
  }
  return run;
}

}  // namespace

int main(int argc, char** argv) {
  const int threads = int_option(argc, argv, "--threads", kv::platform::hardware_thread_count());
  const int size = int_option(argc, argv, "--size", 2048);
  const int aa_option = int_option(argc, argv, "--aa", 0);

  Clock::time_point start = Clock::now();
  const kv::bench::StandardScene scene = kv::bench::make_standard_scene();
  std::printf("scene: %zu high triangles, %zu low triangles, %dx%d, %d threads, %.2f s\n",
              scene.high.triangles.size(), scene.low.triangles.size(), size, size, threads,
              seconds_since(start));

  start = Clock::now();
  const PlainEmbree plain(scene.high, threads);
  std::printf("plain Embree build: %.3f s\n", seconds_since(start));
  const kv::WorkerPool pool(threads);

  std::vector<int> aas = {1, 4};
  if (aa_option > 0) {
    aas = {aa_option};
  }
  for (const int aa : aas) {
    kv::NormalBakeSettings settings;
    settings.width = size;
    settings.height = size;
    settings.aa = aa;
    start = Clock::now();
    const kv::NormalBakeRun run = kv::bake_normal_map(scene.low, scene.high, settings, threads);
    const double bake_seconds = seconds_since(start);
    const PlainRun limit = plain_trace(scene.low, scene.high, settings, plain, pool);
    const kv::NormalBakeSeconds& s = run.seconds;
    std::printf(
        "aa %d: bake %.3f s (setup %.3f, bvh %.3f, trace %.3f = rays %.3f + resolve %.3f + wait "
        "%.3f), %llu rays, %llu hits, %llu texels valid, %llu filled, %llu stacked\n",
        aa, bake_seconds, s.setup, s.bvh, s.trace, s.trace_rays, s.trace_resolve, s.trace_wait,
        static_cast<unsigned long long>(run.result.counters.rays),
        static_cast<unsigned long long>(run.result.counters.hits),
        static_cast<unsigned long long>(run.texels_valid),
        static_cast<unsigned long long>(run.coverage.filled),
        static_cast<unsigned long long>(run.result.counters.stacked_skipped));
    std::printf("aa %d: plain rtcIntersect1 over the same %llu rays: %.3f s (%llu hits)\n", aa,
                static_cast<unsigned long long>(limit.rays), limit.seconds,
                static_cast<unsigned long long>(limit.hits));
    std::printf("aa %d: ratio trace_batch / plain %.3f, bake trace phase / plain %.3f\n", aa,
                s.trace_rays / limit.seconds, s.trace / limit.seconds);
  }
  return 0;
}
