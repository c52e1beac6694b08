#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <numeric>
#include <stdexcept>
#include <thread>
#include <vector>

#include "core/parallel.h"

namespace kv {
namespace {

TEST(Parallel, ChunksCoverEveryIndexOnceWithFixedBounds) {
  EXPECT_EQ(chunk_count(0, 16), 0u);
  EXPECT_EQ(chunk_count(16, 16), 1u);
  EXPECT_EQ(chunk_count(17, 16), 2u);
  for (int threads : {1, 2, 3}) {
    WorkerPool pool(threads);
    std::vector<int> hits(1001, 0);
    std::vector<std::uint64_t> bounds(chunk_count(1001, 100) * 2, 0);
    pool.for_chunks(1001, 100, [&](std::uint64_t chunk, std::uint64_t begin, std::uint64_t end) {
      bounds[chunk * 2] = begin;
      bounds[chunk * 2 + 1] = end;
      for (auto i = begin; i < end; ++i) {
        ++hits[i];
      }
    });
    for (int h : hits) {
      ASSERT_EQ(h, 1);
    }
    EXPECT_EQ(bounds.front(), 0u);
    EXPECT_EQ(bounds[19], 1000u);  // last chunk [1000, 1001)
    EXPECT_EQ(bounds[20], 1000u);
    EXPECT_EQ(bounds[21], 1001u);
  }
}

TEST(Parallel, OrderedJoinGivesTheSameFloatSumOnAnyThreadCount) {
  std::vector<float> values(100000);
  for (std::size_t i = 0; i < values.size(); ++i) {
    values[i] = 1.0f / static_cast<float>(i + 1) * ((i % 3) == 0 ? -1.0f : 1.0f);
  }
  auto sum_with = [&](int threads) {
    WorkerPool pool(threads);
    const auto partial =
        pool.map_chunks<float>(values.size(), 4096, [&](std::uint64_t begin, std::uint64_t end) {
          float s = 0.0f;
          for (auto i = begin; i < end; ++i) {
            s += values[i];
          }
          return s;
        });
    float total = 0.0f;
    for (float p : partial) {
      total += p;
    }
    return total;
  };
  const float one = sum_with(1);
  const float two = sum_with(2);
  EXPECT_EQ(std::memcmp(&one, &two, sizeof one), 0);
}

TEST(Parallel, LowestFailingChunkWins) {
  for (int threads : {1, 2}) {
    WorkerPool pool(threads);
    try {
      pool.for_chunks(64, 1, [&](std::uint64_t chunk, std::uint64_t, std::uint64_t) {
        if (chunk == 40) {
          throw std::runtime_error("chunk 40");
        }
        if (chunk == 7) {
          // Give higher chunks time to fail first on other threads.
          std::this_thread::sleep_for(std::chrono::milliseconds(20));
          throw std::runtime_error("chunk 7");
        }
      });
      FAIL() << "no exception";
    } catch (const std::runtime_error& e) {
      EXPECT_STREQ(e.what(), "chunk 7");
    }
  }
}

TEST(Parallel, FirstFailureKeepsTheMinimum) {
  FirstFailure failure;
  EXPECT_FALSE(failure.failed());
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&failure, t] {
      for (std::uint64_t i = 1000; i-- > static_cast<std::uint64_t>(t * 10 + 5);) {
        failure.record(i);
      }
    });
  }
  for (auto& th : threads) {
    th.join();
  }
  EXPECT_EQ(failure.first(), 5u);
}

TEST(Parallel, ZeroThreadsMeansEveryHardwareThread) {
  WorkerPool pool(0);
  EXPECT_GE(pool.thread_count(), 1);
  WorkerPool two(2);
  EXPECT_EQ(two.thread_count(), 2);
}

}  // namespace
}  // namespace kv
