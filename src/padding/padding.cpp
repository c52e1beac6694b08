// Entry points of padding: the checks made at entry and the mode dispatch.
#include "padding/padding.h"

#include <limits>
#include <new>
#include <string>

#include "core/error.h"
#include "padding/padding_texels.h"

namespace kv {

namespace {

constexpr const char* kImageMismatch = "padding: image or mask size mismatch (or image too large)";

std::vector<std::uint8_t> copy_valid(std::span<const std::uint8_t> valid) {
  std::vector<std::uint8_t> mask(valid.size());
  for (std::size_t i = 0; i < valid.size(); ++i) {
    mask[i] = valid[i] != 0 ? 1 : 0;
  }
  return mask;
}

// Runs fn, turning an allocation failure into the program's OutOfMemory
// with the size of the image that needed it.
template <typename Fn>
std::vector<std::uint8_t> guard_memory(std::int32_t width, std::int32_t height, Fn&& fn) {
  try {
    return fn();
  } catch (const std::bad_alloc&) {
    throw OutOfMemory("padding: out of memory for a " + std::to_string(width) + " x " +
                      std::to_string(height) + " image");
  }
}

// W * H of the declared sizes, or none when a side is negative.
bool texel_count(std::int32_t width, std::int32_t height, std::uint64_t* count) {
  if (width < 0 || height < 0) {
    return false;
  }
  *count = static_cast<std::uint64_t>(width) * static_cast<std::uint64_t>(height);
  return true;
}

}  // namespace

std::vector<std::uint8_t> pad_image(const ImageView& image, std::span<const std::uint8_t> valid,
                                    const PaddingSettings& settings, const WorkerPool& pool) {
  std::uint64_t texels = 0;
  if (!texel_count(image.width, image.height, &texels) || valid.size() != texels) {
    throw Error("padding: the valid mask does not match the image");
  }
  if (settings.width < 0) {
    throw Error("padding: the width must not be negative");
  }
  if (!padding_detail::image_shape_ok(image)) {
    throw Error(kImageMismatch);
  }
  switch (settings.mode) {
    case PaddingMode::passthrough:
      return guard_memory(image.width, image.height, [&] { return copy_valid(valid); });
    case PaddingMode::ring:
      return guard_memory(image.width, image.height, [&] {
        return padding_detail::ring_fill(image, valid, settings.width, settings.srgb, pool);
      });
    case PaddingMode::infinite:
    case PaddingMode::transparent:
    case PaddingMode::color:
    case PaddingMode::diffusion:
      return guard_memory(image.width, image.height, [&] {
        return padding_detail::nearest_fill(image, valid, settings, pool);
      });
  }
  throw Error("padding: unknown padding mode " + std::to_string(static_cast<int>(settings.mode)));
}

std::vector<std::uint8_t> pad_image(const ImageView& image, std::span<const std::uint8_t> valid,
                                    const PaddingSettings& settings, int threads) {
  const WorkerPool pool(threads);
  return pad_image(image, valid, settings, pool);
}

std::vector<std::uint8_t> dilate_mean(MapU16& map, std::span<const std::uint8_t> valid,
                                      std::int32_t width, const WorkerPool& pool,
                                      std::int32_t expected_channels) {
  const bool sizes_ok = map.width > 0 && map.height > 0 && map.channels > 0 &&
                        (expected_channels <= 0 || map.channels == expected_channels) && width >= 0;
  const std::uint64_t texels =
      sizes_ok ? static_cast<std::uint64_t>(map.width) * static_cast<std::uint64_t>(map.height) : 0;
  // texels < 2^32 and channels < 2^31: the code count cannot overflow 64 bits.
  const std::uint64_t codes =
      texels * static_cast<std::uint64_t>(map.channels > 0 ? map.channels : 0);
  if (!sizes_ok || texels > 0xFFFFFFFFull ||
      codes > std::numeric_limits<std::size_t>::max() / sizeof(std::uint16_t) ||
      valid.size() != texels || map.codes.size() != codes) {
    throw Error("padding: map or mask size mismatch (or image too large)");
  }
  const ImageView image{map.width, map.height, map.channels, ComponentType::kU16,
                        std::as_writable_bytes(std::span(map.codes))};
  return guard_memory(map.width, map.height,
                      [&] { return padding_detail::ring_fill(image, valid, width, false, pool); });
}

std::vector<std::uint8_t> dilate_mean(MapU16& map, std::span<const std::uint8_t> valid,
                                      std::int32_t width, int threads,
                                      std::int32_t expected_channels) {
  const WorkerPool pool(threads);
  return dilate_mean(map, valid, width, pool, expected_channels);
}

std::vector<std::uint8_t> dilate_mean_image(const ImageView& image,
                                            std::span<const std::uint8_t> valid, std::int32_t width,
                                            bool srgb, const WorkerPool& pool) {
  if (width < 0 || !padding_detail::image_shape_ok(image) ||
      valid.size() !=
          static_cast<std::uint64_t>(image.width) * static_cast<std::uint64_t>(image.height)) {
    throw Error(kImageMismatch);
  }
  return guard_memory(image.width, image.height,
                      [&] { return padding_detail::ring_fill(image, valid, width, srgb, pool); });
}

}  // namespace kv
