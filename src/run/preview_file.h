// The live preview: a headerless file of RGBA8 pixels, row by row from the
// top, updated as the bake finishes rectangles of its Normal map.
#pragma once

#include <cstdint>
#include <filesystem>
#include <mutex>
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

class PreviewFile {
 public:
  // Creates the file, replacing its contents, filled with zero pixels.
  // Throws kv::Error "cannot write the preview file: <path>" on failure.
  PreviewFile(const std::filesystem::path& path, PreviewSize size, std::int32_t bake_width,
              std::int32_t bake_height);

  PreviewSize size() const { return size_; }

  // Updates the pixels covered by the finished rectangle from the Normal codes
  // (three per texel, row-major) and the outside mask (one byte per texel,
  // non-zero where no sub-sample is covered; such pixels get alpha 0).
  void update(std::int32_t x, std::int32_t y, std::int32_t w, std::int32_t h,
              const std::uint16_t* normal_codes, const std::uint8_t* outside);

 private:
  std::filesystem::path path_;
  PreviewSize size_;
  std::int32_t bake_width_;
  std::int32_t bake_height_;
  platform::File file_;
  std::vector<std::uint8_t> row_;
  std::mutex lock_;
};

}  // namespace kv::run
