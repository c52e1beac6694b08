// The loop every map that rasterises the low mesh's UVs runs: the image is
// cut into bands of whole texel rows; in each band every anti-aliasing
// sub-sample finds its low triangle through the UV raster, casts its primary
// ray, and the traced rows go to the map's evaluator, which reduces each
// texel's sub-samples into its own outputs. Bands and chunks have fixed
// bounds and their state is joined in order, so every map is the same bit
// for bit on any thread count and any band size.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

#include "core/parallel.h"
#include "sampling/ray_setup.h"
#include "texel/low_prep.h"
#include "trace/tracer.h"

namespace kv {

// One anti-aliasing sub-sample of a band.
struct SubSample {
  std::int32_t triangle = -1;  // covering low triangle, -1 = none
  std::int32_t ray = -1;       // index of its query in the chunk, -1 = no ray
  double b1 = 0.0;             // raster barycentrics on that triangle
  double b2 = 0.0;
};

// The traced sub-samples of texel rows [y_begin, y_end). Each texel holds
// aa * aa sub-samples in row-major order, texels in row-major order;
// hits[s.ray] answers the ray of sub-sample s.
struct SampleRows {
  std::int32_t y_begin = 0;
  std::int32_t y_end = 0;
  std::int32_t width = 0;
  std::int32_t aa = 1;
  const SubSample* samples = nullptr;
  const RayHit* hits = nullptr;
  std::size_t hit_count = 0;  // queries of the chunk, group filler included

  std::size_t texel_samples() const { return static_cast<std::size_t>(aa) * aa; }
  // The first sub-sample of texel x of row y (y_begin <= y < y_end).
  const SubSample* texel(std::int32_t x, std::int32_t y) const {
    const std::size_t index =
        static_cast<std::size_t>(y - y_begin) * static_cast<std::size_t>(width) +
        static_cast<std::size_t>(x);
    return samples + index * texel_samples();
  }
};

// The raster hits of texels [x_begin, x_begin + count) of row y, one per
// texel: what the loop hands over at anti-aliasing 1 without rays.
struct TexelRun {
  std::int32_t y = 0;
  std::int32_t x_begin = 0;
  std::int32_t count = 0;
  const RasterHit* hits = nullptr;
};

// What a map does with the traced sub-samples. The loop calls begin_band,
// then evaluate once per chunk of the band (chunks run at once on the pool's
// threads, in any order), then end_band on the calling thread.
class TexelEvaluator {
 public:
  virtual ~TexelEvaluator() = default;
  // Before each band, which is cut into `chunks` chunks.
  virtual void begin_band(std::uint64_t chunks) = 0;
  // Reduces the texels of one chunk's rows. May write only those rows'
  // texels and the chunk's own state.
  virtual void evaluate(std::uint64_t chunk, const SampleRows& rows) = 0;
  // After every chunk of the band: joins the chunks' state in chunk order.
  virtual void end_band() = 0;

  // A map that needs only each texel's raster hit may take the hits in short
  // runs straight from the raster, without the band's record of every
  // sub-sample: at anti-aliasing 1 without rays the loop then calls
  // evaluate_run for each run of a chunk's rows, in row order, instead of
  // evaluate. The map's results must be the same either way.
  virtual bool takes_texel_runs() const { return false; }
  virtual void evaluate_run(std::uint64_t chunk, const TexelRun& run);

 protected:
  TexelEvaluator() = default;
  TexelEvaluator(const TexelEvaluator&) = default;
  TexelEvaluator& operator=(const TexelEvaluator&) = default;
};

// A finished rectangle of texels.
struct TexelRegion {
  std::int32_t x = 0;
  std::int32_t y = 0;
  std::int32_t w = 0;
  std::int32_t h = 0;
};

// Called on the calling thread after every band, once the evaluator has
// joined it. May throw Cancelled to end the loop between bands.
using BandDone = std::function<void(const TexelRegion&)>;

struct BandLoopSettings {
  std::int32_t band_rows = 1;  // texel rows per band, at least 1
  RayDistances distances;
  bool ignore_backface = true;
  // Count the stacked sub-samples (BandLoopCounters::stacked_skipped); maps
  // that do not report them skip the extra raster tests.
  bool count_stacked = true;
  // Whether a map that takes texel runs is handed them; off, it gets the
  // records as every other map (the same results, more slowly).
  bool texel_runs = true;
};

// What the loop itself counts; whole numbers, so the join order is free.
struct BandLoopCounters {
  std::uint64_t samples_covered = 0;      // sub-samples on a rasterised low triangle
  std::uint64_t rays = 0;                 // sub-samples traced
  std::uint64_t invalid_ray_normals = 0;  // covered sub-samples whose axis could not be formed
  // Sub-samples lying inside further rasterised low triangles beside the one
  // that owns them (stacked UVs): each such triangle counts once per sample.
  std::uint64_t stacked_skipped = 0;
};

// Where the loop spent its time, in seconds.
struct BandLoopSeconds {
  double total = 0.0;    // the whole loop
  double rays = 0.0;     // inside trace_batch
  double wait = 0.0;     // inside the band callback
  double resolve = 0.0;  // raster lookups, ray setup and the evaluator
};

// Runs every band of the LowPrep's image through the evaluator. The tracer
// must be built over `high`'s triangles with the name groups the LowPrep was
// matched against.
BandLoopCounters run_band_loop(const LowPrep& prep, const Tracer& tracer,
                               const BandLoopSettings& settings, TexelEvaluator& evaluator,
                               const WorkerPool& pool, const BandDone& band_done = {},
                               BandLoopSeconds* seconds = nullptr);

// The same loop without rays, for maps that need only the raster hit of
// every sub-sample: every SubSample's ray is -1 and SampleRows holds no hits.
BandLoopCounters run_band_loop(const LowPrep& prep, const BandLoopSettings& settings,
                               TexelEvaluator& evaluator, const WorkerPool& pool,
                               const BandDone& band_done = {}, BandLoopSeconds* seconds = nullptr);

// ---- bands and the memory budget --------------------------------------------

// Texel rows per band: as many whole rows as band_samples sub-samples allow,
// at least one, at most the image height, and never more sub-samples than a
// signed 32-bit index can count.
std::int32_t band_rows_for(std::uint64_t band_samples, std::int32_t width, std::int32_t height,
                           std::int32_t aa);

// The band size, at most band_samples, that cuts the image into at least
// min_bands bands of whole rows (every row its own band when it has fewer
// rows): work checked between bands, a cancel above all, then waits for a
// part of the image at most.
std::uint64_t band_samples_for_bands(std::uint64_t band_samples, std::int32_t width,
                                     std::int32_t height, std::int32_t aa, std::int32_t min_bands);

// Upper bound of the memory one sub-sample of a band takes while it is baked.
std::uint64_t band_bytes_per_sample();

// The memory a run may use in bytes: the given budget in MiB, else half of
// the memory free now; 0 when neither is known.
std::uint64_t memory_budget_bytes(std::uint64_t budget_mb);

struct BandPlan {
  std::int32_t wanted_rows = 1;  // from band_samples alone
  std::int32_t rows = 1;         // after the budget
};

// Halves the band until its working memory fits in the budget beside
// `fixed_bytes` (the tracer, the maps being written); smaller bands give the
// same maps, only more slowly. A budget of 0 keeps the wanted rows.
BandPlan plan_bands(std::uint64_t band_samples, std::int32_t width, std::int32_t height,
                    std::int32_t aa, std::uint64_t budget_bytes, std::uint64_t fixed_bytes);

}  // namespace kv
