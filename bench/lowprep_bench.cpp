// Preparing the standard scene's low mesh (LowPrep: mask, UV raster, tangent
// frames, averaged normals, snapped corners, fingerprint) and looking up every
// sub-sample of a 2048 x 2048 bake at anti-aliasing 4, beside a plain Embree
// rtcIntersect1 loop casting as many rays over the standard scene's high mesh,
// in the same run and on the same threads. Prints the times and the ratio.
//
//   lowprep_bench [--threads N] [--size S] [--aa A] [--repeats R]
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "common/bench_common.h"
#include "core/parallel.h"
#include "limit/plain_embree.h"
#include "normal/normal_bake.h"
#include "platform/platform.h"
#include "scene/standard_scene.h"
#include "texel/low_prep.h"
#include "trace/embree_api.h"

namespace {

using kv::bench::Clock;
using kv::bench::seconds_since;

int int_option(int argc, char** argv, const char* name, int fallback) {
  for (int i = 1; i + 1 < argc; ++i) {
    if (std::strcmp(argv[i], name) == 0) {
      return std::atoi(argv[i + 1]);
    }
  }
  return fallback;
}

struct Rays {
  std::vector<std::array<float, 3>> origins;
  std::vector<std::array<float, 3>> directions;
  float t_max = 0.0f;
};

// One ray per covered texel centre, from the low surface inwards along its
// smooth normal over the default window (0.01 of the high mesh's size each way).
Rays texel_rays(const kv::bench::StandardScene& scene,
                const kv::bench::StandardSceneOptions& options, int size) {
  double lo[3] = {1e300, 1e300, 1e300};
  double hi[3] = {-1e300, -1e300, -1e300};
  for (const auto& p : scene.high.positions) {
    for (std::size_t k = 0; k < 3; ++k) {
      lo[k] = std::min(lo[k], double{p[k]});
      hi[k] = std::max(hi[k], double{p[k]});
    }
  }
  const auto scale = static_cast<float>(std::max({hi[0] - lo[0], hi[1] - lo[1], hi[2] - lo[2]}));
  const float front = 0.01f * scale;
  Rays rays;
  rays.t_max = 0.01f * scale + front;
  for (int y = 0; y < size; ++y) {
    for (int x = 0; x < size; ++x) {
      const auto point = kv::bench::uv_sphere_point(scene.low, options.segments, options.rings,
                                                    (x + 0.5) / size, 1.0 - (y + 0.5) / size);
      if (!point.valid) {
        continue;
      }
      std::array<float, 3> o;
      std::array<float, 3> d;
      for (std::size_t k = 0; k < 3; ++k) {
        o[k] = point.position[k] + point.normal[k] * front;
        d[k] = -point.normal[k];
      }
      rays.origins.push_back(o);
      rays.directions.push_back(d);
    }
  }
  return rays;
}

// Casts `count` rays through plain Embree, cycling through the given ones;
// returns the hits.
std::uint64_t plain_cast(const kv::bench::PlainEmbree& plain, const Rays& rays, std::uint64_t count,
                         const kv::WorkerPool& pool) {
  const auto partial =
      pool.map_chunks<std::uint64_t>(count, 16384, [&](std::uint64_t begin, std::uint64_t end) {
        std::uint64_t hits = 0;
        for (std::uint64_t i = begin; i < end; ++i) {
          const std::size_t r = static_cast<std::size_t>(i % rays.origins.size());
          RTCRayHit ray =
              kv::embree::make_ray(rays.origins[r].data(), rays.directions[r].data(), rays.t_max);
          kv::embree::intersect1(plain.scene(), &ray);
          hits += ray.hit.geomID == kv::embree::kInvalidId ? 0 : 1;
        }
        return hits;
      });
  std::uint64_t total = 0;
  for (const std::uint64_t h : partial) {
    total += h;
  }
  return total;
}

struct LookupTotals {
  std::uint64_t covered = 0;
  double weight_sum = 0.0;  // keeps the lookups' results alive
};

// Every sub-sample of the image, in bands of 32 sample rows.
LookupTotals lookup_all(const kv::UvRaster& raster, int size, int aa, const kv::WorkerPool& pool) {
  const std::uint64_t rows = static_cast<std::uint64_t>(size) * static_cast<std::uint64_t>(aa);
  const auto partial =
      pool.map_chunks<LookupTotals>(rows, 32, [&](std::uint64_t begin, std::uint64_t end) {
        LookupTotals t;
        for (std::uint64_t sy = begin; sy < end; ++sy) {
          for (std::uint64_t sx = 0; sx < rows; ++sx) {
            const kv::RasterHit hit =
                raster.lookup(static_cast<std::int64_t>(sx), static_cast<std::int64_t>(sy), aa);
            if (hit.triangle >= 0) {
              ++t.covered;
              t.weight_sum += hit.b1;
            }
          }
        }
        return t;
      });
  LookupTotals total;
  for (const LookupTotals& t : partial) {
    total.covered += t.covered;
    total.weight_sum += t.weight_sum;
  }
  return total;
}

}  // namespace

