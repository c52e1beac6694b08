#include "sampling/band_loop.h"

#include <algorithm>
#include <array>
#include <utility>
#include <vector>

#include "core/error.h"
#include "core/stopwatch.h"
#include "platform/platform.h"

namespace kv {
namespace {

constexpr std::uint64_t kMiB = 1024 * 1024;

// Sub-samples per chunk of a band's rows: chunks are whole texel rows.
constexpr std::uint64_t kChunkSamples = 16384;

// Texels per run handed to a map that takes runs: small enough to stay in
// the first-level cache, a whole number of raster cells.
constexpr std::int32_t kRunTexels = 128;

// Barycentric margin inside which a second low triangle counts as stacked
// over a sample: samples on (or within rounding of) a shared edge belong to
// neighbours, not to stacked UVs.
constexpr double kStackMargin = 1e-6;

bool strictly_inside(const Mesh& low, std::uint32_t t, double u, double v) {
  const Triangle& tri = low.triangles[t];
  const auto& p0 = low.uvs[static_cast<std::size_t>(tri.corners[0].uv)];
  const auto& p1 = low.uvs[static_cast<std::size_t>(tri.corners[1].uv)];
  const auto& p2 = low.uvs[static_cast<std::size_t>(tri.corners[2].uv)];
  const double area = (p2[1] - p0[1]) * (p1[0] - p0[0]) - (p1[1] - p0[1]) * (p2[0] - p0[0]);
  const double n1 = (p2[1] - p0[1]) * (u - p0[0]) - (p2[0] - p0[0]) * (v - p0[1]);
  const double n2 = (p1[0] - p0[0]) * (v - p0[1]) - (p1[1] - p0[1]) * (u - p0[0]);
  // A weight above the margin is above 0, so its numerator has the area's
  // sign: most candidates fail that test and need no division.
  const auto same_sign = [area](double n) { return area > 0.0 ? n > 0.0 : n < 0.0; };
  if (!same_sign(n1) || !same_sign(n2)) {
    return false;
  }
  const double b1 = n1 / area;
  const double b2 = n2 / area;
  return b1 > kStackMargin && b2 > kStackMargin && (1.0 - b1 - b2) > kStackMargin;
}

// The sub-samples, queries and hits of one chunk of a band, kept between
// bands so their memory is reused. A sample's ray indexes its own chunk's
// queries. While a band runs, the thread that runs a chunk owns its work;
// the calling thread reads it after the band's pool call returns. On cache
// lines of its own: neighbouring chunks run on different threads and count
// into their chunk on every sample.
struct alignas(64) ChunkWork {
  std::vector<SubSample> samples;
  std::vector<RayQuery> queries;
  std::vector<RayHit> hits;
  BandLoopCounters counters;
  double setup_seconds = 0.0;
  double ray_seconds = 0.0;
  double resolve_seconds = 0.0;
};

// What every band of one loop shares.
struct Loop {
  Loop(const LowPrep& prep, const Tracer* tracer, const BandLoopSettings& settings,
       TexelEvaluator& evaluator, const WorkerPool& pool);

