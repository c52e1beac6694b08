// The array type of a mesh's per-element data. Arrays of 4 MiB and more live
// in blocks of their own on huge pages (mesh files are read straight into
// them, and a 100 MB mesh otherwise costs some 30,000 page faults); smaller
// ones come from the usual heap.
#pragma once

#include <cstddef>
#include <memory>
#include <new>
#include <vector>

#include "platform/platform.h"

namespace kv {

template <typename T>
struct LargeArrayAllocator {
  using value_type = T;

  static constexpr std::size_t kBlockThreshold = std::size_t{4} << 20;

  LargeArrayAllocator() = default;
  template <typename U>
  LargeArrayAllocator(const LargeArrayAllocator<U>&) noexcept {}

  T* allocate(std::size_t count) {
    if (count > static_cast<std::size_t>(-1) / sizeof(T)) {
      throw std::bad_array_new_length();
    }
    const std::size_t bytes = count * sizeof(T);
    if (bytes < kBlockThreshold) {
      return std::allocator<T>{}.allocate(count);
    }
    void* block = platform::map_large_block(bytes);
    if (block == nullptr) {
      throw std::bad_alloc();
    }
    return static_cast<T*>(block);
  }

  // The count is the one allocate was given, so it picks the same source.
  void deallocate(T* data, std::size_t count) noexcept {
    const std::size_t bytes = count * sizeof(T);
    if (bytes < kBlockThreshold) {
      std::allocator<T>{}.deallocate(data, count);
    } else {
      platform::unmap_large_block(data, bytes);
    }
  }

  template <typename U>
  bool operator==(const LargeArrayAllocator<U>&) const noexcept {
    return true;
  }
};

template <typename T>
using LargeArray = std::vector<T, LargeArrayAllocator<T>>;

// Uninitialised bytes from the same sources, for a buffer that reads fill.
class LargeBuffer {
 public:
  explicit LargeBuffer(std::size_t bytes)
      : bytes_(bytes), data_(bytes > 0 ? LargeArrayAllocator<char>{}.allocate(bytes) : nullptr) {}
  ~LargeBuffer() {
    if (data_ != nullptr) {
      LargeArrayAllocator<char>{}.deallocate(data_, bytes_);
    }
  }
  LargeBuffer(const LargeBuffer&) = delete;
  LargeBuffer& operator=(const LargeBuffer&) = delete;

  char* data() const { return data_; }
  std::size_t size() const { return bytes_; }

 private:
  std::size_t bytes_;
  char* data_;
};

}  // namespace kv
