#include "sampling/band_loop.h"

#include <gtest/gtest.h>

#include <atomic>
#include <bit>
#include <cstdint>
#include <mutex>
#include <tuple>
#include <vector>

#include "core/error.h"
#include "core/fnv1a.h"
#include "normal/normal_bake.h"
#include "support/bake_test_meshes.h"
#include "trace/cpu_tracer.h"

namespace kv {
namespace {

// Keeps, per texel, a digest of everything the loop handed over for it (each
// sub-sample's triangle, barycentrics, ray and hit, in order), and records
// the calls so their order can be checked.
class RecordingEvaluator final : public TexelEvaluator {
 public:
  RecordingEvaluator(std::int32_t width, std::int32_t height)
      : width_(width), digests_(static_cast<std::size_t>(width) * height, 0) {}

  void begin_band(std::uint64_t chunks) override {
    EXPECT_FALSE(in_band_) << "bands do not nest";
    in_band_ = true;
    seen_.assign(static_cast<std::size_t>(chunks), Rows{-1, -1});
  }

  void evaluate(std::uint64_t chunk, const SampleRows& rows) override {
    {
      const std::lock_guard guard(mutex_);
      EXPECT_TRUE(in_band_);
      ASSERT_LT(chunk, seen_.size());
      EXPECT_EQ(seen_[chunk].first, -1) << "chunk " << chunk << " evaluated twice";
      seen_[chunk] = {rows.y_begin, rows.y_end};
    }
    for (std::int32_t y = rows.y_begin; y < rows.y_end; ++y) {
      for (std::int32_t x = 0; x < rows.width; ++x) {
        digests_[static_cast<std::size_t>(y) * width_ + x] = digest(rows, rows.texel(x, y));
      }
    }
  }

  void end_band() override {
    EXPECT_TRUE(in_band_);
    in_band_ = false;
    // The chunks of a band are consecutive runs of rows in chunk order.
    for (std::size_t c = 0; c < seen_.size(); ++c) {
      EXPECT_LT(seen_[c].first, seen_[c].second) << "chunk " << c << " never evaluated";
      EXPECT_EQ(seen_[c].first, next_row_) << "chunk " << c;
      next_row_ = seen_[c].second;
    }
    chunks_per_band.push_back(seen_.size());
  }

  std::vector<std::uint64_t> digests() const { return digests_; }
  std::int32_t rows_done() const { return next_row_; }
  std::vector<std::size_t> chunks_per_band;

 private:
  using Rows = std::pair<std::int32_t, std::int32_t>;

  static std::uint64_t digest(const SampleRows& rows, const SubSample* texel) {
    std::uint64_t h = kFnv1aOffset;
    const auto mix = [&h](std::uint64_t v) { h = (h ^ v) * kFnv1aPrime; };
    for (std::size_t s = 0; s < rows.texel_samples(); ++s) {
      const SubSample& sample = texel[s];
      mix(static_cast<std::uint32_t>(sample.triangle));
      mix(std::bit_cast<std::uint64_t>(sample.b1));
      mix(std::bit_cast<std::uint64_t>(sample.b2));
      if (sample.ray < 0) {
        mix(0xFFFF);
        continue;
      }
      EXPECT_LT(static_cast<std::size_t>(sample.ray), rows.hit_count);
      const RayHit& hit = rows.hits[sample.ray];
      mix(static_cast<std::uint32_t>(hit.triangle));
      mix(std::bit_cast<std::uint32_t>(hit.u));
      mix(std::bit_cast<std::uint32_t>(hit.v));
      mix(std::bit_cast<std::uint32_t>(hit.t));
    }
    return h;
  }

  std::int32_t width_;
  std::vector<std::uint64_t> digests_;
  std::mutex mutex_;
  std::vector<Rows> seen_;
  bool in_band_ = false;
  std::int32_t next_row_ = 0;
};

// Forwards to the CPU tracer but asks for whole bands, as a GPU would.
class WholeBandTracer final : public Tracer {
 public:
  explicit WholeBandTracer(const Tracer& inner) : inner_(inner) {}
  std::string description() const override { return "whole bands"; }
  RayHit trace(const RayQuery& query) const override { return inner_.trace(query); }
  bool runs_on_gpu() const override { return true; }
  void trace_batch(const RayQuery* queries, RayHit* hits, std::uint64_t count,
                   const WorkerPool& pool) const override {
    ++batches;
    inner_.trace_batch(queries, hits, count, pool);
  }
  bool check_known_hit(const RayQuery& query, RayHit& hit) const override {
    return inner_.check_known_hit(query, hit);
  }
  bool has_name_groups() const override { return inner_.has_name_groups(); }
  GpuTraceStatistics gpu_statistics() const override { return {}; }
  mutable int batches = 0;

