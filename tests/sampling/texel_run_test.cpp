// The texel runs the ray-free loop hands over at anti-aliasing 1 against the
// records it hands over otherwise: the same raster hit for every texel, each
// texel once, runs in row order, on any thread count and band size.
#include <gtest/gtest.h>

#include <bit>
#include <cstdint>
#include <mutex>
#include <vector>

#include "core/fnv1a.h"
#include "normal/normal_bake.h"
#include "sampling/band_loop.h"
#include "support/bake_test_meshes.h"
#include "trace/cpu_tracer.h"

namespace kv {
namespace {

std::uint64_t hit_digest(std::int32_t triangle, double b1, double b2) {
  std::uint64_t h = kFnv1aOffset;
  const auto mix = [&h](std::uint64_t v) { h = (h ^ v) * kFnv1aPrime; };
  mix(static_cast<std::uint32_t>(triangle));
  mix(std::bit_cast<std::uint64_t>(b1));
  mix(std::bit_cast<std::uint64_t>(b2));
  return h;
}

// Keeps a digest of each texel's hit, from records or from runs, and checks
// that runs come in row order within their chunk and chunks in row order.
class HitEvaluator final : public TexelEvaluator {
 public:
  HitEvaluator(std::int32_t width, std::int32_t height, bool takes_runs)
      : width_(width),
        takes_runs_(takes_runs),
        digests_(static_cast<std::size_t>(width) * height) {}

  bool takes_texel_runs() const override { return takes_runs_; }

  void begin_band(std::uint64_t chunks) override {
    next_.assign(static_cast<std::size_t>(chunks), Next{-1, 0});
    first_row_.assign(static_cast<std::size_t>(chunks), -1);
  }

  void evaluate(std::uint64_t chunk, const SampleRows& rows) override {
    {
      const std::lock_guard guard(mutex_);
      ++record_calls;
      first_row_[chunk] = rows.y_begin;
      next_[chunk] = Next{rows.y_end, 0};
    }
    for (std::int32_t y = rows.y_begin; y < rows.y_end; ++y) {
      for (std::int32_t x = 0; x < rows.width; ++x) {
        const SubSample* texel = rows.texel(x, y);
        for (std::size_t s = 0; s < rows.texel_samples(); ++s) {
          mark(x, y, hit_digest(texel[s].triangle, texel[s].b1, texel[s].b2));
        }
      }
    }
  }

  void evaluate_run(std::uint64_t chunk, const TexelRun& run) override {
    {
      const std::lock_guard guard(mutex_);
      ++run_calls;
      Next& next = next_[chunk];
      if (first_row_[chunk] < 0) {
        first_row_[chunk] = run.y;
        next = Next{run.y, 0};
      }
      // Each run carries on where the chunk's last one ended.
      const bool same_row = run.y == next.y && run.x_begin == next.x;
      const bool next_row = next.x == width_ && run.y == next.y + 1 && run.x_begin == 0;
      EXPECT_TRUE(same_row || next_row) << "run at " << run.x_begin << "," << run.y;
      EXPECT_GT(run.count, 0);
      EXPECT_LE(run.x_begin + run.count, width_);
      next = Next{run.y, run.x_begin + run.count};
    }
    for (std::int32_t i = 0; i < run.count; ++i) {
      const RasterHit& hit = run.hits[i];
      mark(run.x_begin + i, run.y, hit_digest(hit.triangle, hit.b1, hit.b2));
    }
  }

  void end_band() override {
    // The chunks hold consecutive rows in chunk order, each run to its end.
    for (std::size_t c = 0; c < next_.size(); ++c) {
      EXPECT_EQ(first_row_[c], rows_done_) << "chunk " << c;
      rows_done_ = next_[c].x == width_ ? next_[c].y + 1 : next_[c].y;
    }
  }

  std::vector<std::uint64_t> digests() const { return digests_; }
  std::int32_t rows_done() const { return rows_done_; }
  int record_calls = 0;
  int run_calls = 0;

 private:
  struct Next {
    std::int32_t y;
    std::int32_t x;
  };

  void mark(std::int32_t x, std::int32_t y, std::uint64_t digest) {
    std::uint64_t& slot = digests_[static_cast<std::size_t>(y) * width_ + x];
    slot = slot * kFnv1aPrime + digest;  // a texel seen twice changes its digest
  }

