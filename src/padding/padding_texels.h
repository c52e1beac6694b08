// Texel access shared by the padding modes: reading a texel's channels as
// 64-bit values in the unit means are taken in, and writing means back with
// the single rounding of the component type. Private to the padding files.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "padding/padding.h"

namespace kv::padding_detail {

// True when the image's sizes, component type and byte count agree and
// W * H fits in 32 bits (texel indices are 32-bit).
bool image_shape_ok(const ImageView& image);

// The ring mode on a checked image (sizes and mask already verified).
std::vector<std::uint8_t> ring_fill(const ImageView& image, std::span<const std::uint8_t> valid,
                                    std::int32_t width, bool srgb, const WorkerPool& pool);

// The modes built on the nearest valid texel (infinite, transparent, color,
// diffusion) on a checked image.
std::vector<std::uint8_t> nearest_fill(const ImageView& image, std::span<const std::uint8_t> valid,
                                       const PaddingSettings& settings, const WorkerPool& pool);

// Pull-push diffusion: every texel whose `filled` byte is 0 gets a value
// diffused from the filled texels; filled texels are left as they are.
// Nothing happens when no texel is filled.
void diffuse_fill(const ImageView& image, std::span<const std::uint8_t> filled, bool srgb,
                  const WorkerPool& pool);

// Reads and writes the texels of one image. With the sRGB flag on an integer
// image, colour channels are read as linear light (0..1) and written back
// through the sRGB curve; every other channel is read in its own units.
class TexelCodec {
 public:
  TexelCodec(const ImageView& image, bool srgb);

  std::int32_t channels() const { return channels_; }
  // out receives channels() values.
  void read(std::uint64_t texel, double* out) const;
  // Writes channels() values with one rounding each.
  void write(std::uint64_t texel, const double* values) const;
  // Writes values that are already in the component's own units (no sRGB
  // encoding), e.g. a fill colour.
  void write_raw(std::uint64_t texel, const double* values) const;
  // Copies texel `from` onto texel `to`, bytes unchanged.
  void copy(std::uint64_t from, std::uint64_t to) const;

 private:
  double read_component(std::uint64_t offset) const;
  void write_component(std::uint64_t offset, double value) const;

  std::byte* data_;
  std::int32_t channels_;
  ComponentType type_;
  std::size_t component_bytes_;
  double scale_;                            // 255 or 65535 for integers, 1 for floats
  std::vector<std::uint8_t> linear_light_;  // per channel: sRGB-decoded
  const double* decode_table_ = nullptr;    // code -> linear light
};

// An integer mean into a code: 0 when m <= 0 or NaN, top when m >= top,
// else floor(m + 0.5). The mean is already on the code scale (a mean of
// codes), so this is padding's own rounding rule, not a float-to-code encode.
inline std::uint32_t round_code(double m, double top) {
  if (!(m > 0.0)) {
    return 0;
  }
  if (m >= top) {
    return static_cast<std::uint32_t>(top);
  }
  return static_cast<std::uint32_t>(m + 0.5);  // m + 0.5 > 0: truncation is floor
}

}  // namespace kv::padding_detail
