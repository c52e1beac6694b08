// The mesh cache against a large OBJ file: the first load reads the text and
// stores the entry, the second reads the entry. Prints both times and their
// ratio; the warm hit should be at least ten times faster.
//
//   mesh_cache_bench [--cells <grid cells per side, default 1024 = 2,097,152 triangles>]
//                    [--rounds N (3)]
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "common/bench_common.h"
#include "mesh/mesh_cache.h"
#include "mesh/mesh_format.h"
#include "platform/platform.h"

namespace {

using kv::bench::seconds_since;

// A rippled grid of cells x cells quads, two triangles each, with a position,
// a UV and a normal per vertex. Written with fixed formulas, so every run
// reads the same text.
std::uint64_t write_grid_obj(const std::filesystem::path& path, int cells) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  std::string text;
  text.reserve(1 << 22);
  char line[320];
  const int side = cells + 1;
  auto flush = [&](bool force) {
    if (force || text.size() > (1u << 22) - 200) {
      out.write(text.data(), static_cast<std::streamsize>(text.size()));
      text.clear();
    }
  };
  text += "o grid\n";
  for (int j = 0; j < side; ++j) {
    for (int i = 0; i < side; ++i) {
      const double u = static_cast<double>(i) / cells;
      const double v = static_cast<double>(j) / cells;
      const double h = 0.02 * std::sin(u * 37.0) * std::cos(v * 23.0);
      std::snprintf(line, sizeof line, "v %.6f %.6f %.6f\n", u * 2.0 - 1.0, h, v * 2.0 - 1.0);
      text += line;
      flush(false);
    }
  }
  for (int j = 0; j < side; ++j) {
    for (int i = 0; i < side; ++i) {
      std::snprintf(line, sizeof line, "vt %.7f %.7f\n", static_cast<double>(i) / cells,
                    static_cast<double>(j) / cells);
      text += line;
      flush(false);
    }
  }
  for (int j = 0; j < side; ++j) {
    for (int i = 0; i < side; ++i) {
      const double u = static_cast<double>(i) / cells;
      const double v = static_cast<double>(j) / cells;
      const double dx = 0.02 * 37.0 * std::cos(u * 37.0) * std::cos(v * 23.0) / 2.0;
      const double dz = -0.02 * 23.0 * std::sin(u * 37.0) * std::sin(v * 23.0) / 2.0;
      std::snprintf(line, sizeof line, "vn %.5f 1 %.5f\n", -dx, -dz);
      text += line;
      flush(false);
    }
  }
  for (int j = 0; j < cells; ++j) {
    for (int i = 0; i < cells; ++i) {
      const int a = j * side + i + 1;
      const int b = a + 1;
      const int c = a + side + 1;
      const int d = a + side;
      std::snprintf(line, sizeof line,
                    "f %d/%d/%d %d/%d/%d %d/%d/%d\nf %d/%d/%d %d/%d/%d %d/%d/%d\n", a, a, a, b, b,
                    b, c, c, c, a, a, a, c, c, c, d, d, d);
      text += line;
      flush(false);
    }
  }
  flush(true);
  out.close();
  return std::filesystem::file_size(path);
}

}  // namespace

int main(int argc, char** argv) {
  const int cells = kv::bench::int_option(argc, argv, "--cells", 1024);
  const int rounds = std::max(1, kv::bench::int_option(argc, argv, "--rounds", 3));
  if (cells < 1 || cells > 8192) {
    std::fprintf(stderr, "grid cells per side must be 1 to 8192\n");
    return 2;
  }
  const std::filesystem::path folder =
      std::filesystem::temp_directory_path() /
      ("kv-mesh-cache-bench-" + std::to_string(kv::platform::process_id()));
  std::filesystem::remove_all(folder);
  std::filesystem::create_directories(folder);
  const std::filesystem::path obj = folder / "grid.obj";

  int status = 0;
  try {
    const std::uint64_t obj_bytes = write_grid_obj(obj, cells);
    kv::MeshReadOptions options;  // every hardware thread
    kv::MeshCacheSettings cache;
    cache.folder = folder / "cache";

    // Each round: the plain read without the cache (for reference; it also
    // warms the page cache), a first load into an empty cache (miss and
    // store) and a second load (hit). The best of each is reported: a store
    // leaves dirty pages whose writeback makes single runs vary widely.
    double plain_s = 1e30;
    double first_s = 1e30;
    double second_s = 1e30;
    bool same = true;
    std::size_t triangles = 0;
    const auto key = kv::make_mesh_cache_key(obj, options.quads);
    std::uint64_t kvc_bytes = 0;
    for (int round = 0; round < rounds; ++round) {
      std::filesystem::remove_all(cache.folder);
      auto start = std::chrono::steady_clock::now();
      kv::MeshStats plain_stats;
      kv::Mesh plain = kv::read_mesh(obj, options, &plain_stats);
      plain_s = std::min(plain_s, seconds_since(start));
      triangles = plain.triangles.size();

      start = std::chrono::steady_clock::now();
      kv::Mesh first = kv::load_mesh_cached(obj, options, cache).mesh;
      first_s = std::min(first_s, seconds_since(start));
      first = kv::Mesh{};

      start = std::chrono::steady_clock::now();
      const kv::Mesh second = kv::load_mesh_cached(obj, options, cache).mesh;
      second_s = std::min(second_s, seconds_since(start));

      kvc_bytes = key ? std::filesystem::file_size(kv::mesh_cache_kvc_path(cache.folder, *key)) : 0;
      same = same && second.triangles.size() == plain.triangles.size() &&
             std::memcmp(second.triangles.data(), plain.triangles.data(),
                         plain.triangles.size() * sizeof(kv::Triangle)) == 0 &&
             second.positions == plain.positions && second.uvs == plain.uvs &&
             second.normals == plain.normals;
    }

    std::printf("mesh cache: %zu triangles, OBJ %.1f MiB, .kvc %.1f MiB, %d threads, best of %d\n",
                triangles, static_cast<double>(obj_bytes) / 1048576.0,
                static_cast<double>(kvc_bytes) / 1048576.0, kv::platform::hardware_thread_count(),
                rounds);
    std::printf("read_mesh without cache:   %8.3f s\n", plain_s);
    std::printf("first load (miss + store): %8.3f s\n", first_s);
    std::printf("second load (hit):         %8.3f s\n", second_s);
    std::printf("first / second: %.1fx (target at least 10x)\n", first_s / second_s);
    std::printf("plain read / hit: %.1fx\n", plain_s / second_s);
    if (!same || !key) {
      std::printf("ERROR: the hit did not return the mesh that was stored\n");
      status = 1;
    }
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "mesh_cache_bench: %s\n", failure.what());
    status = 1;
  }
  std::error_code ec;
  std::filesystem::remove_all(folder, ec);
  return status;
}