int main(int argc, char** argv) {
  const int threads = int_option(argc, argv, "--threads", kv::platform::hardware_thread_count());
  const int size = int_option(argc, argv, "--size", 2048);
  const int aa = int_option(argc, argv, "--aa", 4);
  const int repeats = std::max(1, int_option(argc, argv, "--repeats", 1));

  auto start = Clock::now();
  const kv::bench::StandardSceneOptions options;
  const kv::bench::StandardScene scene = kv::bench::make_standard_scene(options);
  const Rays rays = texel_rays(scene, options, size);
  std::printf("scene: %zu high triangles, %zu low triangles, %dx%d aa %d, %d threads, %.2f s\n",
              scene.high.triangles.size(), scene.low.triangles.size(), size, size, aa, threads,
              seconds_since(start));

  kv::NormalBakeSettings settings;
  settings.width = size;
  settings.height = size;
  settings.aa = aa;
  settings.threads = threads;
  const kv::WorkerPool pool(threads);
  const kv::bench::PlainEmbree plain(scene.high, threads);
  const std::uint64_t samples = static_cast<std::uint64_t>(size) * static_cast<std::uint64_t>(aa) *
                                static_cast<std::uint64_t>(size) * static_cast<std::uint64_t>(aa);

  double best_build = 1e300;
  double best_lookup = 1e300;
  double best_embree = 1e300;
  LookupTotals totals;
  std::uint64_t hits = 0;
  std::uint64_t fingerprint = 0;
  for (int r = 0; r < repeats; ++r) {
    start = Clock::now();
    const kv::LowPrep prep = kv::LowPrep::build(scene.low, {}, low_prep_settings_of(settings));
    best_build = std::min(best_build, seconds_since(start));
    fingerprint = prep.fingerprint();
    start = Clock::now();
    totals = lookup_all(prep.raster(), size, aa, pool);
    best_lookup = std::min(best_lookup, seconds_since(start));
    start = Clock::now();
    hits = plain_cast(plain, rays, samples, pool);
    best_embree = std::min(best_embree, seconds_since(start));
  }
  std::printf("LowPrep build: %.3f s (fingerprint %016llx)\n", best_build,
              static_cast<unsigned long long>(fingerprint));
  std::printf("lookups: %llu sub-samples, %llu covered, %.3f s (%.1f M/s)\n",
              static_cast<unsigned long long>(samples),
              static_cast<unsigned long long>(totals.covered), best_lookup,
              static_cast<double>(samples) / best_lookup / 1e6);
  std::printf("plain rtcIntersect1: %llu rays, %llu hits, %.3f s (%.2f Mrays/s)\n",
              static_cast<unsigned long long>(samples), static_cast<unsigned long long>(hits),
              best_embree, static_cast<double>(samples) / best_embree / 1e6);
  std::printf("ratio (build + lookups) / plain: %.3f (target 0.10), lookups alone: %.3f\n",
              (best_build + best_lookup) / best_embree, best_lookup / best_embree);
  return totals.weight_sum < 0 ? 1 : 0;
}
