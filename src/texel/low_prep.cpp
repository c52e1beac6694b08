#include "texel/low_prep.h"

#include <cstring>

#include "core/error.h"
#include "core/fnv1a.h"
#include "texel/corner_normals.h"
#include "texel/raster_mask.h"

namespace kv {
namespace {

// FNV-1a over whole 64-bit little-endian words; only a tail shorter than a
// word goes byte by byte. Each array is preceded by its element count.
class FingerprintHash {
 public:
  void word(std::uint64_t w) {
    hash_ ^= w;
    hash_ *= kFnv1aPrime;
  }

  void bytes(const void* data, std::size_t size) {
    const auto* p = static_cast<const unsigned char*>(data);
    std::size_t i = 0;
    for (; i + 8 <= size; i += 8) {
      std::uint64_t w = 0;
      for (int b = 7; b >= 0; --b) {
        w = (w << 8) | p[i + static_cast<std::size_t>(b)];
      }
      word(w);
    }
    hash_ = fnv1a_bytes(hash_, p + i, size - i);
  }

  template <typename T, typename Allocator>
  void array(const std::vector<T, Allocator>& items) {
    word(items.size());
    bytes(items.data(), items.size() * sizeof(T));
  }

  void strings(std::span<const std::string> names) {
    word(names.size());
    for (const std::string& name : names) {
      word(name.size());
      bytes(name.data(), name.size());
    }
  }

  std::uint64_t value() const { return hash_; }

