#include "core/large_array.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <limits>
#include <numeric>

namespace {

using kv::LargeArray;
using kv::LargeBuffer;

constexpr std::uintptr_t kHugePage = std::uintptr_t{2} << 20;
constexpr std::size_t kThreshold = kv::LargeArrayAllocator<char>::kBlockThreshold;

bool on_huge_page_boundary(const void* p) {
  return reinterpret_cast<std::uintptr_t>(p) % kHugePage == 0;
}

// Arrays behave as ordinary vectors across the size at which they move to
// blocks of their own: contents survive growth past it, copies and shrinking
// back below it, and fresh elements read as zero.
TEST(LargeArray, KeepsContentsAcrossTheBlockThreshold) {
  const std::size_t large = kThreshold / sizeof(std::uint32_t) + 1000;
  LargeArray<std::uint32_t> a;
  for (std::uint32_t i = 0; i < large; ++i) {
    a.push_back(i * 2654435761u);
  }
  ASSERT_GE(a.capacity() * sizeof(std::uint32_t), kThreshold);
  EXPECT_TRUE(on_huge_page_boundary(a.data()));
  for (std::uint32_t i = 0; i < large; ++i) {
    ASSERT_EQ(a[i], i * 2654435761u) << i;
  }

  const LargeArray<std::uint32_t> copy = a;
  EXPECT_EQ(copy, a);
  EXPECT_TRUE(on_huge_page_boundary(copy.data()));

  a.resize(10);
  a.shrink_to_fit();
  EXPECT_EQ(a.size(), 10u);
  EXPECT_EQ(a[9], 9u * 2654435761u);

  LargeArray<std::uint64_t> zeros(kThreshold / sizeof(std::uint64_t) * 3);
  EXPECT_EQ(std::accumulate(zeros.begin(), zeros.end(), std::uint64_t{0}), 0u);
  zeros.back() = 7;
  EXPECT_EQ(zeros.back(), 7u);
}

// Growing for overwrite keeps the old elements and leaves the new ones as
// the memory holds them; every other growth, before and after, still
// value-initialises (a default member of -1 shows it).
TEST(LargeArray, GrowingForOverwriteLeavesOnlyThoseElementsUnwritten) {
  struct Plain {
    std::int32_t index = -1;
    float weight = 0.5f;
  };
  LargeArray<Plain> a(3);
  a[1].index = 9;
  a.reserve(100);
  std::memset(static_cast<void*>(a.data() + 3), 0x11, 97 * sizeof(Plain));
  kv::resize_for_overwrite(a, 100);
  ASSERT_EQ(a.size(), 100u);
  EXPECT_EQ(a[0].index, -1);
  EXPECT_EQ(a[1].index, 9);
  EXPECT_EQ(a[50].index, 0x11111111);
  EXPECT_EQ(a[99].index, 0x11111111);

  a.resize(3);
  a.resize(100);
  EXPECT_EQ(a[50].index, -1);
  EXPECT_EQ(a[99].weight, 0.5f);
  LargeArray<Plain> b;
  b.resize(kThreshold / sizeof(Plain) + 10);
  EXPECT_EQ(b.back().index, -1);
}

// A buffer of uninitialised bytes: every byte writable, large ones on a
// huge-page boundary, none at all for zero bytes.
TEST(LargeArray, BufferSizesAndBlocks) {
  const LargeBuffer empty(0);
  EXPECT_EQ(empty.data(), nullptr);
  EXPECT_EQ(empty.size(), 0u);

  const LargeBuffer small(100);
  std::memset(small.data(), 0x5a, small.size());
  EXPECT_EQ(small.data()[99], 0x5a);

  const std::size_t bytes = kThreshold + 12345;
  const LargeBuffer large(bytes);
  EXPECT_EQ(large.size(), bytes);
  EXPECT_TRUE(on_huge_page_boundary(large.data()));
  large.data()[0] = 1;
  large.data()[bytes - 1] = 2;
  EXPECT_EQ(large.data()[0] + large.data()[bytes - 1], 3);
}

// A size that cannot be mapped fails as an allocation, not as a crash.
TEST(LargeArray, RefusesImpossibleSizes) {
  EXPECT_EQ(kv::platform::map_large_block(0), nullptr);
  EXPECT_EQ(kv::platform::map_large_block(std::numeric_limits<std::size_t>::max() - 100), nullptr);
  kv::LargeArrayAllocator<std::uint64_t> allocator;
  EXPECT_THROW((void)allocator.allocate(std::numeric_limits<std::size_t>::max() / 4),
               std::bad_array_new_length);
  EXPECT_THROW((void)allocator.allocate(std::size_t{1} << 58), std::bad_alloc);
}

}  // namespace
