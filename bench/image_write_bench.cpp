// Image writers against the disk: a 4096 x 4096 three-channel code map as a
// float EXR beside a plain write of the same number of bytes to the same
// folder, then as a 16-bit PNG. Prints both throughputs and their ratio.
//
//   image_write_bench [--dir <folder>] [--rounds N]
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "common/bench_common.h"
#include "core/error.h"
#include "image/exr.h"
#include "image/png.h"
#include "platform/platform.h"

namespace {

namespace fs = std::filesystem;
using kv::bench::Clock;
using kv::bench::seconds_since;

constexpr int kSize = 4096;
constexpr int kChannels = 3;

// Processor time of the whole process (every thread, user and system), to
// tell the work done from time lost to other processes on a busy machine.
double cpu_seconds_since(std::clock_t start) {
  return static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC;
}

// A smooth field with a little noise, like a baked normal map.
std::vector<std::uint16_t> make_codes() {
  std::vector<std::uint16_t> codes(static_cast<std::size_t>(kSize) * kSize * kChannels);
  std::mt19937 random(1);
  for (int y = 0; y < kSize; ++y) {
    for (int x = 0; x < kSize; ++x) {
      for (int c = 0; c < kChannels; ++c) {
        const int base = 16384 + ((x * (c + 3) + y * (5 - c)) % 32768);
        codes[(static_cast<std::size_t>(y) * kSize + x) * kChannels + c] =
            static_cast<std::uint16_t>(base + static_cast<int>(random() % 16));
      }
    }
  }
  return codes;
}

// Writes size bytes in 4 MiB pieces, as the EXR writer does.
void plain_write(const fs::path& path, const std::vector<unsigned char>& bytes) {
  int error = 0;
  kv::platform::File file = kv::platform::File::create_truncate(path, &error);
  if (!file.is_open()) {
    throw kv::Error("cannot create " + path.string());
  }
  constexpr std::size_t kPiece = 4194304;
  for (std::size_t offset = 0; offset < bytes.size(); offset += kPiece) {
    const std::size_t size = std::min(kPiece, bytes.size() - offset);
    if (file.write_all(bytes.data() + offset, size) != 0) {
      throw kv::Error("cannot write " + path.string());
    }
  }
  if (file.close() != 0) {
    throw kv::Error("cannot close " + path.string());
  }
}

}  // namespace

int main(int argc, char** argv) {
  try {
    const std::string given_folder = kv::bench::option_value(argc, argv, "--dir", "");
    const fs::path folder =
        !given_folder.empty()
            ? fs::path(given_folder)
            : fs::temp_directory_path() /
                  ("kv-image-bench-" + std::to_string(kv::platform::process_id()));
    const int rounds = std::max(1, kv::bench::int_option(argc, argv, "--rounds", 3));
    fs::create_directories(folder);
    const fs::path exr_path = folder / "bench.exr";
    const fs::path plain_path = folder / "bench.raw";
    const fs::path png_path = folder / "bench.png";

    const std::vector<std::uint16_t> codes = make_codes();
    kv::writeExr(exr_path, kSize, kSize, kChannels, codes, kv::kExrFloat);  // warm-up, tables
    const auto exr_bytes = static_cast<std::size_t>(fs::file_size(exr_path));
    const std::vector<unsigned char> plain(exr_bytes, 0x5a);
    plain_write(plain_path, plain);

    double best_exr = 1e30;
    double best_plain = 1e30;
    double cpu_exr = 1e30;
    double cpu_plain = 1e30;
    for (int round = 0; round < rounds; ++round) {
      fs::remove(plain_path);
      Clock::time_point start = Clock::now();
      std::clock_t cpu_start = std::clock();
      plain_write(plain_path, plain);
      best_plain = std::min(best_plain, seconds_since(start));
      cpu_plain = std::min(cpu_plain, cpu_seconds_since(cpu_start));
      fs::remove(exr_path);
      start = Clock::now();
      cpu_start = std::clock();
      kv::writeExr(exr_path, kSize, kSize, kChannels, codes, kv::kExrFloat);
      best_exr = std::min(best_exr, seconds_since(start));
      cpu_exr = std::min(cpu_exr, cpu_seconds_since(cpu_start));
    }
    const double mb = static_cast<double>(exr_bytes) / 1e6;
    std::printf("folder: %s\n", folder.string().c_str());
    std::printf("map: %d x %d x %d codes, EXR float file %.1f MB, best of %d rounds\n", kSize,
                kSize, kChannels, mb, rounds);
    std::printf("plain write: %.3f s, %.0f MB/s (CPU %.3f s)\n", best_plain, mb / best_plain,
                cpu_plain);
    std::printf("EXR write:   %.3f s, %.0f MB/s (CPU %.3f s)\n", best_exr, mb / best_exr, cpu_exr);
    std::printf("EXR / plain throughput ratio: %.2f (target >= 0.80)\n", best_plain / best_exr);

    double best_png = 1e30;
    double cpu_png = 1e30;
    for (int round = 0; round < rounds; ++round) {
      const Clock::time_point start = Clock::now();
      const std::clock_t cpu_start = std::clock();
      kv::writePngCodes(png_path, kSize, kSize, kChannels, codes);
      best_png = std::min(best_png, seconds_since(start));
      cpu_png = std::min(cpu_png, cpu_seconds_since(cpu_start));
    }
    const double raw_mb = static_cast<double>(codes.size()) * 2 / 1e6;
    const double png_mb = static_cast<double>(fs::file_size(png_path)) / 1e6;
    std::printf(
        "PNG 16-bit:  %.3f s (CPU %.3f s), %.0f MB/s of samples, file %.1f MB (%.1f%% of %.1f "
        "MB)\n",
        best_png, cpu_png, raw_mb / best_png, png_mb, 100.0 * png_mb / raw_mb, raw_mb);

    fs::remove(exr_path);
    fs::remove(plain_path);
    fs::remove(png_path);
    if (given_folder.empty()) {
      fs::remove(folder);
    }
    return 0;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "image_write_bench: %s\n", e.what());
    return 1;
  }
}
