#include "mesh/isolated_read.h"

// The child is a fork() of this process, not a fresh start of the executable:
// it needs no path to the program, works the same inside a test binary, and
// starts in about a millisecond with the readers already loaded. It only
// parses and writes on its one thread (it uses no worker pool), and it ends
// with _exit, so nothing of the parent's state runs twice.

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include "core/error.h"
#include "mesh/fbx_reader.h"
#include "mesh/gltf_reader.h"
#include "mesh/kvm_file.h"
#include "platform/platform.h"

namespace kv {
namespace {

constexpr std::uint64_t kMiB = std::uint64_t{1} << 20;
constexpr std::uint64_t kLeastChildMemory = std::uint64_t{1} << 30;
constexpr std::uint64_t kChildMemoryPerInputByte = 32;
constexpr std::uint64_t kChildStackBytes = 16 * kMiB;
constexpr std::int64_t kLeastChildMs = 20000;
constexpr std::int64_t kChildMsPerMiB = 1000;

// The child's exit code when it could not write its report.
constexpr int kReportFailedExit = 71;

std::atomic<detail::ChildFault> g_child_fault{detail::ChildFault::none};

// What the child's report says; the mesh, when there is one, is in the image.
enum class ReportKind : std::uint32_t { mesh = 1, error = 2, out_of_memory = 3 };

// The report: kind, the four MeshStats counters, the message's length and
// bytes, all as they lie in memory (parent and child are the same program).
struct Report {
  ReportKind kind = ReportKind::error;
  MeshStats stats;
  std::string message;
};

int write_report(platform::File& file, ReportKind kind, const MeshStats& stats,
                 const std::string& message) {
  const std::uint64_t length = message.size();
  std::string bytes(sizeof kind + sizeof stats + sizeof length, '\0');
  std::memcpy(bytes.data(), &kind, sizeof kind);
  std::memcpy(bytes.data() + sizeof kind, &stats, sizeof stats);
  std::memcpy(bytes.data() + sizeof kind + sizeof stats, &length, sizeof length);
  bytes += message;
  return file.write_all(bytes.data(), bytes.size()) == 0 ? 0 : kReportFailedExit;
}

// The report the child left; false when it left none that is whole.
bool read_report(const platform::File& file, Report& report) {
  int error = 0;
  std::uint64_t length = 0;
  char head[sizeof(ReportKind) + sizeof(MeshStats) + sizeof length];
  if (file.read_full_at(head, sizeof head, 0, &error) != static_cast<std::int64_t>(sizeof head)) {
    return false;
  }
  std::memcpy(&report.kind, head, sizeof report.kind);
  std::memcpy(&report.stats, head + sizeof report.kind, sizeof report.stats);
  std::memcpy(&length, head + sizeof report.kind + sizeof report.stats, sizeof length);
  const std::int64_t size = file.size(&error);
  if (size < 0 || length != static_cast<std::uint64_t>(size) - sizeof head) {
    return false;
  }
  report.message.resize(length);
  return file.read_full_at(report.message.data(), length, sizeof head, &error) ==
         static_cast<std::int64_t>(length);
}

void meet_child_fault() {
  switch (g_child_fault.load()) {
    case detail::ChildFault::none:
      return;
    case detail::ChildFault::crash:
      std::abort();
    case detail::ChildFault::hang:
      for (;;) {
        platform::sleep_ms(1000);
      }
    case detail::ChildFault::exhaust_memory: {
      std::vector<std::unique_ptr<char[]>> blocks;
      for (;;) {
        blocks.emplace_back(new char[64 * kMiB]);
        blocks.back()[0] = 1;
      }
    }
  }
}

// Every array these readers fill travels in the image: materials when there
// are any, blocks likewise; UVs as float64 and normals as read.
std::uint32_t image_flags(const Mesh& mesh) {
  return kKvmUvDouble | kKvmNormalsAsIs | (mesh.materials.empty() ? 0u : kKvmMaterials) |
         (mesh.blocks.empty() ? 0u : kKvmBlocks);
}

// The child's whole work: read, write the image, report. Returns its exit code.
int read_in_child(const std::filesystem::path& path, MeshFormat format, MeshReadOptions options,
                  platform::File& report, platform::File& image) {
  options.threads = 1;  // the forking thread is the child's only one
  MeshStats stats;
  try {
    meet_child_fault();
    const Mesh mesh = format == MeshFormat::Fbx ? read_fbx(path, options, &stats)
                                                : read_gltf(path, options, &stats);
    write_kvm(image, path, mesh, image_flags(mesh));
  } catch (const std::bad_alloc&) {
    return platform::kChildOutOfMemoryExit;
  } catch (const std::length_error&) {
    return platform::kChildOutOfMemoryExit;
  } catch (const OutOfMemory& e) {
    return write_report(report, ReportKind::out_of_memory, {}, e.what());
  } catch (const std::exception& e) {
    return write_report(report, ReportKind::error, {}, e.what());
  }
  return write_report(report, ReportKind::mesh, stats, {});
}

// "12 s", or "1.5 s" for a limit that is not whole seconds.
std::string seconds_text(std::int64_t ms) {
  std::string text = std::to_string(ms / 1000);
  if (ms % 1000 != 0) {
    std::string fraction = std::to_string(1000 + ms % 1000).substr(1);
    fraction.erase(fraction.find_last_not_of('0') + 1);
    text += "." + fraction;
  }
  return text + " s";
}

// The error for a child that ended without a report of its own.
[[noreturn]] void fail_by_outcome(const std::string& prefix, const std::string& reader,
                                  const platform::ChildOutcome& outcome, std::int64_t timeout_ms) {
  switch (outcome.end) {
    case platform::ChildEnd::not_started:
      throw Error(prefix + "cannot start the " + reader + ": " +
                  platform::system_error_text(outcome.value));
    case platform::ChildEnd::timed_out:
      throw Error(prefix + "the " + reader + " did not finish within " + seconds_text(timeout_ms));
    case platform::ChildEnd::out_of_memory:
      throw OutOfMemory(prefix + "the " + reader + " ran out of memory");
    case platform::ChildEnd::signalled:
      throw Error(prefix + "the " + reader + " stopped on signal " + std::to_string(outcome.value));
    case platform::ChildEnd::exited:
      break;
  }
  throw Error(prefix + "the " + reader +
              (outcome.value == 0 ? " ended without a result"
                                  : " ended with exit code " + std::to_string(outcome.value)));
}

// The bytes a read of the file touches: the file, and for a text glTF the
// .bin files beside it, where its buffers usually are.
std::uint64_t input_bytes(const std::filesystem::path& path, MeshFormat format) {
  int error = 0;
  const auto status = platform::file_status(path, &error);
  std::uint64_t bytes = status ? status->size : 0;
  std::string magic(4, '\0');
  platform::File file = platform::File::open_read(path, &error);
  const bool binary = file.is_open() && file.read_full(magic.data(), 4, &error) == 4 &&
                      (magic == "glTF" || format == MeshFormat::Fbx);
  if (!binary) {
    const auto entries = platform::list_directory(
        path.has_parent_path() ? path.parent_path() : std::filesystem::path("."), &error);
    for (const platform::DirEntry& entry : entries ? *entries : std::vector<platform::DirEntry>{}) {
      const std::size_t n = entry.name.size();
      if (entry.status.is_regular && n > 4 && entry.name.compare(n - 4, 4, ".bin") == 0) {
        bytes += entry.status.size;
      }
    }
  }
  return bytes;
}

}  // namespace

IsolationLimits isolation_limits_for(std::uint64_t input_bytes, const MeshReadOptions& options) {
  IsolationLimits limits;
  const std::uint64_t per_byte = input_bytes > UINT64_MAX / kChildMemoryPerInputByte
                                     ? UINT64_MAX
                                     : input_bytes * kChildMemoryPerInputByte;
  limits.memory_bytes = std::max(kLeastChildMemory, per_byte);
  if (options.memory_limit_bytes != 0) {
    limits.memory_bytes = std::min(limits.memory_bytes, options.memory_limit_bytes);
  }
  limits.stack_bytes = kChildStackBytes;
  limits.timeout_ms =
      kLeastChildMs + static_cast<std::int64_t>(input_bytes / kMiB) * kChildMsPerMiB;
  return limits;
}

Mesh read_isolated(const std::filesystem::path& path, MeshFormat format,
                   const MeshReadOptions& options, MeshStats* stats) {
  return read_isolated(path, format, options, stats,
                       isolation_limits_for(input_bytes(path, format), options));
}

Mesh read_isolated(const std::filesystem::path& path, MeshFormat format,
                   const MeshReadOptions& options, MeshStats* stats,
                   const IsolationLimits& limits) {
  const std::string prefix = path.string() + ": ";
  const std::string reader = format == MeshFormat::Fbx ? "FBX reader" : "glTF reader";
  int error = 0;
  platform::File report = platform::create_memory_file("korvane-mesh-report", &error);
  platform::File image = platform::create_memory_file("korvane-mesh-image", &error);
  if (!report.is_open() || !image.is_open()) {
    throw Error(prefix + "cannot start the " + reader + ": " + platform::system_error_text(error));
  }
  platform::ChildLimits child;
  child.memory_bytes = limits.memory_bytes;
  child.stack_bytes = limits.stack_bytes;
  child.timeout_ms = limits.timeout_ms;
  const platform::ChildOutcome outcome = platform::run_in_child(
      [&] { return read_in_child(path, format, options, report, image); }, child);
  Report result;
  if (outcome.end != platform::ChildEnd::exited || outcome.value != 0 ||
      !read_report(report, result)) {
    fail_by_outcome(prefix, reader, outcome, limits.timeout_ms);
  }
  if (result.kind == ReportKind::out_of_memory) {
    throw OutOfMemory(result.message);
  }
  if (result.kind != ReportKind::mesh) {
    throw Error(result.message);
  }
  const int rewound = image.rewind();
  if (rewound != 0) {
    throw Error(prefix + "cannot read the mesh from the " + reader + ": " +
                platform::system_error_text(rewound));
  }
  Mesh mesh = read_kvm(image, path, options.threads);
  if (stats != nullptr) {
    *stats = result.stats;
  }
  return mesh;
}

namespace detail {

void set_child_fault(ChildFault fault) {
  g_child_fault.store(fault);
}

}  // namespace detail

}  // namespace kv
