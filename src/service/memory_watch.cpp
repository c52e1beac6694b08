#include "service/memory_watch.h"

#include <algorithm>
#include <chrono>

namespace kv::service {

std::uint64_t low_memory_threshold(std::uint64_t budget_bytes) {
  constexpr std::uint64_t kFloor = 512ull * 1048576;
  return std::max(kFloor, budget_bytes / 4);
}

MemoryWatch::MemoryWatch(std::uint64_t threshold_bytes, std::function<std::uint64_t()> available,
                         std::function<void()> trim, int interval_ms)
    : threshold_(threshold_bytes),
      available_(std::move(available)),
      trim_(std::move(trim)),
      interval_ms_(interval_ms),
      thread_([this] { run(); }) {}

MemoryWatch::~MemoryWatch() {
  {
    std::lock_guard guard(lock_);
    stop_ = true;
  }
  wake_.notify_all();
  thread_.join();
}

void MemoryWatch::run() {
  std::unique_lock guard(lock_);
  while (
      !wake_.wait_for(guard, std::chrono::milliseconds(interval_ms_), [this] { return stop_; })) {
    const std::uint64_t free = available_();
    // 0: the system did not say; nothing is known to be low.
    if (free != 0 && free < threshold_) {
      guard.unlock();
      trim_();
      guard.lock();
    }
  }
}

}  // namespace kv::service
