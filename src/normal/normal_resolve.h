// The resolve of a Normal/Opacity bake: for every texel, the rays of its
// anti-aliasing sub-samples become three Normal codes in the low surface's
// tangent space and a binary Opacity code. Every step keeps a fixed
// arithmetic width and order, so the codes are the same bit for bit on any
// thread count and any band size.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <vector>

#include "core/parallel.h"
#include "mesh/mesh.h"
#include "normal/normal_bake_settings.h"
#include "sampling/band_loop.h"
#include "sampling/ray_setup.h"
#include "texel/low_prep.h"
#include "texel/tangent_frames.h"
#include "trace/tracer.h"

namespace kv {

struct NormalBakeCounters {
  std::uint64_t samples_covered = 0;        // sub-samples on a rasterised low triangle
  std::uint64_t rays = 0;                   // sub-samples traced
  std::uint64_t hits = 0;                   // traced sub-samples with a high hit
  std::uint64_t invalid_ray_normals = 0;    // covered sub-samples whose axis could not be formed
  std::uint64_t invalid_hit_normals = 0;    // hits whose high normal could not be formed
  std::uint64_t degenerate_frames = 0;      // tangent solves that took the fallback
  std::uint64_t texels_covered = 0;         // texels not outside
  std::uint64_t texels_outside = 0;         // no sub-sample on a rasterised triangle
  std::uint64_t texels_centre_covered = 0;  // texels that may take a Normal
  std::uint64_t texels_valid = 0;           // Normal written by the resolve
  std::uint64_t texels_opaque = 0;          // Opacity 65535
  // Sub-samples lying inside further rasterised low triangles beside the one
  // that owns them (stacked UVs): each such triangle counts once per sample.
  std::uint64_t stacked_skipped = 0;
};

// Codes, masks and counters of one bake; every array is row-major, row 0 at
// the top.
struct NormalBakeResult {
  std::int32_t width = 0;
  std::int32_t height = 0;
  std::vector<std::uint16_t> normal;         // x, y, z codes per texel; 0 until written
  std::vector<std::uint16_t> opacity;        // one code per texel: 0 or 65535
  std::vector<std::uint8_t> normal_valid;    // 1 where the Normal was written
  std::vector<std::uint8_t> outside;         // 1 where no sub-sample is covered
  std::vector<std::uint8_t> centre_covered;  // 1 where the texel's centre is covered
  NormalBakeCounters counters;
};

// Called after every band with the band's rows and the result so far (the
// rows above and the band itself are final). May throw Cancelled to end the
// bake between bands.
using BandFinished = std::function<void(const TexelRegion&, const NormalBakeResult&)>;

// Where the resolve spent its time, in seconds.
using ResolveSeconds = BandLoopSeconds;

// Bytes of the result per texel: three Normal codes, an Opacity code and
// three masks.
inline constexpr std::uint64_t kNormalResultBytesPerTexel = 3 * 2 + 2 + 3;

struct ResolveOptions {
  std::int32_t band_rows = 0;  // 0: band_rows_for(settings.band_samples, ...)
  RayDistances distances;
};

// Bakes every texel of the LowPrep's image: the Normal/Opacity evaluator on
// the band loop. The settings must be those the LowPrep was built for (see
// check_low_prep_use), with tangent frames.
NormalBakeResult resolve_normals(const LowPrep& prep, const Mesh& high, const Tracer& tracer,
                                 const NormalBakeSettings& settings, const ResolveOptions& options,
                                 const WorkerPool& pool, const BandFinished& band_finished = {},
                                 ResolveSeconds* seconds = nullptr);

// ---- the per-sample arithmetic, exposed for its own tests ----------------

// The high normal h expressed in the low frame of `corners` (three tangent
// frames of one low triangle) at raster barycentrics (b1, b2): (c0, c1, c2)
// with h = c0 T + c1 B + c2 N, normalised. *fallback is set when the direct
// solve failed and the orthonormalised frame was used instead.
std::array<double, 3> tangent_space_normal(std::span<const TangentFrame, 3> corners, double b1,
                                           double b2, bool per_vertex_bitangent,
                                           const std::array<float, 3>& h, bool* fallback);

// Adds one sub-sample's tangent-space normal to a texel's sum through its
// colour form and back, in 32-bit float: e = c * 0.5 + 0.5, sum += (e + e) - 1.
void add_through_colour(std::array<float, 3>& sum, const std::array<double, 3>& c);

// The codes of a texel's summed normal: false (codes untouched) when the sum
// has no usable length.
bool texel_normal_codes(const std::array<float, 3>& sum, std::uint16_t* codes);

}  // namespace kv