  const LowPrep& prep;
  const Tracer* tracer;  // null: raster hits only, no rays
  TexelEvaluator& evaluator;
  const WorkerPool& pool;
  std::int32_t width = 0;
  std::int32_t height = 0;
  std::int32_t aa = 1;
  std::uint64_t row_samples = 0;
  std::uint64_t rows_per_chunk = 1;
  RaySetup setup;
  bool count_stacked = true;
  bool texel_runs = false;  // hits handed over in runs, without records
  // The U of every sample column, for the stacked-sample test: the same
  // division for every row, done once.
  std::vector<double> sample_u;
};

// The band's rows [begin, end) that chunk c holds.
std::pair<std::uint64_t, std::uint64_t> chunk_rows(const Loop& loop, std::uint64_t rows,
                                                   std::uint64_t c) {
  const std::uint64_t begin = c * loop.rows_per_chunk;
  return {begin, std::min(begin + loop.rows_per_chunk, rows)};
}

// Counts the further rasterised triangles strictly under sample (sx, sy).
// A cell with one candidate cannot hold a second covering triangle, and
// lying strictly inside implies covering, so the others need only the
// strict test.
std::uint64_t stacked_under(const Loop& loop, std::int64_t sx, std::int64_t sy,
                            std::int32_t owner) {
  const UvRaster& raster = loop.prep.raster();
  const std::span<const std::uint32_t> candidates = raster.cell_candidates(sx, sy, loop.aa);
  if (candidates.size() <= 1) {
    return 0;
  }
  const double u = loop.sample_u[static_cast<std::size_t>(sx)];
  const double v = (raster.v0() + 1.0) -
                   (static_cast<double>(sy) + 0.5) / (static_cast<double>(loop.height) * loop.aa);
  std::uint64_t stacked = 0;
  for (const std::uint32_t other : candidates) {
    if (static_cast<std::int32_t>(other) != owner &&
        strictly_inside(loop.prep.mesh(), other, u, v)) {
      ++stacked;
    }
  }
  return stacked;
}

// The raster lookup of every sub-sample of texel row y into `row`.
void look_up_row(const Loop& loop, std::int64_t y, SubSample* row, BandLoopCounters& k) {
  const UvRaster& raster = loop.prep.raster();
  const std::int32_t aa = loop.aa;
  for (std::int32_t x = 0; x < loop.width; ++x) {
    SubSample* texel = row + static_cast<std::size_t>(x) * static_cast<std::size_t>(aa * aa);
    for (std::int32_t j = 0; j < aa; ++j) {
      for (std::int32_t i = 0; i < aa; ++i) {
        const std::int64_t sx = static_cast<std::int64_t>(x) * aa + i;
        const std::int64_t sy = y * aa + j;
        const RasterHit found = raster.lookup(sx, sy, aa);
        texel[j * aa + i] = SubSample{found.triangle, -1, found.b1, found.b2};
        if (found.triangle >= 0) {
          ++k.samples_covered;
          if (loop.count_stacked) {
            k.stacked_skipped += stacked_under(loop, sx, sy, found.triangle);
          }
        }
      }
    }
  }
}

// The queries of one row's covered sub-samples, appended to the chunk's. In
// a pass of their own: with nothing between them, the square roots and
// divisions of neighbouring samples overlap.
void build_row_queries(const Loop& loop, SubSample* row, ChunkWork& work) {
  for (SubSample* sample = row; sample != row + loop.row_samples; ++sample) {
    if (sample->triangle < 0) {
      continue;
    }
    // Built in place: a copy of every query costs more than the rare
    // removal of one whose axis cannot be formed.
    RayQuery& query = work.queries.emplace_back();
    if (!build_ray_query(loop.setup, static_cast<std::uint32_t>(sample->triangle), sample->b1,
                         sample->b2, query)) {
      work.queries.pop_back();
      ++work.counters.invalid_ray_normals;
      continue;
    }
    sample->ray = static_cast<std::int32_t>(work.queries.size() - 1);
    ++work.counters.rays;
  }
  // Each row's rays start a trace group of their own, so they are grouped
  // the same whatever the band and chunk sizes. The filler queries have no
  // distance window: they are never traced.
  work.queries.resize(chunk_count(work.queries.size(), kTraceGroup) * kTraceGroup);
}

// Raster lookups and ray setup of rows [row_begin, row_end) of the band at y0.
void set_up_chunk(const Loop& loop, std::int32_t y0, std::uint64_t row_begin, std::uint64_t row_end,
                  ChunkWork& work) {
  work.queries.clear();
  work.counters = BandLoopCounters{};
  work.samples.resize(static_cast<std::size_t>((row_end - row_begin) * loop.row_samples));
  for (std::uint64_t r = row_begin; r < row_end; ++r) {
    SubSample* row = work.samples.data() + (r - row_begin) * loop.row_samples;
    look_up_row(loop, y0 + static_cast<std::int64_t>(r), row, work.counters);
  }
  if (loop.tracer == nullptr) {
    return;
  }
  for (std::uint64_t r = row_begin; r < row_end; ++r) {
    build_row_queries(loop, work.samples.data() + (r - row_begin) * loop.row_samples, work);
  }
}

// The texel runs of rows [row_begin, row_end) of the band at y0, looked up
// a run at a time into the stack and handed to the map at once.
void run_texel_rows(const Loop& loop, std::int32_t y0, std::uint64_t chunk, std::uint64_t row_begin,
                    std::uint64_t row_end, ChunkWork& work) {
  work.queries.clear();
  work.counters = BandLoopCounters{};
  std::array<RasterHit, kRunTexels> hits;
  for (std::uint64_t r = row_begin; r < row_end; ++r) {
    const std::int32_t y = y0 + static_cast<std::int32_t>(r);
    for (std::int32_t x = 0; x < loop.width; x += kRunTexels) {
      const std::int32_t count = std::min(kRunTexels, loop.width - x);
      loop.prep.raster().lookup_row(x, y, 1, count, hits.data());
      for (std::int32_t i = 0; i < count; ++i) {
        if (hits[static_cast<std::size_t>(i)].triangle >= 0) {
          ++work.counters.samples_covered;
          if (loop.count_stacked) {
            work.counters.stacked_skipped +=
                stacked_under(loop, x + i, y, hits[static_cast<std::size_t>(i)].triangle);
          }
        }
      }
      loop.evaluator.evaluate_run(chunk, TexelRun{y, x, count, hits.data()});
    }
  }
}

SampleRows sample_rows(const Loop& loop, std::int32_t y0, std::uint64_t row_begin,
                       std::uint64_t row_end, const ChunkWork& work, const RayHit* hits) {
  SampleRows rows;
  rows.y_begin = y0 + static_cast<std::int32_t>(row_begin);
  rows.y_end = y0 + static_cast<std::int32_t>(row_end);
  rows.width = loop.width;
  rows.aa = loop.aa;
  rows.samples = work.samples.data();
  rows.hits = hits;
  rows.hit_count = work.queries.size();
  return rows;
}

void check_band_slots(std::uint64_t slots) {
  if (slots > static_cast<std::uint64_t>(INT32_MAX)) {
    throw Error("a bake band holds more rays than it can index");
  }
}

// A CPU tracer traces each chunk's rays on the thread that set them up,
// while they are still in cache.
void run_band_per_chunk(const Loop& loop, std::int32_t y0, std::uint64_t rows,
                        std::vector<ChunkWork>& chunks, BandLoopSeconds& times) {
  const Clock::time_point band_start = Clock::now();
  loop.pool.for_chunks(chunks.size(), 1, [&](std::uint64_t c, std::uint64_t, std::uint64_t) {
    ChunkWork& work = chunks[static_cast<std::size_t>(c)];
    const auto [row_begin, row_end] = chunk_rows(loop, rows, c);
    Clock::time_point step = Clock::now();
    if (loop.texel_runs) {
      run_texel_rows(loop, y0, c, row_begin, row_end, work);
      work.setup_seconds = 0.0;
      work.ray_seconds = 0.0;
      work.resolve_seconds = seconds_since(step);
      return;
    }
    set_up_chunk(loop, y0, row_begin, row_end, work);
    work.setup_seconds = seconds_since(step);
    step = Clock::now();
    // trace_batch writes every slot: the hits need no clearing first.
    work.hits.resize(work.queries.size());
    if (!work.queries.empty()) {
      loop.tracer->trace_batch(work.queries.data(), work.hits.data(), work.queries.size(),
                               WorkerPool::serial());
    }
    work.ray_seconds = seconds_since(step);
    step = Clock::now();
    loop.evaluator.evaluate(c, sample_rows(loop, y0, row_begin, row_end, work, work.hits.data()));
    work.resolve_seconds = seconds_since(step);
  });
  std::uint64_t slots = 0;
  for (const ChunkWork& work : chunks) {
    slots += work.queries.size();
  }
  check_band_slots(slots);
  // The band's time split by the share each step took on the threads.
  double ray_cpu = 0.0;
  double all_cpu = 0.0;
  for (const ChunkWork& work : chunks) {
    ray_cpu += work.ray_seconds;
    all_cpu += work.setup_seconds + work.ray_seconds + work.resolve_seconds;
  }
  const double band_seconds = seconds_since(band_start);
  const double ray_share = all_cpu > 0.0 ? ray_cpu / all_cpu : 0.0;
  times.rays += band_seconds * ray_share;
  times.resolve += band_seconds * (1.0 - ray_share);
}

// A GPU tracer wants the whole band's rays in one batch.
void run_band_whole(const Loop& loop, std::int32_t y0, std::uint64_t rows,
                    std::vector<ChunkWork>& chunks, std::vector<RayQuery>& queries,
                    std::vector<RayHit>& hits, BandLoopSeconds& times) {
  Clock::time_point start = Clock::now();
  loop.pool.for_chunks(chunks.size(), 1, [&](std::uint64_t c, std::uint64_t, std::uint64_t) {
    const auto [row_begin, row_end] = chunk_rows(loop, rows, c);
    set_up_chunk(loop, y0, row_begin, row_end, chunks[static_cast<std::size_t>(c)]);
  });
  std::vector<std::uint64_t> offsets(chunks.size() + 1, 0);
  for (std::size_t c = 0; c < chunks.size(); ++c) {
    offsets[c + 1] = offsets[c] + chunks[c].queries.size();
  }
  check_band_slots(offsets.back());
  queries.resize(static_cast<std::size_t>(offsets.back()));
  hits.resize(queries.size());
  loop.pool.for_chunks(chunks.size(), 1, [&](std::uint64_t c, std::uint64_t, std::uint64_t) {
    const ChunkWork& work = chunks[static_cast<std::size_t>(c)];
    std::copy(work.queries.begin(), work.queries.end(),
              queries.begin() + static_cast<std::ptrdiff_t>(offsets[c]));
  });
  times.resolve += seconds_since(start);

  start = Clock::now();
  if (!queries.empty()) {
    loop.tracer->trace_batch(queries.data(), hits.data(), queries.size(), loop.pool);
  }
  times.rays += seconds_since(start);

  start = Clock::now();
  loop.pool.for_chunks(chunks.size(), 1, [&](std::uint64_t c, std::uint64_t, std::uint64_t) {
    const auto [row_begin, row_end] = chunk_rows(loop, rows, c);
    const ChunkWork& work = chunks[static_cast<std::size_t>(c)];
    loop.evaluator.evaluate(
        c, sample_rows(loop, y0, row_begin, row_end, work, hits.data() + offsets[c]));
  });
  times.resolve += seconds_since(start);
}

Loop::Loop(const LowPrep& prep_, const Tracer* tracer_, const BandLoopSettings& settings,
           TexelEvaluator& evaluator_, const WorkerPool& pool_)
    : prep(prep_),
      tracer(tracer_),
      evaluator(evaluator_),
      pool(pool_),
      width(prep_.settings().width),
      height(prep_.settings().height),
      aa(prep_.settings().aa) {
  row_samples = static_cast<std::uint64_t>(width) * static_cast<std::uint64_t>(aa) *
                static_cast<std::uint64_t>(aa);
  rows_per_chunk = std::max<std::uint64_t>(1, kChunkSamples / row_samples);
  setup.low = &prep.mesh();
  setup.averaged_normals = prep.averaged_normals();
  setup.object_groups = prep.name_groups();
  setup.distances = settings.distances;
  setup.ignore_backface = settings.ignore_backface;
  count_stacked = settings.count_stacked;
  texel_runs = tracer == nullptr && aa == 1 && settings.texel_runs && evaluator.takes_texel_runs();
  sample_u.resize(static_cast<std::size_t>(width) * static_cast<std::size_t>(aa));
  for (std::size_t sx = 0; sx < sample_u.size(); ++sx) {
    sample_u[sx] =
        (static_cast<double>(sx) + 0.5) / (static_cast<double>(width) * aa) + prep.raster().u0();
  }
}

void add_counters(BandLoopCounters& into, const BandLoopCounters& k) {
  into.samples_covered += k.samples_covered;
  into.rays += k.rays;
  into.invalid_ray_normals += k.invalid_ray_normals;
  into.stacked_skipped += k.stacked_skipped;
}

BandLoopCounters run_loop(const LowPrep& prep, const Tracer* tracer,
                          const BandLoopSettings& settings, TexelEvaluator& evaluator,
                          const WorkerPool& pool, const BandDone& band_done,
                          BandLoopSeconds* seconds) {
  const Clock::time_point loop_start = Clock::now();
  const Loop loop(prep, tracer, settings, evaluator, pool);
  const std::int32_t band_rows = std::clamp(settings.band_rows, 1, std::max(loop.height, 1));
  BandLoopSeconds times;
  BandLoopCounters counters;
  std::vector<ChunkWork> chunks;
  std::vector<RayQuery> band_queries;  // the whole band's, for a GPU tracer
  std::vector<RayHit> band_hits;
  for (std::int32_t y0 = 0; y0 < loop.height; y0 += band_rows) {
    const auto rows = static_cast<std::uint64_t>(std::min(band_rows, loop.height - y0));
    chunks.resize(static_cast<std::size_t>(chunk_count(rows, loop.rows_per_chunk)));
    evaluator.begin_band(chunks.size());
    if (tracer != nullptr && tracer->runs_on_gpu()) {
      run_band_whole(loop, y0, rows, chunks, band_queries, band_hits, times);
    } else {
      run_band_per_chunk(loop, y0, rows, chunks, times);
    }
    evaluator.end_band();
    for (const ChunkWork& work : chunks) {
      add_counters(counters, work.counters);
    }
    if (band_done) {
      const Clock::time_point wait_start = Clock::now();
      band_done(TexelRegion{0, y0, loop.width, static_cast<std::int32_t>(rows)});
      times.wait += seconds_since(wait_start);
    }
  }
  times.total = seconds_since(loop_start);
  if (seconds != nullptr) {
    *seconds = times;
  }
  return counters;
}

}  // namespace

void TexelEvaluator::evaluate_run(std::uint64_t, const TexelRun&) {
  throw Error("this map takes no texel runs");
}

BandLoopCounters run_band_loop(const LowPrep& prep, const Tracer& tracer,
                               const BandLoopSettings& settings, TexelEvaluator& evaluator,
                               const WorkerPool& pool, const BandDone& band_done,
                               BandLoopSeconds* seconds) {
  return run_loop(prep, &tracer, settings, evaluator, pool, band_done, seconds);
}

BandLoopCounters run_band_loop(const LowPrep& prep, const BandLoopSettings& settings,
                               TexelEvaluator& evaluator, const WorkerPool& pool,
                               const BandDone& band_done, BandLoopSeconds* seconds) {
  return run_loop(prep, nullptr, settings, evaluator, pool, band_done, seconds);
}

std::int32_t band_rows_for(std::uint64_t band_samples, std::int32_t width, std::int32_t height,
                           std::int32_t aa) {
  const std::uint64_t row_samples = static_cast<std::uint64_t>(width) *
                                    static_cast<std::uint64_t>(aa) * static_cast<std::uint64_t>(aa);
  std::uint64_t rows = row_samples == 0 ? 1 : band_samples / row_samples;
  // A band's rays are indexed with signed 32-bit numbers.
  const std::uint64_t index_limit =
      row_samples == 0 ? 1 : static_cast<std::uint64_t>(INT32_MAX) / row_samples;
  rows = std::min(rows, index_limit);
  rows = std::clamp<std::uint64_t>(rows, 1, static_cast<std::uint64_t>(std::max(height, 1)));
  return static_cast<std::int32_t>(rows);
}

std::uint64_t band_samples_for_bands(std::uint64_t band_samples, std::int32_t width,
                                     std::int32_t height, std::int32_t aa, std::int32_t min_bands) {
  const std::uint64_t row_samples = static_cast<std::uint64_t>(std::max(width, 0)) *
                                    static_cast<std::uint64_t>(aa) * static_cast<std::uint64_t>(aa);
  // Whole rows rounded down, so that the bands are never fewer.
  const std::uint64_t rows = static_cast<std::uint64_t>(std::max(height, 0)) /
                             static_cast<std::uint64_t>(std::max(min_bands, 1));
  return std::min(band_samples, std::max<std::uint64_t>(rows, 1) * row_samples);
}

std::uint64_t band_bytes_per_sample() {
  // The record, its query (held twice while the chunks are joined) and its hit.
  return sizeof(SubSample) + 2 * sizeof(RayQuery) + sizeof(RayHit);
}

std::uint64_t memory_budget_bytes(std::uint64_t budget_mb) {
  if (budget_mb > 0) {
    return budget_mb * kMiB;
  }
  return platform::memory_available_bytes() / 2;
}

BandPlan plan_bands(std::uint64_t band_samples, std::int32_t width, std::int32_t height,
                    std::int32_t aa, std::uint64_t budget_bytes, std::uint64_t fixed_bytes) {
  BandPlan plan;
  plan.wanted_rows = band_rows_for(band_samples, width, height, aa);
  plan.rows = plan.wanted_rows;
  if (budget_bytes == 0) {
    return plan;
  }
  const std::uint64_t row_bytes = static_cast<std::uint64_t>(width) *
                                  static_cast<std::uint64_t>(aa) * static_cast<std::uint64_t>(aa) *
                                  band_bytes_per_sample();
  const std::uint64_t room = budget_bytes > fixed_bytes ? budget_bytes - fixed_bytes : 0;
  while (plan.rows > 1 && static_cast<std::uint64_t>(plan.rows) * row_bytes > room) {
    plan.rows = (plan.rows + 1) / 2;
  }
  return plan;
}

}  // namespace kv
