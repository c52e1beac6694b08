// Padding: fills the texels outside the UV islands of a baked map so that
// filtering and mip-mapping do not bleed background into the islands.
//
// Modes (PaddingMode):
// - ring: iterative mean dilation, ring by ring. The first ring averages the
//   source texels around each empty texel, every later ring averages the
//   texels filled by the ring before it. Means are kept in 64-bit floats and
//   rounded once, when the code is written.
// - passthrough: nothing is written; texels outside the islands keep what the
//   resolve left there.
// - infinite, transparent, color, diffusion: every empty texel first finds its
//   nearest valid texel by an exact Euclidean distance transform (integer
//   squared distances). When several valid texels are equally near, the one
//   with the lowest texel index wins (topmost row, then leftmost column). An
//   empty texel whose squared distance is at most (width - 1)^2 takes all the
//   channels of that texel unchanged; width 0 takes none. The texels beyond
//   that limit (or every empty texel when the image has no valid texel):
//   - infinite: no limit at all, every empty texel takes its nearest value
//     (the width is ignored);
//   - transparent: every channel is set to 0 (alpha 0 where there is one);
//   - color: channel c is set to color[c] (0 past the end of the list),
//     stored in the image's component type;
//   - diffusion: a pull-push diffusion of the filled image: the filled texels
//     are averaged down a pyramid of halved levels, then, from the coarsest
//     level down, every texel not filled takes the bilinear interpolation of
//     the level above it.
//
// The sRGB flag marks integer images holding sRGB colour codes: every mean is
// then taken in linear light. The colour channels are decoded with the
// IEC 61966-2-1 curve (code / scale <= 0.04045: linear = s / 12.92, else
// ((s + 0.055) / 1.055)^2.4; scale 255 for u8, 65535 for u16), averaged, and
// encoded back with its inverse (linear <= 0.0031308: s = 12.92 l, else
// 1.055 l^(1/2.4) - 0.055) before the single rounding to a code. With two or
// four channels the last one is alpha and stays linear. Float images ignore
// the flag.
//
// Writing a mean m into an integer component: 0 when m <= 0 (or NaN), the
// largest code when m >= it, otherwise floor(m + 0.5). Half floats take m
// rounded once to the nearest half, ties to even (not through a float);
// 32-bit floats take (float) m.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "core/parallel.h"
#include "image/image_view.h"
#include "padding/padding_settings.h"

namespace kv {

// Pads the image in place by the settings' mode. `valid` holds one byte per
// texel, non-zero where the texel holds a source value. Returns the mask of
// texels (0 or 1) that hold a value after padding: the valid texels, the
// texels filled from them, and the texels the color and diffusion modes
// wrote; not the zeros of transparent nor anything of passthrough.
std::vector<std::uint8_t> pad_image(const ImageView& image, std::span<const std::uint8_t> valid,
                                    const PaddingSettings& settings, const WorkerPool& pool);
std::vector<std::uint8_t> pad_image(const ImageView& image, std::span<const std::uint8_t> valid,
                                    const PaddingSettings& settings, int threads = 0);

// Ring padding of a UNORM16 map, `width` rings; width 0 changes nothing.
// `expected_channels` > 0 also requires the map to have that many channels.
// Returns the mask (0 or 1) of the valid and the filled texels.
std::vector<std::uint8_t> dilate_mean(MapU16& map, std::span<const std::uint8_t> valid,
                                      std::int32_t width, const WorkerPool& pool,
                                      std::int32_t expected_channels = 0);
std::vector<std::uint8_t> dilate_mean(MapU16& map, std::span<const std::uint8_t> valid,
                                      std::int32_t width, int threads = 0,
                                      std::int32_t expected_channels = 0);

// Ring padding of an image of any component type; with `srgb` on an integer
// image the means are taken in linear light.
std::vector<std::uint8_t> dilate_mean_image(const ImageView& image,
                                            std::span<const std::uint8_t> valid, std::int32_t width,
                                            bool srgb, const WorkerPool& pool);

// The exact nearest valid texel of every texel, as used by the modes other
// than ring and passthrough. nearest[i] is the texel index of the nearest
// valid texel (ties: lowest index), or kNone when there is no valid texel;
// distance2[i] its squared Euclidean distance in texels (0 on valid texels).
struct NearestValid {
  static constexpr std::uint32_t kNone = 0xFFFFFFFFu;
  std::vector<std::uint32_t> nearest;
  std::vector<std::uint64_t> distance2;
};
NearestValid nearest_valid_texels(std::int32_t width, std::int32_t height,
                                  std::span<const std::uint8_t> valid, const WorkerPool& pool);

// The sRGB transfer functions used by the linear-light means (values 0..1).
double srgb_to_linear(double encoded);
double linear_to_srgb(double linear);

}  // namespace kv
