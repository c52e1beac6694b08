// Temporary stand-in until the memory estimate lands.
#include "service/memory_estimate.h"

#include "core/error.h"

namespace kv::service {

MemoryEstimate estimate_job_memory(const JobShape&) {
  throw kv::Error("the memory estimate is not built");
}

std::uint64_t automatic_budget_bytes() {
  throw kv::Error("the memory estimate is not built");
}

}  // namespace kv::service
