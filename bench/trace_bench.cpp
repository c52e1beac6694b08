// Rays of a 2048 x 2048 bake at anti-aliasing 1 over the standard scene,
// traced by the CPU tracer and by a plain Embree closest-hit loop (no filter,
// same scene flags, same thread count) in the same run. Prints both times
// and their ratio, in wall-clock time and in processor time (the latter is
// steadier on a machine shared with other work). With --shuffled-faces 1
// the high mesh's faces are first put in a fixed random order; both sides
// trace that mesh.
//
//   trace_bench [--threads N] [--size S] [--repeats R] [--shuffled-faces 0|1]
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "common/bench_common.h"
#include "core/parallel.h"
#include "limit/plain_embree.h"
#include "platform/platform.h"
#include "scene/standard_scene.h"
#include "trace/cpu_tracer.h"
#include "trace/embree_api.h"

using kv::bench::Clock;
using kv::bench::int_option;
using kv::bench::seconds_since;

namespace {

double cpu_seconds_since(std::clock_t start) {
  return static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC;
}

// Largest side of the high mesh's bounding box, as the bakes scale distances.
float largest_side(const kv::Mesh& mesh) {
  double lo[3] = {1e300, 1e300, 1e300}, hi[3] = {-1e300, -1e300, -1e300};
  for (const auto& p : mesh.positions) {
    for (int k = 0; k < 3; ++k) {
      lo[k] = std::min(lo[k], double{p[k]});
      hi[k] = std::max(hi[k], double{p[k]});
    }
  }
  return static_cast<float>(std::max({hi[0] - lo[0], hi[1] - lo[1], hi[2] - lo[2]}));
}

// One query per texel centre covered by the low sphere's UV layout, cast
// from the low surface along its smooth normal (default window 0.01 each way).
std::vector<kv::RayQuery> bake_queries(const kv::bench::StandardScene& scene,
                                       const kv::bench::StandardSceneOptions& options, int size) {
  const float scale = largest_side(scene.high);
  const float front = 0.01f * scale;
  const float rear = 0.01f * scale;
  std::vector<kv::RayQuery> queries;
  queries.reserve(static_cast<std::size_t>(size) * static_cast<std::size_t>(size));
  for (int y = 0; y < size; ++y) {
    for (int x = 0; x < size; ++x) {
      const double u = (x + 0.5) / size;
      const double v = 1.0 - (y + 0.5) / size;
      const auto point =
          kv::bench::uv_sphere_point(scene.low, options.segments, options.rings, u, v);
      if (!point.valid) {
        continue;
      }
      kv::RayQuery q;
      for (int k = 0; k < 3; ++k) {
        q.surface_point[k] = point.position[k];
        q.surface_normal[k] = point.normal[k];
        q.origin[k] = point.position[k] + point.normal[k] * front;
        q.direction[k] = -point.normal[k];
      }
      q.front = front;
      q.rear = rear;
      q.t_max = rear + front;
      q.group = -1;
      q.ignore_backface = 1;
      queries.push_back(q);
    }
  }
  return queries;
}

// The limit we compare against: plain Embree, closest hit, no filter.
void plain_hits(const kv::bench::PlainEmbree& plain, const std::vector<kv::RayQuery>& queries,
                std::vector<kv::RayHit>& hits, const kv::WorkerPool& pool) {
  pool.for_chunks(queries.size(), 1024, [&](std::uint64_t, std::uint64_t begin, std::uint64_t end) {
    for (std::uint64_t i = begin; i < end; ++i) {
      const kv::RayQuery& q = queries[i];
      RTCRayHit ray = kv::embree::make_ray(q.origin.data(), q.direction.data(), q.t_max);
      kv::embree::intersect1(plain.scene(), &ray);
      hits[i] = ray.hit.geomID == kv::embree::kInvalidId
                    ? kv::RayHit{}
                    : kv::RayHit{static_cast<std::int32_t>(ray.hit.primID), ray.hit.u, ray.hit.v,
                                 ray.ray.tfar};
    }
  });
}

std::size_t count_hits(const std::vector<kv::RayHit>& hits) {
  return static_cast<std::size_t>(
      std::count_if(hits.begin(), hits.end(), [](const kv::RayHit& h) { return h.triangle >= 0; }));
}

}  // namespace

int main(int argc, char** argv) {
  const int threads = int_option(argc, argv, "--threads", kv::platform::hardware_thread_count());
  const int size = int_option(argc, argv, "--size", 2048);
  const int repeats = std::max(1, int_option(argc, argv, "--repeats", 3));

  auto start = Clock::now();
  const kv::bench::StandardSceneOptions options;
  kv::bench::StandardScene scene = kv::bench::make_standard_scene(options);
  if (int_option(argc, argv, "--shuffled-faces", 0) != 0) {
    kv::bench::shuffle_faces(scene.high);
  }
  const std::vector<kv::RayQuery> queries = bake_queries(scene, options, size);
  std::printf(
      "scene: %zu high triangles, %zu low triangles, %zu rays (%dx%d, aa 1), %d threads, "
      "%.2f s to generate\n",
      scene.high.triangles.size(), scene.low.triangles.size(), queries.size(), size, size, threads,
      seconds_since(start));

  start = Clock::now();
  const kv::CpuTracer tracer(scene.high, {}, {}, threads);
  const double build_ours = seconds_since(start);
  start = Clock::now();
  const kv::bench::PlainEmbree plain(scene.high, threads);
  const double build_plain = seconds_since(start);
  std::printf("build: tracer %.3f s, plain %.3f s (%s)\n", build_ours, build_plain,
              tracer.description().c_str());

  std::vector<kv::RayHit> ours(queries.size()), theirs(queries.size());
  const kv::WorkerPool pool(threads);
  double best_ours = 1e300, best_plain = 1e300, cpu_ours = 1e300, cpu_plain = 1e300;
  for (int r = 0; r < repeats; ++r) {
    start = Clock::now();
    std::clock_t cpu = std::clock();
    tracer.trace_batch(queries.data(), ours.data(), queries.size(), pool);
    best_ours = std::min(best_ours, seconds_since(start));
    cpu_ours = std::min(cpu_ours, cpu_seconds_since(cpu));
    start = Clock::now();
    cpu = std::clock();
    plain_hits(plain, queries, theirs, pool);
    best_plain = std::min(best_plain, seconds_since(start));
    cpu_plain = std::min(cpu_plain, cpu_seconds_since(cpu));
  }
  const double rays = static_cast<double>(queries.size());
  std::printf(
      "trace, wall (best of %d): tracer %.3f s (%.2f Mrays/s, %zu hits), plain "
      "rtcIntersect1 %.3f s (%.2f Mrays/s, %zu hits)\n",
      repeats, best_ours, rays / best_ours / 1e6, count_hits(ours), best_plain,
      rays / best_plain / 1e6, count_hits(theirs));
  std::printf("trace, processor time (best of %d): tracer %.3f s, plain %.3f s\n", repeats,
              cpu_ours, cpu_plain);
  std::printf("ratio tracer / plain: wall %.3f, processor time %.3f\n", best_ours / best_plain,
              cpu_ours / cpu_plain);
  const kv::CpuTraceStatistics stats = tracer.statistics();
  std::printf(
      "tracer counters: filter calls %llu, refines %llu, refine-cache hits %llu, misses "
      "%llu\n",
      static_cast<unsigned long long>(stats.filter_calls),
      static_cast<unsigned long long>(stats.refines),
      static_cast<unsigned long long>(stats.refine_cache_hits),
      static_cast<unsigned long long>(stats.refine_cache_misses));
  return 0;
}
