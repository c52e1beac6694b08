#include "core/parallel.h"

#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>
#include <tbb/partitioner.h>
#include <tbb/task_arena.h>

#include <exception>
#include <mutex>

#include "platform/platform.h"

namespace kv {

struct WorkerPool::Arena {
  explicit Arena(int threads) : arena(threads) {}
  mutable tbb::task_arena arena;
};

WorkerPool::WorkerPool(int threads)
    : threads_(threads > 0 ? threads : platform::hardware_thread_count()),
      arena_(std::make_unique<Arena>(threads_)) {}

WorkerPool::~WorkerPool() = default;

const WorkerPool& WorkerPool::serial() {
  static const WorkerPool pool(1);
  return pool;
}

void WorkerPool::run(const std::function<void()>& fn) const {
  arena_->arena.execute(fn);
}

void WorkerPool::for_chunks(std::uint64_t count, std::uint64_t chunk_size,
                            const ChunkFn& fn) const {
  const std::uint64_t chunks = chunk_count(count, chunk_size);
  if (chunks == 0) {
    return;
  }
  FirstFailure failure;
  std::mutex lock;
  std::exception_ptr first_error;
  std::uint64_t first_error_chunk = FirstFailure::kNone;
  auto body = [&](std::uint64_t chunk) {
    if (chunk > failure.first()) {
      return;  // a lower chunk already failed; its error is the one reported
    }
    const std::uint64_t begin = chunk * chunk_size;
    const std::uint64_t end = begin + chunk_size < count ? begin + chunk_size : count;
    try {
      fn(chunk, begin, end);
    } catch (...) {
      failure.record(chunk);
      std::lock_guard guard(lock);
      if (chunk < first_error_chunk) {
        first_error_chunk = chunk;
        first_error = std::current_exception();
      }
    }
  };
  if (chunks == 1 || threads_ == 1) {
    for (std::uint64_t c = 0; c < chunks && !failure.failed(); ++c) {
      body(c);
    }
  } else {
    arena_->arena.execute([&] {
      tbb::parallel_for(
          tbb::blocked_range<std::uint64_t>(0, chunks, 1),
          [&](const tbb::blocked_range<std::uint64_t>& range) {
            for (std::uint64_t c = range.begin(); c != range.end(); ++c) {
              body(c);
            }
          },
          tbb::simple_partitioner());
    });
  }
  if (first_error) {
    std::rethrow_exception(first_error);
  }
}

}  // namespace kv
