// The memory watch: a thread that looks at the system's free memory now and
// then and, when it runs low, drops the kept scenes and LowPreps, which the
// next bake can build again.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <thread>

namespace kv::service {

// Free memory below this is low: a quarter of the budget, at least 512 MiB
// (with no budget known, 512 MiB). Kept scenes are a convenience; a bake
// that fails for memory they hold is not.
std::uint64_t low_memory_threshold(std::uint64_t budget_bytes);

class MemoryWatch {
 public:
  // `available` reads the free memory, `trim` drops the kept scenes.
  MemoryWatch(std::uint64_t threshold_bytes, std::function<std::uint64_t()> available,
              std::function<void()> trim, int interval_ms = 1000);
  ~MemoryWatch();  // stops: sets the flag, wakes the thread, joins it
  MemoryWatch(const MemoryWatch&) = delete;
  MemoryWatch& operator=(const MemoryWatch&) = delete;

 private:
  void run();

  std::uint64_t threshold_;
  std::function<std::uint64_t()> available_;
  std::function<void()> trim_;
  int interval_ms_;
  std::mutex lock_;
  std::condition_variable wake_;
  bool stop_ = false;
  std::thread thread_;
};

}  // namespace kv::service
