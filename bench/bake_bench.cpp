// The whole Normal bake of the standard scene at anti-aliasing 1 and 4,
// beside the limit it is measured against: the same rays cast through a plain
// Embree closest-hit loop (no filter, same scene flags, same thread count) in
// the same run. Prints the bake's phase times and the ratios. With
// --shuffled-faces 1 the high mesh's faces are first put in a fixed random
// order; both sides use that mesh.
//
//   bake_bench [--threads N] [--size S] [--aa A (0: both 1 and 4)] [--shuffled-faces 0|1]
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <span>
#include <string>
#include <vector>

#include "common/bench_common.h"
#include "core/parallel.h"
#include "limit/plain_embree.h"
#include "normal/normal_bake.h"
#include "normal/normal_padding.h"
#include "padding/padding.h"
#include "platform/platform.h"
#include "sampling/ray_setup.h"
#include "scene/standard_scene.h"
#include "texel/low_prep.h"
#include "trace/embree_api.h"

using kv::bench::Clock;
using kv::bench::int_option;
using kv::bench::seconds_since;

int main(int argc, char** argv) {
  const int threads = int_option(argc, argv, "--threads", kv::platform::hardware_thread_count());
  const int size = int_option(argc, argv, "--size", 2048);
  const int aa_option = int_option(argc, argv, "--aa", 0);

  Clock::time_point start = Clock::now();
  kv::bench::StandardScene scene = kv::bench::make_standard_scene();
  if (int_option(argc, argv, "--shuffled-faces", 0) != 0) {
    kv::bench::shuffle_faces(scene.high);
  }
  std::printf("scene: %zu high triangles, %zu low triangles, %dx%d, %d threads, %.2f s\n",
              scene.high.triangles.size(), scene.low.triangles.size(), size, size, threads,
              seconds_since(start));

  start = Clock::now();
  const kv::bench::PlainEmbree plain(scene.high, threads);
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
    kv::NormalBakeRun run = kv::bake_normal_map(scene.low, scene.high, settings, threads);
    const double bake_seconds = seconds_since(start);
    // The whole bake pads its Normal map as the command does.
    start = Clock::now();
    kv::ImageView view;
    view.width = settings.width;
    view.height = settings.height;
    view.channels = 3;
    view.type = kv::ComponentType::kU16;
    view.bytes = std::as_writable_bytes(std::span(run.result.normal));
    kv::pad_image(view, run.result.normal_valid, kv::padding_settings_of(settings), threads);
    const double padding_seconds = seconds_since(start);
    const kv::bench::PlainRun limit =
        kv::bench::plain_trace(scene.low, scene.high, settings, plain, pool);
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
    std::printf(
        "aa %d: whole bake (LowPrep, tracer build, trace, resolve, miss fill, padding %.3f s) "
        "%.3f s / plain %.3f (target at most 1.5); Embree build alone / plain %.3f\n",
        aa, padding_seconds, bake_seconds + padding_seconds,
        (bake_seconds + padding_seconds) / limit.seconds, s.bvh / limit.seconds);
  }
  return 0;
}
