#include "service/serve_options.h"

#include <algorithm>
#include <limits>
#include <string_view>

#include "core/error.h"
#include "core/parse_number.h"
#include "mesh/mesh_cache.h"
#include "run/option_values.h"

namespace kv::service {
namespace {

using pipeline::UsageError;

constexpr std::uint64_t kMiB = 1048576;
constexpr std::uint32_t kMaxMiB = 1073741824;

std::uint32_t read_count(std::string_view option, std::string_view value, std::uint64_t max) {
  const auto parsed = parse_uint64(value);
  if (!parsed || *parsed > max) {
    pipeline::throw_invalid_value(option, value);
  }
  return static_cast<std::uint32_t>(*parsed);
}

void check_minimums(const ServeOptions& o, bool threads, bool load_threads, bool cache_max) {
  if (threads && o.threads == 0) {
    throw UsageError("--threads must be at least 1");
  }
  if (load_threads && o.load_threads == 0) {
    throw UsageError("--load-threads must be at least 1");
  }
  if (cache_max && o.cache_max_mb == 0) {
    throw UsageError("--cache-max-mb must be at least 1");
  }
}

}  // namespace

ServeOptions parse_serve_options(const std::vector<std::string>& args) {
  if (args.size() < 2 || args[1] != "serve") {
    throw UsageError("serve must be the first argument");
  }
  ServeOptions o;
  bool pid_given = false, threads = false, load_threads = false, cache_max = false;
  for (std::size_t i = 2; i < args.size(); ++i) {
    const std::string& option = args[i];
    const bool known = option == "--parent-pid" || option == "--threads" ||
                       option == "--load-threads" || option == "--cache-dir" ||
                       option == "--cache-max-mb" || option == "--memory-budget-mb";
    if (!known) {
      throw UsageError("unknown serve option " + option +
                       " (korvane serve takes only --parent-pid, --threads, --load-threads, "
                       "--cache-dir, --cache-max-mb and --memory-budget-mb)");
    }
    if (i + 1 >= args.size()) {
      throw UsageError("missing value for " + option);
    }
    const std::string& value = args[++i];
    if (option == "--parent-pid") {
      o.parent_pid = read_count(option, value, std::numeric_limits<std::uint32_t>::max());
      if (o.parent_pid == 0) {
        pipeline::throw_invalid_value("--parent-pid", value);
      }
      pid_given = true;
    } else if (option == "--threads") {
      o.threads = read_count(option, value, 4096);
      threads = true;
    } else if (option == "--load-threads") {
      o.load_threads = read_count(option, value, 4096);
      load_threads = true;
    } else if (option == "--cache-dir") {
      o.cache_dir = pipeline::read_path_value(value);
    } else if (option == "--cache-max-mb") {
      o.cache_max_mb = read_count(option, value, kMaxMiB);
      cache_max = true;
    } else {
      o.memory_budget_mb = read_count(option, value, kMaxMiB);
    }
  }
  // A repeated option overrides the earlier value, so the minimums are
  // checked on the values that stand.
  check_minimums(o, threads, load_threads, cache_max);
  if (!pid_given) {
    throw UsageError("korvane serve needs --parent-pid <pid>");
  }
  return o;
}

int resolve_worker_threads(std::uint32_t option, int hardware_threads) {
  if (option >= 1) {
    return static_cast<int>(option);
  }
  return hardware_threads < 4 ? 1 : hardware_threads - 2;
}

ResolvedCounts resolve_counts(const ServeOptions& options, int hardware_threads) {
  ResolvedCounts r;
  r.threads = resolve_worker_threads(options.threads, hardware_threads);
  r.load_threads = options.load_threads >= 1
                       ? std::min(r.threads, static_cast<int>(options.load_threads))
                       : r.threads;
  if (!options.cache_dir.empty()) {
    r.cache_dir = options.cache_dir;
  } else if (const auto folder = default_mesh_cache_folder()) {
    r.cache_dir = *folder;
  }
  r.cache_max_bytes =
      options.cache_max_mb >= 1 ? options.cache_max_mb * kMiB : kMeshCacheDefaultCapBytes;
  return r;
}

}  // namespace kv::service
