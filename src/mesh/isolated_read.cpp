#include "mesh/isolated_read.h"

// The child is a fork() of this process, not a fresh start of the executable:
// it needs no path to the program, works the same inside a test binary, and
// starts in about a millisecond with the readers already loaded. It only
// parses on its one thread (a fork holds only the forking thread, and the
// worker pool's threads cannot be started again in it) and ends with _exit,
// so nothing of the parent's state runs twice. The glTF reader runs on one
// thread in process too; only the FBX reader's polygon splitting would use
// more there.
//
// Memory: the child's mesh stays the child's; it waits, after its report,
// while the parent copies the arrays out of it into the parent's own Mesh
// (mesh_handover.h), and ends when the parent answers. The memory files and
// the link belong to the parent's call and close with it.

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include "core/error.h"
#include "mesh/fbx_reader.h"
#include "mesh/gltf_reader.h"
#include "mesh/mesh_handover.h"
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
std::atomic<bool> g_read_child_memory{true};

int write_error(platform::File& report, handover::Outcome outcome, const std::string& message) {
  return handover::write_report(report, outcome, {}, message, Mesh{}, {}) == 0 ? 0
                                                                               : kReportFailedExit;
}

void meet_child_fault() {
  switch (g_child_fault.load()) {
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
    default:
      return;
  }
}

// The faults that corrupt the handover rather than the read: tests only.
void corrupt_handover(Mesh& mesh, handover::MeshLayout& layout) {
  switch (g_child_fault.load()) {
    case detail::ChildFault::index_out_of_range:
      mesh.triangles.back().corners[1].position = static_cast<std::uint32_t>(mesh.positions.size());
      return;
    case detail::ChildFault::overstated_count:
      layout[handover::kTriangles].count += std::uint64_t{1} << 28;
      return;
    case detail::ChildFault::truncated_block: {
      // The triangles copied to the end of a mapping, the last one past it.
      const std::size_t bytes = mesh.triangles.size() * sizeof(Triangle);
      const std::size_t room = (bytes / (2 * kMiB) + 1) * 2 * kMiB;
      auto* block = static_cast<char*>(platform::map_large_block(2 * room));
      if (block != nullptr) {
        platform::unmap_large_block(block + room, room);
        char* start = block + room - (bytes - sizeof(Triangle));
        std::memcpy(start, mesh.triangles.data(), bytes - sizeof(Triangle));
        layout[handover::kTriangles].address = reinterpret_cast<std::uintptr_t>(start);
      }
      return;
    }
    default:
      return;
  }
}

// The answers of the parent to a child that reported a mesh.
constexpr char kArraysCopied = 'c';
constexpr char kWriteArrays = 'w';

// The child's whole work: read, report, hand the mesh over. Returns its exit
// code.
int read_in_child(const std::filesystem::path& path, MeshFormat format, MeshReadOptions options,
                  platform::File& report, platform::File& arrays, platform::ChildLink& link) {
  options.threads = 1;  // the forking thread is the child's only one
  MeshStats stats;
  Mesh mesh;
  handover::MeshLayout layout;
  try {
    meet_child_fault();
    mesh = format == MeshFormat::Fbx ? read_fbx(path, options, &stats)
                                     : read_gltf(path, options, &stats);
    layout = handover::layout_of(mesh);
    corrupt_handover(mesh, layout);
    if (handover::write_report(report, handover::Outcome::mesh, stats, {}, mesh, layout) != 0) {
      return kReportFailedExit;
    }
  } catch (const std::bad_alloc&) {
    return platform::kChildOutOfMemoryExit;
  } catch (const std::length_error&) {
    return platform::kChildOutOfMemoryExit;
  } catch (const OutOfMemory& e) {
    return write_error(report, handover::Outcome::out_of_memory, e.what());
  } catch (const std::exception& e) {
    return write_error(report, handover::Outcome::error, e.what());
  }
  if (link.ready_and_wait() == kWriteArrays) {
    handover::write_arrays(arrays, layout);
  }
  return 0;
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
  platform::File arrays = platform::create_memory_file("korvane-mesh-arrays", &error);
  platform::ChildLink link;
  error = link.error() != 0 ? link.error() : error;
  if (!report.is_open() || !arrays.is_open() || link.error() != 0) {
    throw Error(prefix + "cannot start the " + reader + ": " + platform::system_error_text(error));
  }
  platform::ChildLimits child;
  child.memory_bytes = limits.memory_bytes;
  child.stack_bytes = limits.stack_bytes;
  child.timeout_ms = limits.timeout_ms;

  const WorkerPool pool(options.threads);
  handover::MeshReceiver receiver(
      prefix + "the " + reader + " handed back a broken mesh: ", limits.memory_bytes, pool);
  handover::Report result;
  bool collected = false;
  bool through_file = false;
  std::exception_ptr collect_failure;
  // Runs while the child waits: everything it may throw waits until the
  // child's own end is known, which names a crash better.
  const auto collect = [&](std::uint32_t pid) {
    try {
      collected = handover::read_report(report, limits.memory_bytes, result) &&
                  result.outcome == handover::Outcome::mesh;
      if (collected) {
        receiver.take_report(result.mesh_part);
        through_file = !g_read_child_memory.load() || !receiver.copy_from_process(pid);
      }
    } catch (...) {
      collect_failure = std::current_exception();
    }
    link.answer(through_file ? kWriteArrays : kArraysCopied);
  };
  const platform::ChildOutcome outcome = platform::run_in_child(
      [&] { return read_in_child(path, format, options, report, arrays, link); }, child, link,
      collect);

  if (outcome.end != platform::ChildEnd::exited || outcome.value != 0 ||
      (!collected && !handover::read_report(report, limits.memory_bytes, result))) {
    fail_by_outcome(prefix, reader, outcome, limits.timeout_ms);
  }
  if (collect_failure) {
    std::rethrow_exception(collect_failure);
  }
  if (result.outcome == handover::Outcome::out_of_memory) {
    throw OutOfMemory(result.message);
  }
  if (result.outcome != handover::Outcome::mesh || !collected) {
    if (result.outcome == handover::Outcome::error) {
      throw Error(result.message);
    }
    fail_by_outcome(prefix, reader, outcome, limits.timeout_ms);
  }
  if (through_file) {
    receiver.copy_from_file(arrays);
  }
  Mesh mesh = receiver.finish();
  if (stats != nullptr) {
    *stats = result.stats;
  }
  return mesh;
}

namespace detail {

void set_child_fault(ChildFault fault) {
  g_child_fault.store(fault);
}

void set_read_child_memory(bool allowed) {
  g_read_child_memory.store(allowed);
}

}  // namespace detail

}  // namespace kv