  std::int32_t width_;
  bool takes_runs_;
  std::vector<std::uint64_t> digests_;
  std::mutex mutex_;
  std::vector<Next> next_;
  std::vector<std::int32_t> first_row_;
  std::int32_t rows_done_ = 0;
};

// A UV sphere (a seam down its UVs, uncovered texels at the poles) with a
// plane whose UVs lie over part of it.
Mesh seams_stacks_and_gaps() {
  Mesh mesh = test::uv_sphere(24, 12, 1.0f, 0.0f);
  test::PlaneSpec plane;
  plane.z = 3.0f;
  plane.u0 = 0.2;
  plane.v0 = 0.3;
  plane.u1 = 0.65;
  plane.v1 = 0.7;
  test::add_plane(mesh, plane);
  return mesh;
}

struct Outcome {
  std::vector<std::uint64_t> digests;
  std::vector<std::uint64_t> counters;
  int record_calls = 0;
  int run_calls = 0;
};

Outcome run(const LowPrep& prep, int threads, std::int32_t band_rows, bool runs) {
  BandLoopSettings settings;
  settings.band_rows = band_rows;
  settings.texel_runs = runs;
  HitEvaluator evaluator(prep.settings().width, prep.settings().height, true);
  const BandLoopCounters k = run_band_loop(prep, settings, evaluator, WorkerPool(threads));
  EXPECT_EQ(evaluator.rows_done(), prep.settings().height);
  return {evaluator.digests(),
          {k.samples_covered, k.rays, k.invalid_ray_normals, k.stacked_skipped},
          evaluator.record_calls,
          evaluator.run_calls};
}

TEST(TexelRuns, SameHitsAsTheRecordsOnAnyThreadCountAndBandSize) {
  const Mesh mesh = seams_stacks_and_gaps();
  NormalBakeSettings bake;
  bake.width = 300;  // runs of 128, 128 and 44 texels; 54 rows per chunk
  bake.height = 120;
  bake.aa = 1;
  const LowPrep prep = LowPrep::build(mesh, {}, low_prep_settings_of(bake));
  const Outcome records = run(prep, 1, 120, false);
  EXPECT_EQ(records.run_calls, 0);
  // Covered, uncovered and stacked texels all occur.
  EXPECT_GT(records.counters[0], 300u * 120 / 2);
  EXPECT_LT(records.counters[0], 300u * 120);
  EXPECT_GT(records.counters[3], 1000u);
  for (const int threads : {1, 2}) {
    for (const std::int32_t band : {1, 7, 120}) {
      const Outcome runs = run(prep, threads, band, true);
      EXPECT_EQ(runs.record_calls, 0);
      EXPECT_EQ(runs.run_calls, 120 * 3);
      EXPECT_EQ(runs.digests, records.digests) << threads << " threads, bands of " << band;
      EXPECT_EQ(runs.counters, records.counters) << threads << " threads, bands of " << band;
    }
  }
}

TEST(TexelRuns, OnlyWithoutRaysAtAntiAliasingOne) {
  const Mesh mesh = seams_stacks_and_gaps();
  NormalBakeSettings bake;
  bake.width = 40;
  bake.height = 24;
  bake.aa = 2;
  const LowPrep at_two = LowPrep::build(mesh, {}, low_prep_settings_of(bake));
  const Outcome two = run(at_two, 2, 5, true);
  EXPECT_EQ(two.run_calls, 0);
  EXPECT_EQ(two.record_calls, 5);  // one chunk in each of five bands

  // A map that takes runs gets records when rays are cast.
  bake.aa = 1;
  const LowPrep at_one = LowPrep::build(mesh, {}, low_prep_settings_of(bake));
  const CpuTracer tracer(mesh, {}, CpuTracerOptions{}, 1);
  HitEvaluator evaluator(40, 24, true);
  BandLoopSettings settings;
  settings.band_rows = 24;
  settings.distances = ray_distances(mesh, 0.05f, 0.05f, false);
  (void)run_band_loop(at_one, tracer, settings, evaluator, WorkerPool(1));
  EXPECT_EQ(evaluator.run_calls, 0);
  EXPECT_EQ(evaluator.record_calls, 1);
  EXPECT_EQ(evaluator.digests(), run(at_one, 1, 24, true).digests);

  // A map that takes no runs is never handed one.
  HitEvaluator records_only(40, 24, false);
  (void)run_band_loop(at_one, BandLoopSettings{}, records_only, WorkerPool(2));
  EXPECT_EQ(records_only.run_calls, 0);
  EXPECT_EQ(records_only.digests(), evaluator.digests());
}

}  // namespace
}  // namespace kv
