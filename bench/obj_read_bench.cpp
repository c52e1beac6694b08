// OBJ reading: read_obj against tinyobjloader on the same file, in one run.
// Prints the throughput of each, their ratio, and the peak memory of read_obj
// (measured in a fresh child process) against file size + 2 x finished mesh.
// Targets, 2 threads, warm page cache: read_obj >= 8x tinyobjloader; peak <=
// file + 2 x mesh.
//
//   obj_read_bench [--threads N (2)] [--grid cells (360)] [--objects N (8)]
//                  [--repeats N (3)] [--dir folder] [--keep]
#include <tiny_obj_loader.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "common/bench_common.h"
#include "core/error.h"
#include "mesh/obj_reader.h"
#include "obj/bench_obj.h"
#include "platform/platform.h"

namespace {

using kv::bench::Clock;
using kv::bench::seconds_since;

struct Timing {
  double wall = 1e30;  // best wall-clock time of the repeats
  double cpu = 1e30;   // process CPU time of that best repeat, all threads
};

template <typename F>
Timing time_best(int repeats, F&& read) {
  Timing best;
  for (int r = 0; r < repeats; ++r) {
    const std::clock_t cpu_start = std::clock();
    const auto start = Clock::now();
    read();
    const double wall = seconds_since(start);
    const double cpu = static_cast<double>(std::clock() - cpu_start) / CLOCKS_PER_SEC;
    if (wall < best.wall) {
      best = Timing{wall, cpu};
    }
  }
  return best;
}

// Child processes: each reader runs in a fresh process so that the peak
// memory is its own. Prints: wall cpu peak mesh_bytes triangles quads.
int run_child_ours(const std::string& path, int threads, int repeats) {
  kv::MeshReadOptions options;
  options.threads = threads;
  std::uint64_t bytes = 0;
  std::uint64_t triangles = 0;
  std::uint64_t quads = 0;
  const Timing timing = time_best(repeats, [&] {
    kv::ObjReadResult result = kv::read_obj(path, options);
    bytes = kv::bench::mesh_array_bytes(result.mesh);
    triangles = result.mesh.triangles.size();
    quads = result.stats.quads_split;
  });
  std::printf("%.6f %.6f %llu %llu %llu %llu\n", timing.wall, timing.cpu,
              static_cast<unsigned long long>(kv::platform::peak_resident_bytes()),
              static_cast<unsigned long long>(bytes), static_cast<unsigned long long>(triangles),
              static_cast<unsigned long long>(quads));
  return 0;
}

int run_child_peer(const std::string& path, int repeats) {
  std::uint64_t triangles = 0;
  bool ok = true;
  std::string err;
  const std::string folder = std::filesystem::path(path).parent_path().string();
  const Timing timing = time_best(repeats, [&] {
    tinyobj::attrib_t attrib;
    std::vector<tinyobj::shape_t> shapes;
    std::vector<tinyobj::material_t> materials;
    std::string warn;
    // Triangulating, as read_obj does.
    ok = tinyobj::LoadObj(&attrib, &shapes, &materials, &warn, &err, path.c_str(), folder.c_str(),
                          true) &&
         ok;
    triangles = 0;
    for (const auto& s : shapes) {
      triangles += s.mesh.indices.size() / 3;
    }
  });
  if (!ok) {
    std::fprintf(stderr, "tinyobjloader failed: %s\n", err.c_str());
    return 1;
  }
  std::printf("%.6f %.6f %llu 0 %llu 0\n", timing.wall, timing.cpu,
              static_cast<unsigned long long>(kv::platform::peak_resident_bytes()),
              static_cast<unsigned long long>(triangles));
  return 0;
}

// The whole-file read alone, as read_obj does it before parsing.
int run_child_plain(const std::string& path, int threads, int repeats) {
  const Timing timing = time_best(repeats, [&] { kv::bench::plain_read(path, threads); });
  std::printf("%.6f %.6f %llu 0 0 0\n", timing.wall, timing.cpu,
              static_cast<unsigned long long>(kv::platform::peak_resident_bytes()));
  return 0;
}

struct ChildReport {
  double wall = 0;
  double cpu = 0;
  unsigned long long peak = 0, bytes = 0, triangles = 0, quads = 0;
};

ChildReport run_child(const std::vector<std::string>& args) {
  const kv::platform::ProcessResult child = kv::platform::run_process(args, "");
  ChildReport r;
  if (child.exit_code != 0 || std::sscanf(child.out.c_str(), "%lf %lf %llu %llu %llu %llu", &r.wall,
                                          &r.cpu, &r.peak, &r.bytes, &r.triangles, &r.quads) != 6) {
    throw kv::Error("a reading run failed: " + child.out + child.err);
  }
  return r;
}

using kv::bench::warm_page_cache;

using kv::bench::option_value;

bool has_flag(int argc, char** argv, const char* name) {
  for (int i = 1; i < argc; ++i) {
    if (std::string(argv[i]) == name) {
      return true;
    }
  }
  return false;
}

int run(int argc, char** argv) {
  if (argc == 5 && std::string(argv[1]) == "--child-ours") {
    return run_child_ours(argv[2], std::atoi(argv[3]), std::atoi(argv[4]));
  }
  if (argc == 4 && std::string(argv[1]) == "--child-peer") {
    return run_child_peer(argv[2], std::atoi(argv[3]));
  }
  if (argc == 5 && std::string(argv[1]) == "--child-plain") {
    return run_child_plain(argv[2], std::atoi(argv[3]), std::atoi(argv[4]));
  }
  const int threads = std::atoi(option_value(argc, argv, "--threads", "2").c_str());
  const int repeats = std::max(1, std::atoi(option_value(argc, argv, "--repeats", "3").c_str()));
  kv::bench::BenchObjShape shape;
  shape.grid = std::atoi(option_value(argc, argv, "--grid", "360").c_str());
  shape.objects = std::atoi(option_value(argc, argv, "--objects", "8").c_str());
  const std::filesystem::path folder =
      option_value(argc, argv, "--dir", kv::platform::get_env("TMPDIR").value_or("/tmp").c_str());
  kv::platform::create_directories(folder);
  const std::filesystem::path path =
      folder / ("korvane_obj_bench_" + std::to_string(kv::platform::process_id()) + ".obj");

  auto start = Clock::now();
  const kv::bench::BenchObjInfo info = kv::bench::write_bench_obj(path, shape);
  std::printf("wrote %s: %.1f MB, %llu positions, %llu triangles (%llu quads) in %.2f s\n",
              path.string().c_str(), static_cast<double>(info.bytes) / 1e6,
              static_cast<unsigned long long>(info.positions),
              static_cast<unsigned long long>(info.triangles),
              static_cast<unsigned long long>(info.quads), seconds_since(start));
  warm_page_cache(path.string());

  const ChildReport ours = run_child(
      {argv[0], "--child-ours", path.string(), std::to_string(threads), std::to_string(repeats)});
  const ChildReport peer =
      run_child({argv[0], "--child-peer", path.string(), std::to_string(repeats)});
  const ChildReport plain = run_child(
      {argv[0], "--child-plain", path.string(), std::to_string(threads), std::to_string(repeats)});
  if (ours.triangles != info.triangles || ours.quads != info.quads ||
      peer.triangles != info.triangles) {
    std::fprintf(stderr, "triangle counts differ: read_obj %llu (%llu quads), tinyobjloader %llu\n",
                 ours.triangles, ours.quads, peer.triangles);
    return 1;
  }

  const double mb = static_cast<double>(info.bytes) / 1e6;
  const double ratio = peer.wall / ours.wall;
  const std::uint64_t budget = info.bytes + 2 * ours.bytes;
  std::printf("threads %d, best of %d, warm page cache\n", threads, repeats);
  std::printf("read_obj:      %8.1f MB/s (%.3f s wall, %.3f s CPU), peak %.1f MB\n", mb / ours.wall,
              ours.wall, ours.cpu, static_cast<double>(ours.peak) / 1e6);
  std::printf("tinyobjloader: %8.1f MB/s (%.3f s wall, %.3f s CPU), peak %.1f MB\n", mb / peer.wall,
              peer.wall, peer.cpu, static_cast<double>(peer.peak) / 1e6);
  std::printf("ratio:         %8.2fx (target >= 8x): %s\n", ratio, ratio >= 8.0 ? "met" : "MISSED");
  std::printf("CPU time ratio (tinyobjloader / read_obj): %.2fx\n", peer.cpu / ours.cpu);
  std::printf("the file read into fresh memory alone: %.3f s wall (%.0f%% of read_obj)\n",
              plain.wall, 100.0 * plain.wall / ours.wall);
  std::printf("peak memory of read_obj: %.1f MB; file %.1f MB + 2 x mesh %.1f MB = %.1f MB: %s\n",
              static_cast<double>(ours.peak) / 1e6, mb, static_cast<double>(ours.bytes) / 1e6,
              static_cast<double>(budget) / 1e6, ours.peak <= budget ? "met" : "MISSED");

  if (!has_flag(argc, argv, "--keep")) {
    kv::platform::remove_file(path);
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run(argc, argv);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "obj_read_bench: %s\n", error.what());
    return 1;
  }
}
