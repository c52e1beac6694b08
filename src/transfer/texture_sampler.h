// Reading a source texture at a UV: the nearest or bilinear filter, the
// repeat, clamp or window address mode, bilinear weights as a GPU texture
// unit quantises them (8 fractional bits) or exact, and UDIM tiles read from
// textures of their own. Values stay in the component's own units: codes for
// integers, the widened value for half and single floats.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "image/texel_image.h"
#include "transfer/transfer_settings.h"

namespace kv::transfer {

struct SamplerSettings {
  SampleFilter filter = SampleFilter::bilinear;
  AddressMode address = AddressMode::repeat;
  BilinearWeights weights = BilinearWeights::gpu8;
};

// One source texture and the UDIM tiles it reads from other textures.
class SourceTexture {
 public:
  explicit SourceTexture(const TexelImage* image) : image_(image) {}
  // A UV inside `tile` (1001 to 1999) reads `image` at its place in the tile.
  void add_tile(std::int32_t tile, const TexelImage* image);

  // The image a UV reads and the UV inside it. Inline: read for every texel.
  const TexelImage& image_for(double& u, double& v) const {
    return tiles_.empty() ? *image_ : tile_for(u, v);
  }
  const TexelImage& image() const { return *image_; }

 private:
  const TexelImage& tile_for(double& u, double& v) const;

  const TexelImage* image_;
  std::vector<const TexelImage*> tiles_;  // 999 entries once a tile is added
};

// A value read from a texture. When a single texel gives it (nearest, or a
// bilinear read at a texel centre), `image` and `texel` name that texel, so
// that its bytes can be copied unchanged, and `values` is left unset (read
// them with texel_values when they are needed); otherwise texel is -1 and
// `values` holds the filtered value.
struct TexelSample {
  const TexelImage* image = nullptr;
  std::int64_t texel = -1;
  std::array<double, 4> values{};
};

// Reads the texture at (u, v); false when the window address mode puts the
// point outside the unit square (or the UV is not finite).
bool sample_texture(const SourceTexture& source, double u, double v,
                    const SamplerSettings& settings, TexelSample& out);

// Reads the texture at (u, v) and writes the stored texel of a single read,
// in the image's own component type, to `dest`: the same bytes as
// sample_texture followed by store_texel_values, without the doubles where
// whole numbers give the same. False (nothing written) as sample_texture.
using StoreRead = bool (*)(const SourceTexture& source, double u, double v,
                           const SamplerSettings& settings, std::uint8_t* dest);

// The fast reader for textures of this type and channel count, or null
// where only the general path is known to give the right bits.
StoreRead store_read_for(const SamplerSettings& settings, ComponentType type, int channels);

// A source point of a run along one output row, and the texel x it fills.
// Without initialisers: runs are gathered in arrays on the stack.
struct RunPoint {
  double u;
  double v;
  std::int32_t x;
};

// StoreRead of every point of a run, in order, into the texels of one
// output row (`row`: its first texel's bytes), marking each stored texel in
// `valid_row`; returns how many were stored.
using StoreRun = std::uint32_t (*)(const SourceTexture& source, const SamplerSettings& settings,
                                   const RunPoint* points, std::size_t count, std::uint8_t* row,
                                   std::uint8_t* valid_row);

// The run reader of the same readers as store_read_for, null where it is.
StoreRun store_run_for(const SamplerSettings& settings, ComponentType type, int channels);

// Component `index` (counted over the whole image) in its own units.
double component_value(const TexelImage& image, std::size_t index);

// The channels of one texel in their own units.
void texel_values(const TexelImage& image, std::int64_t texel, double* out);

// x rounded to a whole number, ties to even, for 0 <= x < 2^52: without the
// library call that std::nearbyint costs on every texel.
inline double round_half_even(double x) {
  const auto whole = static_cast<std::int64_t>(x);
  const double rest = x - static_cast<double>(whole);
  // Bitwise, not logical: the halves fall either way at random, and a
  // branch on them is mispredicted half the time.
  const std::int64_t up = static_cast<std::int64_t>(rest > 0.5) |
                          (static_cast<std::int64_t>(rest == 0.5) & (whole & 1));
  return static_cast<double>(whole + up);
}

// The fraction a bilinear weight uses: with gpu8, f rounded to a multiple of
// 1/256 (half to even); exact keeps f, except that a fraction within 1e-9 of
// a whole texel is that whole texel, so that texel centres reached through
// barycentric arithmetic read their texel alone.
double weight_fraction(double f, BilinearWeights weights);

}  // namespace kv::transfer
