// The directions of the secondary rays: one fixed low-discrepancy set of
// points per map, turned for every sub-sample by an offset that depends only
// on the texel and the sub-sample (a hash, or the noise table), so the maps
// never depend on threads or timing.
#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <span>
#include <vector>

#include "core/vec3.h"
#include "meshmaps/meshmaps_settings.h"

namespace kv::meshmaps {

// 256 x 256 texels of four values in [0, 1): the per-texel offsets of a
// noise image, repeated over the map.
class NoiseTable {
 public:
  static constexpr std::size_t kSide = 256;
  // From 256 * 256 * 4 values; throws "meshmaps: the noise table must hold
  // 256 x 256 x 4 values" for any other count.
  explicit NoiseTable(std::vector<float> values);
  // From the 256 * 256 byte codes of a raw .x file (code / 256 in every
  // channel, turned by a fixed step per channel).
  static NoiseTable from_codes(std::span<const std::uint8_t> codes);
  // Reads --noise (a 256 x 256 PNG of 8 or 16 bits) or --noise-x (exactly
  // 65536 bytes); throws the option's own message otherwise.
  static NoiseTable read_png(const std::filesystem::path& path);
  static NoiseTable read_raw(const std::filesystem::path& path);

  std::array<float, 4> at(std::int32_t x, std::int32_t y) const;

 private:
  std::vector<float> values_;
};

// The offset in [0, 1)^2 that turns the point set of sub-sample `sample` of
// texel (x, y) for the map with salt `map`.
std::array<double, 2> sample_rotation(std::int32_t x, std::int32_t y, std::uint32_t sample,
                                      std::uint32_t map, const NoiseTable* noise);

// A fixed set of `count` points in [0, 1)^2 (Hammersley: stratified in the
// first coordinate, radical inverse in the second).
std::vector<std::array<double, 2>> point_set(std::int32_t count);

// The point set of one map ready to become directions: the first
// coordinate, and the cosine and sine of the angle the second stands for.
struct DirectionSet {
  std::vector<double> u1;
  std::vector<double> cos_phi;
  std::vector<double> sin_phi;
  double cos_max = -1.0;  // of the cone's half angle
  double sin2_max = 1.0;
  Distribution distribution = Distribution::cosine;
};
DirectionSet direction_set(std::int32_t count, float spread, Distribution distribution);

// Every point of the set, turned by `rotation` (the first coordinate
// modulo 1, the angle by a full turn times the second), as unit directions
// around `normal` inside the cone; cosines[i] receives direction i's cosine
// to the normal.
void hemisphere_directions(const DirectionSet& set, const std::array<double, 2>& rotation,
                           const Vec3f& normal, std::vector<Vec3f>& directions,
                           std::vector<double>& cosines);

// Two unit vectors completing `normal` to an orthonormal basis.
void tangent_basis(const Vec3f& normal, Vec3d& t, Vec3d& b);

// A 32-bit mix of the inputs with full avalanche.
std::uint32_t hash32(std::uint32_t a, std::uint32_t b, std::uint32_t c, std::uint32_t d);

}  // namespace kv::meshmaps
