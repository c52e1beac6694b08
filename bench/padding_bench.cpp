// Padding of a 4096 x 4096 three-channel UNORM16 map with about half of its
// texels covered by islands: ring padding on 1 and on all threads, and the
// modes built on the nearest-texel search, side by side. Informative only.
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <functional>
#include <random>
#include <vector>

#include "core/parallel.h"
#include "padding/padding.h"

namespace {

constexpr int kSize = 4096;
constexpr int kCell = 256;  // one island per cell

struct Scene {
  kv::MapU16 map;
  std::vector<std::uint8_t> valid;
};

// Round islands of jittered size and place, one per 256 x 256 cell, with
// smooth codes inside (so means are not all equal) and 0 outside.
Scene make_scene() {
  Scene scene;
  scene.map.width = kSize;
  scene.map.height = kSize;
  scene.map.channels = 3;
  scene.map.codes.assign(static_cast<std::size_t>(kSize) * kSize * 3, 0);
  scene.valid.assign(static_cast<std::size_t>(kSize) * kSize, 0);
  std::mt19937 rng(2024);
  for (int cy = 0; cy < kSize / kCell; ++cy) {
    for (int cx = 0; cx < kSize / kCell; ++cx) {
      const int r = 86 + static_cast<int>(rng() % 32);
      const int ox = cx * kCell + kCell / 2 + static_cast<int>(rng() % 21) - 10;
      const int oy = cy * kCell + kCell / 2 + static_cast<int>(rng() % 21) - 10;
      for (int y = std::max(0, oy - r); y <= std::min(kSize - 1, oy + r); ++y) {
        for (int x = std::max(0, ox - r); x <= std::min(kSize - 1, ox + r); ++x) {
          if ((x - ox) * (x - ox) + (y - oy) * (y - oy) > r * r) {
            continue;
          }
          const std::size_t i = static_cast<std::size_t>(y) * kSize + x;
          scene.valid[i] = 1;
          scene.map.codes[i * 3 + 0] = static_cast<std::uint16_t>(x * 16);
          scene.map.codes[i * 3 + 1] = static_cast<std::uint16_t>(y * 16);
          scene.map.codes[i * 3 + 2] = 65535;
        }
      }
    }
  }
  return scene;
}

// Wall seconds of fn; its processor seconds (all threads) go to *cpu.
double seconds_of(const std::function<void()>& fn, double* cpu = nullptr) {
  const std::clock_t cpu_start = std::clock();
  const auto start = std::chrono::steady_clock::now();
  fn();
  const auto end = std::chrono::steady_clock::now();
  if (cpu != nullptr) {
    *cpu = static_cast<double>(std::clock() - cpu_start) / CLOCKS_PER_SEC;
  }
  return std::chrono::duration<double>(end - start).count();
}

}  // namespace

int main() {
  const Scene scene = make_scene();
  std::uint64_t covered = 0;
  for (const std::uint8_t v : scene.valid) {
    covered += v;
  }
  const kv::WorkerPool all(0);
  const kv::WorkerPool one(1);
  std::printf("padding of %d x %d x 3 UNORM16, coverage %.1f %%, width 32, %d threads\n", kSize,
              kSize, 100.0 * static_cast<double>(covered) / (double(kSize) * kSize),
              all.thread_count());

  std::uint64_t filled = 0;
  double cpu = 0;
  auto ring_on = [&](const kv::WorkerPool& pool) {
    kv::MapU16 map = scene.map;
    std::vector<std::uint8_t> mask;
    const double s = seconds_of([&] { mask = kv::dilate_mean(map, scene.valid, 32, pool); }, &cpu);
    filled = static_cast<std::uint64_t>(std::count(mask.begin(), mask.end(), 1)) - covered;
    return s;
  };
  const double ring_one = ring_on(one);
  const double ring_one_cpu = cpu;
  const double ring_all = ring_on(all);
  std::printf("ring, 1 thread            %8.3f s  (processor %.3f s)\n", ring_one, ring_one_cpu);
  std::printf("ring, %d threads           %8.3f s  (%.2fx of 1 thread), %llu texels filled\n",
              all.thread_count(), ring_all, ring_one / ring_all,
              static_cast<unsigned long long>(filled));

  const double search = seconds_of([&] {
    const kv::NearestValid nv = kv::nearest_valid_texels(kSize, kSize, scene.valid, all);
    (void)nv;
  });
  std::printf("nearest-texel search      %8.3f s  (%.2fx of ring)\n", search, search / ring_all);

  struct Mode {
    kv::PaddingMode mode;
    const char* name;
  };
  for (const Mode m :
       {Mode{kv::PaddingMode::infinite, "infinite"},
        Mode{kv::PaddingMode::transparent, "transparent"}, Mode{kv::PaddingMode::color, "color"},
        Mode{kv::PaddingMode::diffusion, "diffusion"}}) {
    kv::MapU16 map = scene.map;
    kv::PaddingSettings settings;
    settings.mode = m.mode;
    settings.width = 32;
    const kv::ImageView image{kSize, kSize, 3, kv::ComponentType::kU16,
                              std::as_writable_bytes(std::span(map.codes))};
    const double s = seconds_of([&] { kv::pad_image(image, scene.valid, settings, all); });
    std::printf("%-12s              %8.3f s  (%.2fx of ring)\n", m.name, s, s / ring_all);
  }
  return 0;
}
