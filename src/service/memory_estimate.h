// The memory a job needs, and the service's automatic budget.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kv::service {

struct JobShape {
  std::uint32_t width, height, antialias;
  std::vector<std::string> maps;
  bool gpu;
  std::uint64_t high_triangles;
  std::uint64_t low_triangles;
};
struct MemoryEstimate {
  std::uint64_t total_bytes, texel_bytes, texture_bytes, mesh_bytes;
};
MemoryEstimate estimate_job_memory(const JobShape& shape);
std::uint64_t automatic_budget_bytes();

}  // namespace kv::service
