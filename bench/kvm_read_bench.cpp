// .kvm reading: read_kvm against read_obj of the same mesh, in one run. The
// benchmark OBJ is written, read once and stored as .kvm (flags 3, as the mesh
// cache stores it); each reader then runs in a fresh child process so that its
// peak memory is its own. Prints the throughput of read_kvm, the time ratio
// read_obj / read_kvm and the peak memory of read_kvm against the mesh size.
// Target, 2 threads, warm page cache: read_kvm >= 10x faster than read_obj.
//
//   kvm_read_bench [--threads N (2)] [--grid cells (360)] [--objects N (8)]
//                  [--repeats N (3)] [--dir folder] [--keep]
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "common/bench_common.h"
#include "core/error.h"
#include "mesh/kvm_file.h"
#include "mesh/obj_reader.h"
#include "obj/bench_obj.h"
#include "platform/platform.h"

namespace {

using kv::bench::Clock;
using kv::bench::seconds_since;

// Child: reads the file `repeats` times with one reader and prints
// "best_wall peak_bytes mesh_bytes triangles".
int run_child(const std::string& reader, const std::string& path, int threads, int repeats) {
  double best = 1e30;
  std::uint64_t bytes = 0;
  std::uint64_t triangles = 0;
  for (int r = 0; r < repeats; ++r) {
    const auto start = Clock::now();
    kv::Mesh mesh;
    if (reader == "plain") {
      // The floor of any reader that reads the file in one sequential call:
      // the same bytes into fresh memory, its pages mapped on `threads`
      // threads first as read_kvm maps its arrays.
      kv::bench::plain_read(path, threads);
    } else if (reader == "kvm") {
      mesh = kv::read_kvm(path, threads);
    } else {
      kv::MeshReadOptions options;
      options.threads = threads;
      mesh = kv::read_obj(path, options).mesh;
    }
    best = std::min(best, seconds_since(start));
    bytes = kv::bench::mesh_array_bytes(mesh);
    triangles = mesh.triangles.size();
  }
  std::printf("%.6f %llu %llu %llu\n", best,
              static_cast<unsigned long long>(kv::platform::peak_resident_bytes()),
              static_cast<unsigned long long>(bytes), static_cast<unsigned long long>(triangles));
  return 0;
}

struct ChildReport {
  double wall = 0;
  unsigned long long peak = 0, bytes = 0, triangles = 0;
};

ChildReport child(const char* self, const std::string& reader, const std::string& path, int threads,
                  int repeats) {
  const kv::platform::ProcessResult run = kv::platform::run_process(
      {self, "--child", reader, path, std::to_string(threads), std::to_string(repeats)}, "");
  ChildReport r;
  if (run.exit_code != 0 || std::sscanf(run.out.c_str(), "%lf %llu %llu %llu", &r.wall, &r.peak,
                                        &r.bytes, &r.triangles) != 4) {
    throw kv::Error("the " + reader + " reading run failed: " + run.out + run.err);
  }
  return r;
}

using kv::bench::warm_page_cache;

using kv::bench::option_value;

// Child: writes the OBJ, reads it and stores it as .kvm. Kept out of the
// parent because the peak resident size a process reports is inherited by
// the programs it starts.
int run_prepare(const std::string& obj_path, const std::string& kvm_path, int grid, int objects,
                int threads) {
  kv::bench::BenchObjShape shape;
  shape.grid = grid;
  shape.objects = objects;
  const kv::bench::BenchObjInfo info = kv::bench::write_bench_obj(obj_path, shape);
  kv::MeshReadOptions options;
  options.threads = threads;
  const kv::Mesh mesh = kv::read_obj(obj_path, options).mesh;
  kv::write_kvm(kvm_path, mesh, kv::kKvmUvDouble | kv::kKvmNormalsAsIs);
  std::printf("%llu %llu %llu\n", static_cast<unsigned long long>(info.bytes),
              static_cast<unsigned long long>(info.positions),
              static_cast<unsigned long long>(info.triangles));
  return 0;
}

int run(int argc, char** argv) {
  if (argc == 6 && std::string(argv[1]) == "--child") {
    return run_child(argv[2], argv[3], std::atoi(argv[4]), std::atoi(argv[5]));
  }
  if (argc == 7 && std::string(argv[1]) == "--prepare") {
    return run_prepare(argv[2], argv[3], std::atoi(argv[4]), std::atoi(argv[5]),
                       std::atoi(argv[6]));
  }
  const int threads = std::atoi(option_value(argc, argv, "--threads", "2").c_str());
  const int repeats = std::max(1, std::atoi(option_value(argc, argv, "--repeats", "3").c_str()));
  kv::bench::BenchObjShape shape;
  shape.grid = std::atoi(option_value(argc, argv, "--grid", "360").c_str());
  shape.objects = std::atoi(option_value(argc, argv, "--objects", "8").c_str());
  bool keep = false;
  for (int i = 1; i < argc; ++i) {
    keep = keep || std::string(argv[i]) == "--keep";
  }
  const std::filesystem::path folder =
      option_value(argc, argv, "--dir", kv::platform::get_env("TMPDIR").value_or("/tmp").c_str());
  kv::platform::create_directories(folder);
  const std::string stem = "korvane_kvm_bench_" + std::to_string(kv::platform::process_id());
  const std::filesystem::path obj_path = folder / (stem + ".obj");
  const std::filesystem::path kvm_path = folder / (stem + ".kvm");

  const kv::platform::ProcessResult prepared = kv::platform::run_process(
      {argv[0], "--prepare", obj_path.string(), kvm_path.string(), std::to_string(shape.grid),
       std::to_string(shape.objects), std::to_string(threads)},
      "");
  kv::bench::BenchObjInfo info;
  unsigned long long bytes = 0, positions = 0, triangles = 0;
  if (prepared.exit_code != 0 ||
      std::sscanf(prepared.out.c_str(), "%llu %llu %llu", &bytes, &positions, &triangles) != 3) {
    throw kv::Error("preparing the files failed: " + prepared.out + prepared.err);
  }
  info.bytes = bytes;
  info.positions = positions;
  info.triangles = triangles;
  int error = 0;
  const std::uint64_t kvm_size = kv::platform::file_status(kvm_path, &error).value().size;
  std::printf("mesh: %llu triangles, %llu positions; OBJ %.1f MB, .kvm %.1f MB\n",
              static_cast<unsigned long long>(info.triangles),
              static_cast<unsigned long long>(info.positions),
              static_cast<double>(info.bytes) / 1e6, static_cast<double>(kvm_size) / 1e6);

  warm_page_cache(obj_path.string());
  warm_page_cache(kvm_path.string());
  const ChildReport kvm = child(argv[0], "kvm", kvm_path.string(), threads, repeats);
  const ChildReport obj = child(argv[0], "obj", obj_path.string(), threads, repeats);
  const ChildReport plain = child(argv[0], "plain", kvm_path.string(), threads, repeats);
  if (!keep) {
    kv::platform::remove_file(obj_path);
    kv::platform::remove_file(kvm_path);
  }
  if (kvm.triangles != info.triangles || obj.triangles != info.triangles) {
    std::fprintf(stderr, "triangle counts differ: read_kvm %llu, read_obj %llu, written %llu\n",
                 kvm.triangles, obj.triangles, static_cast<unsigned long long>(info.triangles));
    return 1;
  }

  const double ratio = obj.wall / kvm.wall;
  std::printf("read_kvm: %.3f s, %.0f MB/s (%d threads)\n", kvm.wall,
              static_cast<double>(kvm_size) / 1e6 / kvm.wall, threads);
  std::printf("read_obj: %.3f s, %.0f MB/s\n", obj.wall,
              static_cast<double>(info.bytes) / 1e6 / obj.wall);
  std::printf("ratio read_obj / read_kvm: %.1fx (target >= 10x): %s\n", ratio,
              ratio >= 10.0 ? "met" : "NOT met");
  std::printf(
      "one plain read of the .kvm into fresh memory: %.3f s (read_kvm / plain %.2f; "
      "read_obj / plain %.1fx, the most a one-read reader can reach)\n",
      plain.wall, kvm.wall / plain.wall, obj.wall / plain.wall);
  std::printf("peak memory of read_kvm: %.1f MB for a %.1f MB mesh (%.2fx); read_obj: %.1f MB\n",
              static_cast<double>(kvm.peak) / 1e6, static_cast<double>(kvm.bytes) / 1e6,
              static_cast<double>(kvm.peak) / static_cast<double>(kvm.bytes),
              static_cast<double>(obj.peak) / 1e6);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run(argc, argv);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "kvm_read_bench: %s\n", e.what());
    return 1;
  }
}
