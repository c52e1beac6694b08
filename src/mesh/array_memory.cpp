#include "mesh/array_memory.h"

#include <algorithm>

#include "platform/platform.h"

namespace kv {

void prefault_arrays(const std::vector<ArrayBytes>& blocks, const WorkerPool& pool) {
  constexpr std::uint64_t kSlice = std::uint64_t{4} << 20;
  // Slice s of the blocks laid end to end; a slice never spans two blocks.
  std::vector<ArrayBytes> slices;
  for (const ArrayBytes& block : blocks) {
    for (std::uint64_t begin = 0; begin < block.bytes; begin += kSlice) {
      slices.push_back(ArrayBytes{static_cast<char*>(block.data) + begin,
                                  std::min(kSlice, block.bytes - begin)});
    }
  }
  pool.for_chunks(slices.size(), 1, [&](std::uint64_t s, std::uint64_t, std::uint64_t) {
    const ArrayBytes& slice = slices[static_cast<std::size_t>(s)];
    platform::prefault_for_write(slice.data, static_cast<std::size_t>(slice.bytes));
  });
}

}  // namespace kv
