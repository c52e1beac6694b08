#include "run/preview_file.h"

#include <algorithm>
#include <cstring>
#include <string>

#include "core/error.h"

namespace kv::run {

namespace {

std::int64_t ceil_div(std::int64_t a, std::int64_t b) {
  return (a + b - 1) / b;
}

[[noreturn]] void preview_failure(const std::filesystem::path& path) {
  throw Error("cannot write the preview file: " + path.string());
}

}  // namespace

PreviewSize preview_size(std::int32_t requested, std::int32_t bake_width,
                         std::int32_t bake_height) {
  PreviewSize size;
  size.width = requested >= 1 ? requested : std::min(bake_width, 2048);
  const std::int64_t rows =
      static_cast<std::int64_t>(bake_height) * size.width / static_cast<std::int64_t>(bake_width);
  size.height = static_cast<std::int32_t>(std::max<std::int64_t>(rows, 1));
  return size;
}

CellRange preview_cells(std::int64_t begin, std::int64_t count, std::int64_t texels,
                        std::int64_t cells) {
  return {ceil_div(begin * cells, texels), ceil_div((begin + count) * cells, texels)};
}

std::uint64_t preview_bytes(PreviewSize size) {
  return static_cast<std::uint64_t>(size.width) * static_cast<std::uint64_t>(size.height) * 4;
}

Preview::Preview(PreviewSize size, std::int32_t bake_width, std::int32_t bake_height)
    : size_(size),
      bake_width_(bake_width),
      bake_height_(bake_height),
      row_(static_cast<std::size_t>(size.width) * 4, 0) {}

void Preview::update(std::int32_t x, std::int32_t y, std::int32_t w, std::int32_t h,
                     const std::uint16_t* normal_codes, const std::uint8_t* outside) {
  const CellRange cols = preview_cells(x, w, bake_width_, size_.width);
  const CellRange rows = preview_cells(y, h, bake_height_, size_.height);
  if (cols.first >= cols.last || rows.first >= rows.last) {
    return;
  }
  std::lock_guard guard(lock_);
  for (std::int64_t py = rows.first; py < rows.last; ++py) {
    const std::int64_t ty = py * bake_height_ / size_.height;
    std::uint8_t* out = row_.data();
    for (std::int64_t px = cols.first; px < cols.last; ++px) {
      const std::int64_t tx = px * bake_width_ / size_.width;
      const std::size_t texel = static_cast<std::size_t>(ty * bake_width_ + tx);
      *out++ = static_cast<std::uint8_t>(normal_codes[texel * 3 + 0] >> 8);
      *out++ = static_cast<std::uint8_t>(normal_codes[texel * 3 + 1] >> 8);
      *out++ = static_cast<std::uint8_t>(normal_codes[texel * 3 + 2] >> 8);
      *out++ = outside[texel] == 0 ? 255 : 0;
    }
    const std::uint64_t offset = static_cast<std::uint64_t>(py * size_.width + cols.first) * 4;
    store(offset, row_.data(), static_cast<std::size_t>(out - row_.data()));
  }
}

PreviewFile::PreviewFile(const std::filesystem::path& path, PreviewSize size,
                         std::int32_t bake_width, std::int32_t bake_height)
    : Preview(size, bake_width, bake_height), path_(path) {
  int error = 0;
  file_ = platform::File::create_read_write(path, &error);
  if (!file_.is_open()) {
    preview_failure(path);
  }
  const std::vector<std::uint8_t> zeros(static_cast<std::size_t>(size.width) * 4, 0);
  for (std::int32_t row = 0; row < size.height; ++row) {
    if (file_.write_all(zeros.data(), zeros.size()) != 0) {
      preview_failure(path);
    }
  }
}

void PreviewFile::store(std::uint64_t offset, const std::uint8_t* bytes, std::size_t count) {
  if (file_.write_all_at(bytes, count, offset) != 0) {
    preview_failure(path_);
  }
}

PreviewMemory::PreviewMemory(std::span<std::uint8_t> pixels, PreviewSize size,
                             std::int32_t bake_width, std::int32_t bake_height)
    : Preview(size, bake_width, bake_height), pixels_(pixels.first(preview_bytes(size))) {
  std::fill(pixels_.begin(), pixels_.end(), std::uint8_t{0});
}

void PreviewMemory::store(std::uint64_t offset, const std::uint8_t* bytes, std::size_t count) {
  std::memcpy(pixels_.data() + offset, bytes, count);
}

}  // namespace kv::run
