// The texture transfer on the standard scene, beside what it is judged by, in
// the same run and on the same threads:
// - uv2uv of a 4096 x 4096 RGBA8 texture from the low sphere's UVs onto a
//   second UV layout of the same sphere (made here: the layout turned a
//   quarter and shrunk into the middle of the square), anti-aliasing 1,
//   against the UV raster's lookups of the same sub-samples plus one plain
//   copy of the output's bytes (target at most 2);
// - m2m of the same texture at 2048 x 2048 against the Normal bake of the
//   same pair and size (target at most 1.2).
//
//   transfer_bench [--threads N] [--size S] [--m2m-size S] [--filter nearest|bilinear]
//                  [--rounds R (5, for m2m)]
// (a size of 0 skips that part)
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "common/bench_common.h"
#include "core/parallel.h"
#include "normal/normal_bake.h"
#include "scene/standard_scene.h"
#include "texel/low_prep.h"
#include "transfer/transfer_modes.h"

namespace {

using kv::bench::Clock;
using kv::bench::seconds_since;

// The same sphere with its UVs turned a quarter and shrunk into the middle:
// every triangle and corner position kept, every texel elsewhere.
kv::Mesh second_layout(const kv::Mesh& low) {
  kv::Mesh copy;
  copy.positions = low.positions;
  copy.normals = low.normals;
  copy.triangles = low.triangles;
  copy.objects = low.objects;
  for (const auto& uv : low.uvs) {
    copy.uvs.push_back({0.1 + 0.8 * uv[0], 0.1 + 0.8 * uv[1]});
  }
  return copy;
}

kv::TexelImage noise_texture(int size) {
  kv::TexelImage image;
  image.width = image.height = size;
  image.channels = 4;
  image.type = kv::ComponentType::kU8;
  image.data.resize(image.expected_bytes());
  std::uint32_t state = 12345;
  for (std::uint8_t& byte : image.data) {
    state = state * 1664525u + 1013904223u;
    byte = static_cast<std::uint8_t>(state >> 24);
  }
  return image;
}

std::vector<kv::transfer::OutputBuffer> one_output(const kv::TexelImage& texture, int size) {
  kv::transfer::OutputBuffer buffer;
  buffer.textures.emplace_back(&texture);
  buffer.image.width = buffer.image.height = size;
  buffer.image.channels = 4;
  buffer.image.type = kv::ComponentType::kU8;
  buffer.image.data.assign(buffer.image.expected_bytes(), 0);
  buffer.valid.assign(static_cast<std::size_t>(size) * size, 0);
  std::vector<kv::transfer::OutputBuffer> outputs;
  outputs.push_back(std::move(buffer));
  return outputs;
}

// Every sub-sample's raster lookup at anti-aliasing 1, in fixed chunks of rows.
std::uint64_t lookup_all(const kv::UvRaster& raster, int size, const kv::WorkerPool& pool) {
  const auto partial = pool.map_chunks<std::uint64_t>(
      static_cast<std::uint64_t>(size), 32, [&](std::uint64_t begin, std::uint64_t end) {
        std::uint64_t covered = 0;
        for (std::uint64_t y = begin; y < end; ++y) {
          for (int x = 0; x < size; ++x) {
            covered += raster.lookup(x, static_cast<std::int64_t>(y), 1).triangle >= 0 ? 1 : 0;
          }
        }
        return covered;
      });
  std::uint64_t covered = 0;
  for (const std::uint64_t c : partial) {
    covered += c;
  }
  return covered;
}

kv::transfer::TransferSettings settings_of(int size, int threads, const std::string& filter) {
  kv::transfer::TransferSettings s;
  s.width = s.height = size;
  s.threads = threads;
  s.filter = filter == "nearest" ? kv::transfer::SampleFilter::nearest
                                 : kv::transfer::SampleFilter::bilinear;
  return s;
}

void bench_uv2uv(const kv::Mesh& low, const kv::TexelImage& texture, int size, int threads,
                 const std::string& filter) {
  const kv::Mesh target = second_layout(low);
  const kv::WorkerPool pool(threads);
  kv::transfer::TransferSettings s = settings_of(size, threads, filter);
  s.mode = kv::transfer::TransferMode::uv2uv;
  kv::LowPrepSettings p;
  p.width = p.height = size;
  p.snap_bits = 8;
  p.average_normals = false;
  p.tangent_frames = false;
  p.threads = threads;
  const kv::LowPrep prep = kv::LowPrep::build(target, {}, p);
  // Best of three rounds each, alternating.
  double transfer_seconds = 1e300;
  double lookups = 1e300;
  double copy_seconds = 1e300;
  kv::transfer::ModeRun run;
  std::uint64_t covered = 0;
  for (int round = 0; round < 3; ++round) {
    auto outputs = one_output(texture, size);
    run = kv::transfer::run_uv2uv(target, low, s, outputs, pool);
    transfer_seconds = std::min(transfer_seconds, run.transfer_seconds);
    Clock::time_point start = Clock::now();
    covered = lookup_all(prep.raster(), size, pool);
    lookups = std::min(lookups, seconds_since(start));
    std::vector<std::uint8_t> copy(outputs[0].image.data.size(), 1);
    start = Clock::now();
    std::memcpy(copy.data(), outputs[0].image.data.data(), copy.size());
    copy_seconds = std::min(copy_seconds, seconds_since(start));
  }
  std::printf("uv2uv %dx%d aa 1 %s: setup %.3f s, transfer %.3f s, %llu texels covered\n", size,
              size, filter.c_str(), run.setup_seconds, transfer_seconds,
              static_cast<unsigned long long>(run.counts.texels_covered));
  std::printf("uv2uv limit: raster lookups %.3f s (%llu covered) + plain copy %.3f s\n", lookups,
              static_cast<unsigned long long>(covered), copy_seconds);
  std::printf("uv2uv ratio transfer / (lookups + copy): %.3f (target at most 2)\n",
              transfer_seconds / (lookups + copy_seconds));
}

void bench_m2m(const kv::bench::StandardScene& scene, const kv::TexelImage& texture, int size,
               int threads, const std::string& filter, int rounds) {
  const kv::WorkerPool pool(threads);
  kv::transfer::TransferSettings s = settings_of(size, threads, filter);
  s.mode = kv::transfer::TransferMode::m2m;
  // The high icosphere has no UVs of its own: it reads the texture through
  // the low sphere's layout projected outwards, which is what a sculpt's UVs
  // would be.
  kv::Mesh high = scene.high;
  high.uvs.clear();
  for (const auto& p : high.positions) {
    const double r = std::sqrt(double{p[0]} * p[0] + double{p[1]} * p[1] + double{p[2]} * p[2]);
    const double u = 0.5 + std::atan2(double{p[1]}, double{p[0]}) / (2.0 * 3.14159265358979);
    high.uvs.push_back(
        {u, 1.0 - std::acos(std::clamp(double{p[2]} / r, -1.0, 1.0)) / 3.14159265358979});
  }
  for (auto& t : high.triangles) {
    for (auto& c : t.corners) {
      c.uv = static_cast<std::int32_t>(c.position);
    }
  }
  kv::NormalBakeSettings bake;
  bake.width = bake.height = size;
  // Best of several rounds each, alternating, so that neither side alone
  // pays for a cold start and both meet the same load; the median of the
  // rounds' own ratios beside it.
  double m2m = 1e300;
  double bake_seconds = 1e300;
  std::vector<double> ratios;
  kv::transfer::ModeRun run;
  std::uint64_t bake_hits = 0;
  for (int round = 0; round < rounds; ++round) {
    Clock::time_point start = Clock::now();
    const kv::NormalBakeRun normal = kv::bake_normal_map(scene.low, scene.high, bake, threads);
    const double bake_round = seconds_since(start);
    bake_seconds = std::min(bake_seconds, bake_round);
    bake_hits = normal.result.counters.hits;
    auto outputs = one_output(texture, size);
    start = Clock::now();
    run = kv::transfer::run_m2m(scene.low, high, s, outputs, pool, nullptr);
    const double m2m_round = seconds_since(start);
    m2m = std::min(m2m, m2m_round);
    ratios.push_back(m2m_round / bake_round);
  }
  std::sort(ratios.begin(), ratios.end());
  std::printf("m2m %dx%d aa 1 %s: %.3f s (setup %.3f, bvh %.3f, transfer %.3f), %llu hits\n", size,
              size, filter.c_str(), m2m, run.setup_seconds, run.bvh_seconds, run.transfer_seconds,
              static_cast<unsigned long long>(run.counts.hits));
  std::printf("Normal bake of the same pair: %.3f s (%llu hits)\n", bake_seconds,
              static_cast<unsigned long long>(bake_hits));
  std::printf(
      "m2m ratio m2m / Normal bake: best %.3f, median of %d rounds %.3f (target at most 1.2)\n",
      m2m / bake_seconds, rounds, ratios[ratios.size() / 2]);
}

}  // namespace

int main(int argc, char** argv) {
  const int threads = kv::bench::int_option(argc, argv, "--threads", 2);
  const int size = kv::bench::int_option(argc, argv, "--size", 4096);
  const int m2m_size = kv::bench::int_option(argc, argv, "--m2m-size", 2048);
  const std::string filter = kv::bench::option_value(argc, argv, "--filter", "bilinear");
  Clock::time_point start = Clock::now();
  const kv::bench::StandardScene scene = kv::bench::make_standard_scene();
  const kv::TexelImage texture = noise_texture(4096);
  std::printf("scene: %zu high triangles, %zu low triangles, %d threads, %.2f s\n",
              scene.high.triangles.size(), scene.low.triangles.size(), threads,
              seconds_since(start));
  if (size > 0) {
    bench_uv2uv(scene.low, texture, size, threads, filter);
  }
  if (m2m_size > 0) {
    bench_m2m(scene, texture, m2m_size, threads, filter,
              std::max(1, kv::bench::int_option(argc, argv, "--rounds", 5)));
  }
  return 0;
}
