// The `korvane serve` command line and the counts resolved from it once at
// start-up.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace kv::service {

struct ServeOptions {
  std::uint32_t parent_pid = 0;
  std::uint32_t threads = 0;           // 0: automatic
  std::uint32_t load_threads = 0;      // 0: automatic
  std::filesystem::path cache_dir;     // empty: the default folder
  std::uint32_t cache_max_mb = 0;      // 0: 8192 MiB
  std::uint32_t memory_budget_mb = 0;  // 0: automatic
};

// Reads the whole argument list ("serve" is element 1). Throws
// pipeline::UsageError with the first problem's message.
ServeOptions parse_serve_options(const std::vector<std::string>& args);

struct ResolvedCounts {
  int threads = 1;
  int load_threads = 1;
  std::filesystem::path cache_dir;  // empty: no mesh cache
  std::uint64_t cache_max_bytes = 0;
};

// The option when given; otherwise the hardware's threads minus two (one
// below four threads), so the client keeps cores for itself.
int resolve_worker_threads(std::uint32_t option, int hardware_threads);
ResolvedCounts resolve_counts(const ServeOptions& options, int hardware_threads);

}  // namespace kv::service