 private:
  const Tracer& inner_;
};

struct Scene {
  Mesh low = test::uv_sphere(24, 12, 1.0f, 0.0f);
  Mesh high = test::uv_sphere(96, 48, 1.0f, 0.01f);
  NormalBakeSettings settings;
  Scene() {
    settings.width = 40;  // at anti-aliasing 4, 25 rows per chunk
    settings.height = 64;
    settings.aa = 4;
    settings.front = settings.rear = 0.05f;
    settings.relative_scale = false;
  }
};

struct Outcome {
  std::vector<std::uint64_t> digests;
  std::vector<std::size_t> chunks_per_band;
  std::vector<std::int32_t> band_starts;
  BandLoopCounters counters;
};

Outcome run(const Scene& scene, int threads, std::int32_t band_rows, bool whole_bands = false) {
  const LowPrep prep = LowPrep::build(scene.low, {}, low_prep_settings_of(scene.settings));
  const CpuTracer cpu(scene.high, {}, CpuTracerOptions{}, threads);
  const WholeBandTracer whole(cpu);
  BandLoopSettings settings;
  settings.band_rows = band_rows;
  settings.distances = ray_distances(scene.high, scene.settings.front, scene.settings.rear, false);
  RecordingEvaluator evaluator(scene.settings.width, scene.settings.height);
  Outcome out;
  const auto done = [&](const TexelRegion& r) {
    EXPECT_EQ(std::tie(r.x, r.w), std::tuple(0, scene.settings.width));
    EXPECT_EQ(r.y + r.h, evaluator.rows_done()) << "reported after its rows were joined";
    out.band_starts.push_back(r.y);
  };
  const Tracer& tracer = whole_bands ? static_cast<const Tracer&>(whole) : cpu;
  out.counters = run_band_loop(prep, tracer, settings, evaluator, WorkerPool(threads), done);
  EXPECT_EQ(evaluator.rows_done(), scene.settings.height);
  if (whole_bands) {
    EXPECT_EQ(static_cast<std::size_t>(whole.batches), out.band_starts.size());
  }
  out.digests = evaluator.digests();
  out.chunks_per_band = evaluator.chunks_per_band;
  return out;
}

std::vector<std::uint64_t> counts(const BandLoopCounters& k) {
  return {k.samples_covered, k.rays, k.invalid_ray_normals, k.stacked_skipped};
}

TEST(BandLoop, EveryTexelOnceInOrderTheSameOnAnyThreadCountBandSizeAndTracer) {
  const Scene scene;
  const Outcome reference = run(scene, 1, 64);
  // One band of 64 rows is cut into chunks of 25, 25 and 14 rows.
  EXPECT_EQ(reference.chunks_per_band, (std::vector<std::size_t>{3}));
  EXPECT_EQ(reference.band_starts, (std::vector<std::int32_t>{0}));
  // The poles leave parts of the UV square uncovered; every covered sample
  // casts a ray.
  EXPECT_GT(reference.counters.samples_covered, 40u * 64 * 16 * 8 / 10);
  EXPECT_LT(reference.counters.samples_covered, 40u * 64 * 16);
  EXPECT_EQ(reference.counters.rays, reference.counters.samples_covered);

  const auto same = [&](const Outcome& o, const char* what) {
    EXPECT_EQ(o.digests, reference.digests) << what;
    EXPECT_EQ(counts(o.counters), counts(reference.counters)) << what;
  };
  const Outcome two = run(scene, 2, 64);
  same(two, "two threads");
  const Outcome sevens = run(scene, 2, 7);
  same(sevens, "bands of seven rows");
  EXPECT_EQ(sevens.band_starts, (std::vector<std::int32_t>{0, 7, 14, 21, 28, 35, 42, 49, 56, 63}));
  EXPECT_EQ(sevens.chunks_per_band, std::vector<std::size_t>(10, 1));
  same(run(scene, 1, 1), "bands of one row");
  same(run(scene, 2, 1000), "a band larger than the image");
  same(run(scene, 2, 30, true), "whole bands traced at once");
}

TEST(BandLoop, CountsCoverageStackedSamplesAndRaysWithoutAnAxis) {
  // Two copies of the unit plane on the same UVs: every sample belongs to
  // the first copy and lies strictly inside the second, except the samples
  // on the shared diagonal u = v (x + y = 7 on an 8 x 8 image).
  Scene scene;
  scene.settings.width = scene.settings.height = 8;
  scene.settings.aa = 1;
  scene.settings.average_normals = false;
  scene.low = test::unit_low_plane();
  test::add_plane(scene.low, test::PlaneSpec{});
  scene.high = Mesh{};
  test::add_plane(scene.high, test::square(0.01f, 1.5f));
  Outcome o = run(scene, 2, 3);
  EXPECT_EQ(counts(o.counters), (std::vector<std::uint64_t>{64, 64, 0, 56}));

  // Zero normals on the low plane: every covered sample is counted, none
  // casts a ray, and the evaluator sees no ray on any sub-sample.
  test::PlaneSpec zero;
  zero.normal = std::array<float, 3>{0.0f, 0.0f, 0.0f};
  scene.low = Mesh{};
  test::add_plane(scene.low, zero);
  o = run(scene, 1, 8);
  EXPECT_EQ(counts(o.counters), (std::vector<std::uint64_t>{64, 0, 64, 0}));
}

// Checks every sub-sample against the raster's own lookup, and that no ray
// and no hit is handed over.
class RasterCheckingEvaluator final : public TexelEvaluator {
 public:
  explicit RasterCheckingEvaluator(const UvRaster& raster) : raster_(raster) {}
  void begin_band(std::uint64_t) override {}
  void evaluate(std::uint64_t, const SampleRows& rows) override {
    EXPECT_EQ(rows.hit_count, 0u);
    for (std::int32_t y = rows.y_begin; y < rows.y_end; ++y) {
      for (std::int32_t x = 0; x < rows.width; ++x) {
        const SubSample* texel = rows.texel(x, y);
        for (std::int32_t s = 0; s < rows.aa * rows.aa; ++s) {
          const RasterHit expected =
              raster_.lookup(x * rows.aa + s % rows.aa,
                             static_cast<std::int64_t>(y) * rows.aa + s / rows.aa, rows.aa);
          const SubSample& got = texel[s];
          EXPECT_EQ(got.ray, -1);
          EXPECT_EQ(std::tie(got.triangle, got.b1, got.b2),
                    std::tie(expected.triangle, expected.b1, expected.b2));
          checked.fetch_add(1);
        }
      }
    }
  }
  void end_band() override {}
  std::atomic<std::uint64_t> checked{0};