 private:
  std::uint64_t hash_ = kFnv1aOffset;
};

void put_u32(unsigned char* out, std::uint32_t v) {
  for (int i = 0; i < 4; ++i) {
    out[i] = static_cast<unsigned char>(v >> (8 * i));
  }
}

std::uint64_t compute_fingerprint(const Mesh& mesh, std::span<const std::uint32_t> groups,
                                  const LowPrepSettings& s, bool filter_given,
                                  const std::vector<std::uint8_t>& mask) {
  FingerprintHash h;
  h.array(mesh.positions);
  h.array(mesh.uvs);
  h.array(mesh.normals);
  h.array(mesh.triangles);
  h.strings(mesh.objects);
  h.word(groups.size());
  h.bytes(groups.data(), groups.size() * sizeof(std::uint32_t));
  unsigned char block[32];
  put_u32(block + 0, static_cast<std::uint32_t>(s.width));
  put_u32(block + 4, static_cast<std::uint32_t>(s.height));
  put_u32(block + 8, static_cast<std::uint32_t>(s.udim));
  put_u32(block + 12, static_cast<std::uint32_t>(s.aa));
  put_u32(block + 16, static_cast<std::uint32_t>(s.snap_bits));
  put_u32(block + 20, s.snap_texel ? 1u : 0u);
  put_u32(block + 24, s.average_normals ? 1u : 0u);
  put_u32(block + 28, s.tangent_space);
  h.bytes(block, sizeof block);
  // Only a prep without frames feeds this word, so fingerprints of preps
  // with frames are what they always were.
  if (!s.tangent_frames) {
    h.word(0);
  }
  if (filter_given) {
    h.strings(s.raster_materials);
    unsigned char tile[4];
    put_u32(tile, static_cast<std::uint32_t>(s.uv_tile));
    h.bytes(tile, sizeof tile);
    h.array(mask);
  }
  return h.value();
}

bool same_settings(const LowPrepSettings& a, const LowPrepSettings& b) {
  return a.width == b.width && a.height == b.height && a.udim == b.udim && a.aa == b.aa &&
         a.snap_bits == b.snap_bits && a.snap_texel == b.snap_texel &&
         a.average_normals == b.average_normals && a.tangent_space == b.tangent_space &&
         a.tangent_frames == b.tangent_frames && a.raster_materials == b.raster_materials &&
         a.uv_tile == b.uv_tile;
}

void validate_low_prep(const Mesh& low, std::span<const std::uint32_t> low_groups,
                       const LowPrepSettings& settings) {
  check_low_prep_settings(settings);
  if (low.triangles.empty()) {
    throw Error("low mesh has no triangles");
  }
  if (!low_groups.empty() && low_groups.size() != low.objects.size()) {
    throw Error("name groups do not match the objects of the low mesh");
  }
}

}  // namespace

void check_low_prep_settings(const LowPrepSettings& s) {
  if (s.width < 1 || s.width > 16384 || s.height < 1 || s.height > 16384) {
    throw Error("output size must be 1 to 16384 texels per side");
  }
  if (s.aa != 1 && s.aa != 2 && s.aa != 4 && s.aa != 8) {
    throw Error("antialiasing must be 1, 2, 4 or 8 sub-samples per side");
  }
  if (s.snap_bits < -1 || s.snap_bits > 16) {
    throw Error("UV snap bits must be -1 (off) or 0 to 16");
  }
  if (s.udim < 1001 || s.udim > 1999) {
    throw Error("UDIM tile must be 1001 to 1999");
  }
}

LowPrep::~LowPrep() = default;

LowPrep LowPrep::build(const Mesh& low, std::span<const std::uint32_t> low_groups,
                       const LowPrepSettings& settings,
                       std::span<const std::int64_t> skipped_raster_triangles) {
  validate_low_prep(low, low_groups, settings);

  LowPrep prep;
  prep.mesh_ = &low;
  prep.name_groups_.assign(low_groups.begin(), low_groups.end());
  prep.settings_ = settings;

  RasterFilter filter;
  filter.materials = settings.raster_materials;
  filter.uv_tile = settings.uv_tile;
  filter.skipped.assign(skipped_raster_triangles.begin(), skipped_raster_triangles.end());
  prep.mask_ = build_raster_mask(low, filter, settings.udim);
  for (const std::int64_t t : skipped_raster_triangles) {
    prep.skipped_.push_back(static_cast<std::uint32_t>(t));  // range checked by the mask
  }
  if (prep.mask_.empty()) {
    prep.rasterised_ = low.triangles.size();
  } else {
    for (const std::uint8_t m : prep.mask_) {
      prep.rasterised_ += m;
    }
  }

  const std::int32_t u0 = (settings.udim - 1001) % 10;
  const std::int32_t v0 = (settings.udim - 1001) / 10;
  auto raster = std::make_unique<UvRaster>(low, settings.width, settings.height, u0, v0,
                                           settings.snap_bits, settings.snap_texel, prep.mask_);

  if (settings.tangent_frames) {
    TangentFrames frames = build_tangent_frames(low);
    prep.frames_ = std::move(frames.frames);
    prep.tangent_normal_fallbacks_ = frames.normal_fallbacks;
  }

  if (settings.average_normals) {
    prep.averaged_ = kv::averaged_normals(low, settings.threads);
  }

  // The raster keeps the snapped corners; its snapped lookups then read them.
  prep.snapped_ = raster->keep_snapped_corners(settings.aa, settings.threads);
  if (settings.aa > 1) {
    prep.snapped_unit_ = raster->keep_snapped_corners(1, settings.threads);
  }
  prep.raster_ = std::move(raster);

  prep.fingerprint_ =
      compute_fingerprint(low, prep.name_groups_, prep.settings_, filter.given(), prep.mask_);
  return prep;
}

void check_low_prep_use(const LowPrep& prep, const LowPrepSettings& settings,
                        std::span<const std::int64_t> skipped_raster_triangles,
                        bool tracer_has_name_groups) {
  validate_low_prep(prep.mesh(), prep.name_groups(), settings);
  bool same = same_settings(prep.settings(), settings) &&
              skipped_raster_triangles.size() == prep.skipped_raster_triangles().size();
  for (std::size_t i = 0; same && i < skipped_raster_triangles.size(); ++i) {
    same = skipped_raster_triangles[i] ==
           static_cast<std::int64_t>(prep.skipped_raster_triangles()[i]);
  }
  if (!same) {
    throw Error(
        "the bake settings do not match the LowPrep (size, UDIM, anti-aliasing, UV snap, average "
        "normals or tangent space)");
  }
  if (!prep.name_groups().empty() && !tracer_has_name_groups) {
    throw Error("name matching needs a tracer built with the name groups of the high mesh");
  }
}

}  // namespace kv
