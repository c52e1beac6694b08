// Running a piece of a test with little address space left, so that large
// allocations fail as they would on a machine out of memory.
#pragma once

#include <sys/resource.h>
#include <unistd.h>

#include <cstdint>
#include <fstream>

namespace kv::test {

// Lowers the process's address-space limit to what it maps now plus
// `headroom` bytes; the old limit comes back on destruction.
class AddressSpaceLimit {
 public:
  explicit AddressSpaceLimit(std::uint64_t headroom) {
    saved_ok_ = getrlimit(RLIMIT_AS, &saved_) == 0;
    std::uint64_t pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    rlimit lowered = saved_;
    lowered.rlim_cur = pages * static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE)) + headroom;
    applied_ = saved_ok_ && pages > 0 && lowered.rlim_cur < saved_.rlim_cur &&
               setrlimit(RLIMIT_AS, &lowered) == 0;
  }
  ~AddressSpaceLimit() {
    if (applied_) {
      setrlimit(RLIMIT_AS, &saved_);
    }
  }
  AddressSpaceLimit(const AddressSpaceLimit&) = delete;
  AddressSpaceLimit& operator=(const AddressSpaceLimit&) = delete;
  bool applied() const { return applied_; }

 private:
  rlimit saved_{};
  bool saved_ok_ = false;
  bool applied_ = false;
};

}  // namespace kv::test
