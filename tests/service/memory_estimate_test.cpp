#include "service/memory_estimate.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "core/error.h"
#include "mesh/mesh.h"
#include "mesh/mesh_test_util.h"
#include "platform/platform.h"
#include "sampling/band_loop.h"
#include "trace/cpu_tracer.h"

namespace {

using kv::service::estimate_job_memory;
using kv::service::JobShape;
using kv::service::MemoryEstimate;

JobShape shape(std::uint32_t size, std::uint32_t aa, std::vector<std::string> maps) {
  JobShape s;
  s.width = s.height = size;
  s.antialias = aa;
  s.maps = std::move(maps);
  s.high_triangles = 1000000;
  s.low_triangles = 20000;
  return s;
}

TEST(MemoryEstimate, GrowsWithWhatTheJobAllocates) {
  const MemoryEstimate base = estimate_job_memory(shape(1024, 1, {"normal"}));
  EXPECT_EQ(base.total_bytes,
            base.texel_bytes + base.texture_bytes + base.mesh_bytes + base.band_bytes);
  EXPECT_EQ(base.texture_bytes, 0u);
  EXPECT_GT(base.texel_bytes, 0u);

  // Four times the texels: four times the per-texel part.
  const MemoryEstimate doubled = estimate_job_memory(shape(2048, 1, {"normal"}));
  EXPECT_EQ(doubled.texel_bytes, 4 * base.texel_bytes);
  EXPECT_GT(doubled.total_bytes, base.total_bytes);

  // Anti-aliasing multiplies the sub-samples of a band, not the maps; a band
  // holds at most the default band size of sub-samples, so only images
  // smaller than one band grow with it.
  const MemoryEstimate small1 = estimate_job_memory(shape(256, 1, {"normal"}));
  const MemoryEstimate small4 = estimate_job_memory(shape(256, 4, {"normal"}));
  EXPECT_EQ(small4.texel_bytes, small1.texel_bytes);
  EXPECT_EQ(small4.band_bytes, 16 * small1.band_bytes);
  EXPECT_EQ(small1.band_bytes, 256u * 256u * kv::band_bytes_per_sample());
  const MemoryEstimate aa4 = estimate_job_memory(shape(1024, 4, {"normal"}));
  EXPECT_EQ(aa4.texel_bytes, base.texel_bytes);
  const std::uint64_t rows = static_cast<std::uint64_t>(kv::band_rows_for(1048576, 1024, 1024, 4));
  EXPECT_EQ(aa4.band_bytes, rows * 1024 * 16 * kv::band_bytes_per_sample());
  EXPECT_EQ(aa4.band_bytes, base.band_bytes);

  // Every further map costs memory; a three-channel mesh map more than a
  // one-channel one; naming opacity beside normal adds only its write.
  const MemoryEstimate opacity = estimate_job_memory(shape(1024, 1, {"normal", "opacity"}));
  const MemoryEstimate ao = estimate_job_memory(shape(1024, 1, {"normal", "ao"}));
  const MemoryEstimate world = estimate_job_memory(shape(1024, 1, {"normal", "world_normal"}));
  EXPECT_GE(opacity.texel_bytes, base.texel_bytes);
  EXPECT_GT(ao.texel_bytes, opacity.texel_bytes);
  EXPECT_GT(world.texel_bytes, ao.texel_bytes);
  EXPECT_EQ(estimate_job_memory(shape(1024, 1, {"ao", "normal"})).texel_bytes, ao.texel_bytes);

  // Meshes: more triangles, more memory; the GPU path stages the high mesh.
  JobShape more = shape(1024, 1, {"normal"});
  more.high_triangles *= 2;
  EXPECT_GT(estimate_job_memory(more).mesh_bytes, base.mesh_bytes);
  more.low_triangles *= 2;
  EXPECT_GT(estimate_job_memory(more).mesh_bytes,
            estimate_job_memory(shape(1024, 1, {"normal"})).mesh_bytes);
  JobShape gpu = shape(1024, 1, {"normal"});
  gpu.gpu = true;
  EXPECT_GT(estimate_job_memory(gpu).mesh_bytes, base.mesh_bytes);

  // The largest job the protocol allows stays far from overflowing.
  JobShape largest = shape(65536, 8, kv::service::estimate_map_names());
  largest.high_triangles = 4294967296ull;
  largest.low_triangles = 2147483647ull;
  const MemoryEstimate huge = estimate_job_memory(largest);
  EXPECT_GT(huge.total_bytes, huge.texel_bytes);
  EXPECT_GT(huge.texel_bytes, 65536ull * 65536ull * 11);
}

TEST(MemoryEstimate, KnowsEveryMapNameItOffers) {
  const std::vector<std::string>& names = kv::service::estimate_map_names();
  ASSERT_GE(names.size(), 2u);
  EXPECT_EQ(names[0], "normal");
  EXPECT_EQ(names[1], "opacity");
  for (const std::string& name : names) {
    EXPECT_GT(estimate_job_memory(shape(64, 1, {name})).texel_bytes, 0u) << name;
  }
  EXPECT_EQ(kv::test::error_of([] {
              estimate_job_memory(shape(64, 1, {"normal", "glow"}));
            }),
            "unknown map \"glow\"");
}

// A grid of 2 n^2 triangles with some relief, for a real tracer build.
kv::Mesh relief_grid(std::uint32_t n) {
  kv::Mesh m;
  for (std::uint32_t y = 0; y <= n; ++y) {
    for (std::uint32_t x = 0; x <= n; ++x) {
      m.positions.push_back(
          {static_cast<float>(x), static_cast<float>(y),
           std::sin(static_cast<float>(x) * 0.37f) * std::cos(static_cast<float>(y) * 0.21f)});
    }
  }
  for (std::uint32_t y = 0; y < n; ++y) {
    for (std::uint32_t x = 0; x < n; ++x) {
      const std::uint32_t a = y * (n + 1) + x, b = a + 1, c = a + n + 1, d = c + 1;
      kv::Triangle t;
      t.corners = {kv::Corner{a, -1, -1}, kv::Corner{b, -1, -1}, kv::Corner{d, -1, -1}};
      m.triangles.push_back(t);
      t.corners = {kv::Corner{a, -1, -1}, kv::Corner{d, -1, -1}, kv::Corner{c, -1, -1}};
      m.triangles.push_back(t);
    }
  }
  m.objects = {"grid"};
  return m;
}

// The tracer's share of the estimate holds what a real build peaks at.
TEST(MemoryEstimate, BoundsARealTracerBuild) {
  const kv::Mesh high = relief_grid(250);  // 125,000 triangles
  const kv::CpuTracer tracer(high, {}, {}, 2);
  JobShape s = shape(1, 1, {"normal"});
  s.high_triangles = high.triangles.size();
  s.low_triangles = 0;
  const MemoryEstimate estimate = estimate_job_memory(s);
  EXPECT_GE(estimate.mesh_bytes, tracer.peak_memory_bytes() + tracer.table_bytes());
}

JobShape transfer_shape(kv::PaddingMode padding, std::int32_t dilation) {
  JobShape s;
  s.width = s.height = 256;
  s.low_triangles = 100;
  s.textures = {{512, 256, 4, 1, 0}, {64, 64, 1, 4, 0}};
  s.outputs = {{4, 1, false, false, false}, {1, 4, false, true, false}};
  s.padding = padding;
  s.dilation = dilation;
  return s;
}

TEST(MemoryEstimate, PricesATransferByItsTexturesOutputsAndSteps) {
  using kv::PaddingMode;
  const MemoryEstimate ring = estimate_job_memory(transfer_shape(PaddingMode::ring, 32));
  // Decoded textures by type and channels, then each output's texels and
  // valid flags.
  EXPECT_EQ(ring.texture_bytes, 512u * 256 * 4 + 64 * 64 * 4 + 2 * 256 * 256 * (4 + 1));
  // The steps come one after another: the total holds each beside what the
  // transfer keeps, not all of them at once.
  EXPECT_GE(ring.total_bytes, ring.texture_bytes + ring.texel_bytes);
  EXPECT_GE(ring.total_bytes, ring.texture_bytes + ring.mesh_bytes + ring.band_bytes);
  EXPECT_LT(ring.total_bytes,
            ring.texture_bytes + ring.texel_bytes + ring.mesh_bytes + ring.band_bytes);

  // Padding by mode: the ring mode's lists and means cost the most, a ring
  // of width 0 pads nothing, as the pass-through mode.
  const auto texel = [](PaddingMode mode, std::int32_t dilation) {
    return estimate_job_memory(transfer_shape(mode, dilation)).texel_bytes;
  };
  EXPECT_GT(texel(PaddingMode::ring, 32), texel(PaddingMode::diffusion, 32));
  EXPECT_GT(texel(PaddingMode::diffusion, 32), texel(PaddingMode::infinite, 32));
  EXPECT_GT(texel(PaddingMode::infinite, 32), texel(PaddingMode::passthrough, 32));
  EXPECT_EQ(texel(PaddingMode::ring, 0), texel(PaddingMode::passthrough, 32));
  EXPECT_EQ(texel(PaddingMode::color, 32), texel(PaddingMode::infinite, 32));

  // Writing a PNG output costs more than writing a texel file.
  JobShape png = transfer_shape(PaddingMode::passthrough, 0);
  const std::uint64_t plain = estimate_job_memory(png).texel_bytes;
  png.outputs[0].png = true;
  EXPECT_GT(estimate_job_memory(png).texel_bytes, plain);

  // Reading a PNG texture holds its file and the decoder's rows beside its
  // texels: the total grows, the textures' own bytes do not.
  JobShape read = transfer_shape(PaddingMode::passthrough, 0);
  read.textures = {{4096, 4096, 4, 1, 0}};
  const MemoryEstimate kvt = estimate_job_memory(read);
  read.textures[0].png_file_bytes = kv::service::stored_png_file_bytes(read.textures[0]);
  const MemoryEstimate from_png = estimate_job_memory(read);
  EXPECT_EQ(from_png.texture_bytes, kvt.texture_bytes);
  EXPECT_GE(from_png.total_bytes,
            kvt.texture_bytes + read.textures[0].png_file_bytes + 2 * 4096ull * 4096 * 4);
  // The longest PNG: every row stored with its filter byte.
  EXPECT_GT(read.textures[0].png_file_bytes, 4096ull * 4096 * 4 + 4096);

  // Bindings per source triangle and output, and a joined source copy.
  JobShape bound = transfer_shape(PaddingMode::ring, 32);
  bound.source_triangles = 1000;
  bound.joined_mesh_bytes = 5000;
  const MemoryEstimate with_sources = estimate_job_memory(bound);
  EXPECT_EQ(with_sources.mesh_bytes, ring.mesh_bytes + 2 * 1000 * 2 + 5000);
  EXPECT_GE(with_sources.total_bytes, ring.total_bytes + 2 * 1000 * 2 + 5000);
}

TEST(MemoryEstimate, AutomaticBudgetIsHalfOfTheFreeMemory) {
  const std::uint64_t free_before = kv::platform::memory_available_bytes();
  const std::uint64_t budget = kv::service::automatic_budget_bytes();
  const std::uint64_t free_after = kv::platform::memory_available_bytes();
  ASSERT_GT(free_before, 0u);
  // Other processes may move the free memory a little between the readings.
  const std::uint64_t low = std::min(free_before, free_after) / 2;
  const std::uint64_t high = std::max(free_before, free_after) / 2;
  const std::uint64_t slack = std::uint64_t{64} << 20;
  EXPECT_GE(budget + slack, low);
  EXPECT_LE(budget, high + slack);
}

}  // namespace
