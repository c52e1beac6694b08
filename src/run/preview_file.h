// The live preview: RGBA8 pixels, row by row from the top, updated as the
// bake finishes rectangles of its Normal map. The pixels go to a headerless
// file or to memory a client reads (a shared-memory section); one update
// computes them for either.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <mutex>
#include <span>
#include <vector>

#include "platform/platform.h"

namespace kv::run {

struct PreviewSize {
  std::int32_t width = 0;
  std::int32_t height = 0;
};

// The preview's size for a bake of width x height: the requested size when it
// is at least 1, else at most 2048 wide, keeping the aspect (at least 1 row).
PreviewSize preview_size(std::int32_t requested, std::int32_t bake_width, std::int32_t bake_height);

// The half-open range [first, last) of preview cells that the texel range
// [begin, begin + count) of an axis of `texels` maps onto, for `cells` cells.
struct CellRange {
  std::int64_t first = 0;
  std::int64_t last = 0;
};
CellRange preview_cells(std::int64_t begin, std::int64_t count, std::int64_t texels,
                        std::int64_t cells);

// The bytes of a preview of that size: width x height x 4.
std::uint64_t preview_bytes(PreviewSize size);

class Preview {
 public:
  virtual ~Preview() = default;
  Preview(const Preview&) = delete;
  Preview& operator=(const Preview&) = delete;

  // Updates the pixels covered by the finished rectangle from the Normal codes
  // (three per texel, row-major) and the outside mask (one byte per texel,
  // non-zero where no sub-sample is covered; such pixels get alpha 0).
  void update(std::int32_t x, std::int32_t y, std::int32_t w, std::int32_t h,
              const std::uint16_t* normal_codes, const std::uint8_t* outside);

 protected:
  Preview(PreviewSize size, std::int32_t bake_width, std::int32_t bake_height);

 private:
  // Stores `count` bytes of one row at byte `offset` of the image.
  virtual void store(std::uint64_t offset, const std::uint8_t* bytes, std::size_t count) = 0;

  PreviewSize size_;
  std::int32_t bake_width_;
  std::int32_t bake_height_;
  std::vector<std::uint8_t> row_;
  std::mutex lock_;
};

class PreviewFile final : public Preview {
 public:
  // Creates the file, replacing its contents, filled with zero pixels.
  // Throws kv::Error "cannot write the preview file: <path>" on failure.
  PreviewFile(const std::filesystem::path& path, PreviewSize size, std::int32_t bake_width,
              std::int32_t bake_height);

 private:
  void store(std::uint64_t offset, const std::uint8_t* bytes, std::size_t count) override;

  std::filesystem::path path_;
  platform::File file_;
};

class PreviewMemory final : public Preview {
 public:
  // Zero-fills the first preview_bytes(size) bytes of `pixels`, which must
  // hold at least that many and outlive the preview.
  PreviewMemory(std::span<std::uint8_t> pixels, PreviewSize size, std::int32_t bake_width,
                std::int32_t bake_height);

 private:
  void store(std::uint64_t offset, const std::uint8_t* bytes, std::size_t count) override;

  std::span<std::uint8_t> pixels_;
};

}  // namespace kv::run
