// The evaluator both transfer modes run on the band loop: every covered
// sub-sample finds its source point (the same triangle in the source UV set,
// or the ray's hit on the high mesh), reads each output's texture at the
// source UV, and a texel's values are averaged and stored in the output's
// component type.
#pragma once

#include <cstdint>
#include <vector>

#include "image/texel_image.h"
#include "mesh/mesh.h"
#include "sampling/band_loop.h"
#include "transfer/hit_dump.h"
#include "transfer/texture_sampler.h"

namespace kv::transfer {

// One output being filled.
struct OutputBuffer {
  std::vector<SourceTexture> textures;
  std::vector<std::int16_t> texture_of;  // per source triangle, -1 none; empty: texture 0
  TexelImage image;                      // zeros until written
  std::vector<std::uint8_t> valid;       // one byte per texel, 1 = written
};

// What the transfer counts; whole numbers, so the join order is free.
struct TransferCounts {
  std::uint64_t texels_covered = 0;         // texels with a covered sub-sample
  std::uint64_t hits = 0;                   // covered sub-samples with a source point
  std::uint64_t missed = 0;                 // covered sub-samples without one
  std::vector<std::uint64_t> texels_valid;  // per output
};

class TransferEvaluator final : public TexelEvaluator {
 public:
  // source: the mesh whose UVs read the textures (the source UV mesh, whose
  // triangles are the target's, or the high mesh when from_rays). dump: the
  // hit dump to append to, or null.
  TransferEvaluator(const Mesh& source, std::vector<OutputBuffer>& outputs,
                    const SamplerSettings& sampler, bool from_rays, HitDump* dump);

  void begin_band(std::uint64_t chunks) override;
  void evaluate(std::uint64_t chunk, const SampleRows& rows) override;
  void end_band() override;
  // Without rays or a hit dump every texel's one raster hit is all it needs.
  bool takes_texel_runs() const override;
  void evaluate_run(std::uint64_t chunk, const TexelRun& run) override;

  const TransferCounts& counts() const { return counts_; }

 private:
  struct SourcePoint {
    std::uint32_t triangle = 0;
    double u = 0.0;
    double v = 0.0;
  };
  struct ChunkState {
    TransferCounts counts;
    std::vector<HitRecord> records;
  };

  bool source_point(const SampleRows& rows, const SubSample& sample, SourcePoint& point,
                    HitRecord& record) const;
  void store_run(std::size_t output, const TexelRun& run, const RunPoint* points,
                 const std::uint32_t* triangles, std::size_t count, ChunkState& state) const;
  void store_texel(std::size_t output, std::size_t texel, const SourcePoint* points,
                   std::size_t count, ChunkState& state) const;

  const Mesh& source_;
  std::vector<OutputBuffer>& outputs_;
  SamplerSettings sampler_;
  bool from_rays_;
  HitDump* dump_;
  std::vector<StoreRead> single_reads_;  // per output, null: the general path
  std::vector<StoreRun> run_reads_;      // per output, null: texel by texel
  TransferCounts counts_;
  std::vector<ChunkState> chunks_;
};

// Stores a mean in a component: u8 and u16 round half to even within their
// range (NaN gives 0), f16 rounds to the nearest half (ties to even), f32
// takes the float nearest.
void store_component(TexelImage& image, std::size_t index, double mean);

// The same for every channel of the texel whose first component is `index`.
void store_texel_values(TexelImage& image, std::size_t index, const double* means);

}  // namespace kv::transfer
