// The array type of a mesh's per-element data. Arrays of 4 MiB and more live
// in blocks of their own on huge pages (mesh files are read straight into
// them, and a 100 MB mesh otherwise costs some 30,000 page faults); smaller
// ones come from the usual heap.
#pragma once

#include <cstddef>
#include <memory>
#include <new>
#include <type_traits>
#include <vector>

#include "platform/platform.h"

namespace kv {

namespace detail {
// Set while resize_for_overwrite grows an array.
inline thread_local bool g_growing_for_overwrite = false;
}  // namespace detail

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

  // Elements made without a value are value-initialised, except those of
  // resize_for_overwrite, whose bytes the caller fills at once. (Elements
  // made from values take the standard construction.)
  template <typename U>
  void construct(U* p) noexcept(std::is_nothrow_default_constructible_v<U>) {
    if (!detail::g_growing_for_overwrite) {
      ::new (static_cast<void*>(p)) U();
    }
  }

  template <typename U>
  bool operator==(const LargeArrayAllocator<U>&) const noexcept {
    return true;
  }
};

template <typename T>
using LargeArray = std::vector<T, LargeArrayAllocator<T>>;

// Sizes an array to `count` elements without writing the new ones, for a
// caller that fills all their bytes next (a read or a copy straight into them):
// the write that value-initialising would cost is as large as the read.
template <typename T>
void resize_for_overwrite(LargeArray<T>& array, std::size_t count) {
  static_assert(std::is_trivially_copyable_v<T> && std::is_trivially_destructible_v<T>,
                "only plain data may be filled by copying bytes");
  struct Growing {
    Growing() { detail::g_growing_for_overwrite = true; }
    ~Growing() { detail::g_growing_for_overwrite = false; }
  } growing;
  array.resize(count);
}

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