 private:
  const UvRaster& raster_;
};

TEST(BandLoop, WithoutATracerHandsOverRasterHitsOnly) {
  const Scene scene;
  const LowPrep prep = LowPrep::build(scene.low, {}, low_prep_settings_of(scene.settings));
  BandLoopSettings settings;
  settings.band_rows = 9;
  RasterCheckingEvaluator evaluator(prep.raster());
  const BandLoopCounters k = run_band_loop(prep, settings, evaluator, WorkerPool(2));
  EXPECT_EQ(evaluator.checked.load(), 40u * 64 * 16);
  EXPECT_EQ(k.samples_covered, run(scene, 1, 64).counters.samples_covered);
  EXPECT_EQ(k.rays, 0u);

  // Stacked UVs are counted only when asked.
  Scene stacked;
  stacked.settings.width = stacked.settings.height = 8;
  stacked.settings.aa = 1;
  stacked.low = test::unit_low_plane();
  test::add_plane(stacked.low, test::PlaneSpec{});
  const LowPrep twice = LowPrep::build(stacked.low, {}, low_prep_settings_of(stacked.settings));
  RasterCheckingEvaluator on_twice(twice.raster());
  EXPECT_EQ(run_band_loop(twice, settings, on_twice, WorkerPool(1)).stacked_skipped, 56u);
  settings.count_stacked = false;
  EXPECT_EQ(run_band_loop(twice, settings, on_twice, WorkerPool(1)).stacked_skipped, 0u);
}

TEST(BandLoop, CancelledBetweenBands) {
  const Scene scene;
  const LowPrep prep = LowPrep::build(scene.low, {}, low_prep_settings_of(scene.settings));
  const CpuTracer tracer(scene.high, {}, CpuTracerOptions{}, 1);
  BandLoopSettings settings;
  settings.band_rows = 16;
  RecordingEvaluator evaluator(scene.settings.width, scene.settings.height);
  int bands = 0;
  const auto cancel_second = [&](const TexelRegion&) {
    if (++bands == 2) {
      throw Cancelled();
    }
  };
  EXPECT_THROW(run_band_loop(prep, tracer, settings, evaluator, WorkerPool(2), cancel_second),
               Cancelled);
  EXPECT_EQ(evaluator.rows_done(), 32);  // no third band was started
}

TEST(BandRows, WholeRowsWithinTheSampleBudget) {
  EXPECT_EQ(band_rows_for(1048576, 2048, 2048, 4), 32);
  EXPECT_EQ(band_rows_for(1048576, 2048, 2048, 1), 512);
  EXPECT_EQ(band_rows_for(1048575, 2048, 2048, 4), 31);
  EXPECT_EQ(band_rows_for(1, 100, 50, 2), 1);          // at least one row
  EXPECT_EQ(band_rows_for(1u << 30, 100, 50, 2), 50);  // at most the image
  // A service may ask for huge bands; rays stay countable in 32 bits.
  EXPECT_EQ(band_rows_for(UINT64_MAX, 16384, 16384, 8), 2047);
}

TEST(BandRows, AtLeastSoManyBandsOfWholeRows) {
  const auto bands = [](std::int32_t height, std::int32_t min_bands) {
    const std::int32_t rows =
        band_rows_for(band_samples_for_bands(1048576, 64, height, 2, min_bands), 64, height, 2);
    return (height + rows - 1) / rows;
  };
  // Rows per band round down, so a height that sixteen does not divide
  // gives more bands, never fewer.
  EXPECT_EQ(bands(256, 16), 16);
  EXPECT_EQ(bands(100, 16), 17);  // 6 rows a band
  EXPECT_EQ(bands(31, 16), 31);   // 1 row a band
  EXPECT_EQ(bands(10, 16), 10);   // fewer rows than bands: a row each
  EXPECT_EQ(bands(256, 1), 1);
  EXPECT_EQ(bands(256, 0), 1);  // no minimum
  // The band size given stays the most: large images keep their bands.
  EXPECT_EQ(band_samples_for_bands(1048576, 4096, 4096, 1, 16), 1048576u);
  EXPECT_EQ(band_samples_for_bands(1048576, 1024, 1024, 1, 16), 64u * 1024);
  EXPECT_EQ(band_samples_for_bands(1048576, 1024, 1024, 4, 16), 64u * 1024 * 16);
}

TEST(BandRows, TheBudgetHalvesBandsUntilTheyFit) {
  const std::uint64_t row = 100 * 2 * 2 * band_bytes_per_sample();  // 100 texels at aa 2
  const auto rows = [](const BandPlan& p) { return std::pair(p.wanted_rows, p.rows); };
  // 40 rows wanted; no budget keeps them.
  EXPECT_EQ(rows(plan_bands(40 * 400, 100, 50, 2, 0, 0)), std::pair(40, 40));
  // Room for exactly 40 rows beside the fixed bytes.
  EXPECT_EQ(rows(plan_bands(40 * 400, 100, 50, 2, 1000 + 40 * row, 1000)), std::pair(40, 40));
  // One byte short: 40 -> 20 rows.
  EXPECT_EQ(rows(plan_bands(40 * 400, 100, 50, 2, 1000 + 40 * row - 1, 1000)), std::pair(40, 20));
  // Room for 9 rows: 40 -> 20 -> 10 -> 5 (halving rounds up).
  EXPECT_EQ(rows(plan_bands(40 * 400, 100, 50, 2, 9 * row, 0)), std::pair(40, 5));
  // Even with no room at all a band keeps one row.
  EXPECT_EQ(rows(plan_bands(40 * 400, 100, 50, 2, 10, 1000)), std::pair(40, 1));
  EXPECT_EQ(memory_budget_bytes(3), 3u * 1024 * 1024);
}

}  // namespace
}  // namespace kv
