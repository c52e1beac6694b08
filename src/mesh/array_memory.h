// Sizing of the large arrays a mesh reader fills. A fresh allocation's pages
// fault in one by one on first touch, and on one thread that costs more than
// filling them; mapping them in slices on every thread of the pool first
// spreads that cost.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "core/parallel.h"

namespace kv {

// A block of memory to map before it is written.
struct ArrayBytes {
  void* data = nullptr;
  std::uint64_t bytes = 0;
};

// Maps every block's pages in fixed slices on the pool's threads.
void prefault_arrays(const std::vector<ArrayBytes>& blocks, const WorkerPool& pool);

// Room for `count` elements in an empty array, its pages already mapped;
// resize() afterwards fills pages that are in place.
template <typename T, typename Allocator>
ArrayBytes reserve_array(std::vector<T, Allocator>& array, std::size_t count) {
  array.reserve(count);
  return ArrayBytes{array.data(), static_cast<std::uint64_t>(count) * sizeof(T)};
}

}  // namespace kv
