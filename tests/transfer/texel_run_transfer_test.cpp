// The transfer's reads of texel runs at anti-aliasing 1 against its reads of
// the band's records: the same bytes, masks and counts for every output
// kind (run readers, the general path, bindings per triangle), filter,
// address mode and weights, on any thread count and band size.
#include <gtest/gtest.h>

#include <tuple>
#include <vector>

#include "sampling/band_loop.h"
#include "support/bake_test_meshes.h"
#include "texel/low_prep.h"
#include "transfer/transfer_evaluator.h"
#include "transfer_test_util.h"

namespace kv::transfer {
namespace {

// A UV sphere (a seam, uncovered poles) with a plane stacked over part of its
// UVs, and the same triangles with source UVs reaching past the unit square;
// one source triangle has no UVs.
struct Surfaces {
  Mesh target = test::uv_sphere(24, 12, 1.0f, 0.0f);
  Mesh source;
  Surfaces() {
    test::PlaneSpec plane;
    plane.z = 3.0f;
    plane.u0 = 0.2;
    plane.v0 = 0.3;
    plane.u1 = 0.65;
    plane.v1 = 0.7;
    test::add_plane(target, plane);
    source = target;
    for (auto& uv : source.uvs) {
      uv = {1.37 * uv[0] - 0.21, 1.04 - 1.13 * uv[1]};
    }
    for (Corner& corner : source.triangles[100].corners) {
      corner.uv = -1;
    }
  }
};

struct Textures {
  TexelImage rgba8 = test::pattern_image(37, 29, 4, ComponentType::kU8);
  TexelImage gray16 = test::pattern_image(23, 31, 1, ComponentType::kU16);
  TexelImage half3 = test::pattern_image(19, 17, 3, ComponentType::kF16);
  TexelImage rg8 = test::pattern_image(16, 16, 2, ComponentType::kU8);
  TexelImage other_rgba8 = test::pattern_image(41, 23, 4, ComponentType::kU8);
};

OutputBuffer output_of(const TexelImage& texture, std::int32_t w, std::int32_t h) {
  OutputBuffer out;
  out.textures.emplace_back(&texture);
  out.image.width = w;
  out.image.height = h;
  out.image.channels = texture.channels;
  out.image.type = texture.type;
  out.image.data.assign(out.image.expected_bytes(), 0);
  out.valid.assign(static_cast<std::size_t>(w) * h, 0);
  return out;
}

using Result = std::tuple<std::vector<std::vector<std::uint8_t>>,
                          std::vector<std::vector<std::uint8_t>>, std::vector<std::uint64_t>>;

Result transfer_once(const Surfaces& s, const Textures& t, const LowPrep& prep,
                     const SamplerSettings& sampler, int threads, std::int32_t band, bool runs) {
  const std::int32_t w = prep.settings().width;
  const std::int32_t h = prep.settings().height;
  std::vector<OutputBuffer> outputs;
  outputs.push_back(output_of(t.rgba8, w, h));
  outputs.push_back(output_of(t.gray16, w, h));
  outputs.push_back(output_of(t.half3, w, h));
  // Bound by triangle: odd triangles read a second texture, every fifth none.
  OutputBuffer bound = output_of(t.rgba8, w, h);
  bound.textures.emplace_back(&t.other_rgba8);
  for (std::size_t k = 0; k < s.source.triangles.size(); ++k) {
    bound.texture_of.push_back(static_cast<std::int16_t>(k % 5 == 0 ? -1 : k % 2));
  }
  outputs.push_back(std::move(bound));
  outputs.push_back(output_of(t.rg8, w, h));
  TransferEvaluator evaluator(s.source, outputs, sampler, false, nullptr);
  BandLoopSettings settings;
  settings.band_rows = band;
  settings.count_stacked = false;
  settings.texel_runs = runs;
  (void)run_band_loop(prep, settings, evaluator, WorkerPool(threads));
  Result r;
  const TransferCounts& k = evaluator.counts();
  std::get<2>(r) = {k.texels_covered, k.hits, k.missed};
  for (const OutputBuffer& out : outputs) {
    std::get<0>(r).push_back(out.image.data);
    std::get<1>(r).push_back(out.valid);
  }
  std::get<2>(r).insert(std::get<2>(r).end(), k.texels_valid.begin(), k.texels_valid.end());
  return r;
}

TEST(TransferTexelRuns, SameBytesMasksAndCountsAsTheRecords) {
  const Surfaces s;
  const Textures t;
  LowPrepSettings p;
  p.width = 300;  // runs of 128, 128 and 44 texels
  p.height = 70;
  p.snap_bits = 8;
  p.average_normals = false;
  p.tangent_frames = false;
  const LowPrep prep = LowPrep::build(s.target, {}, p);
  for (const SampleFilter filter : {SampleFilter::nearest, SampleFilter::bilinear}) {
    for (const AddressMode address :
         {AddressMode::repeat, AddressMode::clamp, AddressMode::window}) {
      for (const BilinearWeights weights : {BilinearWeights::gpu8, BilinearWeights::exact}) {
        const SamplerSettings sampler{filter, address, weights};
        const Result records = transfer_once(s, t, prep, sampler, 1, 70, false);
        const auto& counts = std::get<2>(records);
        // Covered texels, texels with no source UVs, window misses all occur.
        ASSERT_GT(counts[0], 300u * 70 / 2);
        ASSERT_GT(counts[2], 0u);
        if (address == AddressMode::window) {
          ASSERT_LT(counts[3], counts[1]);
        }
        for (const int threads : {1, 2}) {
          for (const std::int32_t band : {1, 7, 70}) {
            EXPECT_EQ(transfer_once(s, t, prep, sampler, threads, band, true), records)
                << static_cast<int>(filter) << " " << static_cast<int>(address) << " "
                << static_cast<int>(weights) << ", " << threads << " threads, bands of " << band;
          }
        }
      }
    }
  }
}

}  // namespace
}  // namespace kv::transfer
