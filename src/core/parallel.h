// Fixed-chunk parallel loops. Work is cut into chunks whose bounds depend only
// on the count and the chunk size, never on the thread count, and results are
// joined in chunk order, so every result is the same on 1 or N threads.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <vector>

namespace kv {

// Number of chunks of chunk_size covering count items (the last may be short).
constexpr std::uint64_t chunk_count(std::uint64_t count, std::uint64_t chunk_size) {
  return chunk_size == 0 ? 0 : (count + chunk_size - 1) / chunk_size;
}

// Smallest failing index seen so far, updated from any thread; the message of
// the first failure in index order is then the same on every run.
class FirstFailure {
 public:
  static constexpr std::uint64_t kNone = std::numeric_limits<std::uint64_t>::max();
  void record(std::uint64_t index) {
    std::uint64_t seen = first_.load(std::memory_order_relaxed);
    while (index < seen && !first_.compare_exchange_weak(seen, index, std::memory_order_relaxed)) {
    }
  }
  std::uint64_t first() const { return first_.load(std::memory_order_relaxed); }
  bool failed() const { return first() != kNone; }

 private:
  std::atomic<std::uint64_t> first_{kNone};
};

using ChunkFn = std::function<void(std::uint64_t chunk, std::uint64_t begin, std::uint64_t end)>;

// A set of worker threads (a oneTBB arena) of a fixed size.
class WorkerPool {
 public:
  // threads = 0 takes every hardware thread.
  explicit WorkerPool(int threads);
  ~WorkerPool();
  WorkerPool(const WorkerPool&) = delete;
  WorkerPool& operator=(const WorkerPool&) = delete;

  int thread_count() const { return threads_; }

  // A pool of one thread that runs every chunk on the calling thread, for
  // work that is already inside a chunk of another pool.
  static const WorkerPool& serial();

  // Calls fn once per chunk of [0, count). When chunks throw, the exception of
  // the lowest failing chunk is rethrown after all running chunks finished;
  // chunks above a known failure may be skipped.
  void for_chunks(std::uint64_t count, std::uint64_t chunk_size, const ChunkFn& fn) const;

  // Runs fn on the pool's threads (for code that uses oneTBB directly).
  void run(const std::function<void()>& fn) const;

  // One result per chunk, in chunk order, ready to be joined in order.
  template <typename T, typename F>
  std::vector<T> map_chunks(std::uint64_t count, std::uint64_t chunk_size, F&& fn) const {
    std::vector<T> results(static_cast<std::size_t>(chunk_count(count, chunk_size)));
    for_chunks(count, chunk_size, [&](std::uint64_t chunk, std::uint64_t begin, std::uint64_t end) {
      results[static_cast<std::size_t>(chunk)] = fn(begin, end);
    });
    return results;
  }

 private:
  int threads_;
  struct Arena;
  std::unique_ptr<Arena> arena_;
};

}  // namespace kv
