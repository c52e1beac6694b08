// A whole command-line bake of the standard scene (meshes read from .kvm,
// bake, padding, EXR written) beside its limit measured in the same run: the
// plain Embree loop over the same rays plus the time to read the two .kvm
// files. The bake's own summary line (with its phase times) is printed too.
//
//   bake_command_bench [--threads N] [--size S] [--aa A]
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "cli/bake_command.h"
#include "common/bench_common.h"
#include "core/parallel.h"
#include "limit/plain_embree.h"
#include "mesh/kvm_file.h"
#include "platform/platform.h"
#include "scene/standard_scene.h"

using kv::bench::Clock;
using kv::bench::int_option;
using kv::bench::seconds_since;

int main(int argc, char** argv) {
  const int threads = int_option(argc, argv, "--threads", 2);
  const int size = int_option(argc, argv, "--size", 2048);
  const int aa = int_option(argc, argv, "--aa", 1);

  const auto folder = std::filesystem::temp_directory_path() /
                      ("kv-bake-command-bench-" + std::to_string(kv::platform::process_id()));
  std::filesystem::create_directories(folder);
  {
    const kv::bench::StandardScene scene = kv::bench::make_standard_scene();
    kv::write_kvm(folder / "low.kvm", scene.low, kv::kKvmUvDouble | kv::kKvmNormalsAsIs);
    kv::write_kvm(folder / "high.kvm", scene.high, kv::kKvmUvDouble | kv::kKvmNormalsAsIs);
  }

  // The limit: reading both files, then the same rays through plain Embree.
  Clock::time_point start = Clock::now();
  const kv::Mesh low = kv::read_kvm(folder / "low.kvm", threads);
  const kv::Mesh high = kv::read_kvm(folder / "high.kvm", threads);
  const double read_seconds = seconds_since(start);

  kv::NormalBakeSettings settings;
  settings.low = folder / "low.kvm";
  settings.high = folder / "high.kvm";
  settings.out_normal = folder / "normal.exr";
  settings.width = size;
  settings.height = size;
  settings.aa = aa;
  settings.threads = threads;

  const kv::WorkerPool pool(threads);
  const kv::bench::PlainEmbree plain(high, threads);
  const kv::bench::PlainRun limit = kv::bench::plain_trace(low, high, settings, plain, pool);

  start = Clock::now();
  kv::cli::bake_command(settings);  // prints its summary line
  const double bake_seconds = seconds_since(start);

  const double limit_seconds = limit.seconds + read_seconds;
  std::printf("%dx%d aa %d, %d threads: %llu rays\n", size, size, aa, threads,
              static_cast<unsigned long long>(limit.rays));
  std::printf("limit: read two .kvm %.3f s + plain rtcIntersect1 %.3f s = %.3f s\n", read_seconds,
              limit.seconds, limit_seconds);
  std::printf("whole bake command: %.3f s; ratio to the limit %.3f (target at most 2)\n",
              bake_seconds, bake_seconds / limit_seconds);
  std::filesystem::remove_all(folder);
  return 0;
}
