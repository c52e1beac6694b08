#include "bake/low_prep.h"

#include <cstring>

#include "bake/corner_normals.h"
#include "bake/raster_mask.h"
#include "core/error.h"
#include "core/fnv1a.h"

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
                                  std::span<const std::string> materials, std::uint32_t uv_tile,
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
  if (filter_given) {
    h.strings(materials);
    unsigned char tile[4];
    put_u32(tile, uv_tile);
    h.bytes(tile, sizeof tile);
    h.array(mask);
  }
  return h.value();
}

LowPrepSettings prep_settings(const NormalBakeSettings& s) {
  LowPrepSettings p;
  p.width = s.width;
  p.height = s.height;
  p.udim = s.udim;
  p.aa = s.aa;
  p.snap_bits = s.uv_snap_bits;
  p.snap_texel = s.uv_snap_texel;
  p.average_normals = s.average_normals;
  p.tangent_space = s.tangent_space;
  return p;
}

bool same_settings(const LowPrepSettings& a, const LowPrepSettings& b) {
  return a.width == b.width && a.height == b.height && a.udim == b.udim && a.aa == b.aa &&
         a.snap_bits == b.snap_bits && a.snap_texel == b.snap_texel &&
         a.average_normals == b.average_normals && a.tangent_space == b.tangent_space;
}

}  // namespace

void validate_normal_bake(const Mesh& low, std::span<const std::uint32_t> low_groups,
                          const NormalBakeSettings& settings) {
  check_bake_start(settings);
  if (low.triangles.empty()) {
    throw Error("low mesh has no triangles");
  }
  if (!low_groups.empty() && low_groups.size() != low.objects.size()) {
    throw Error("name groups do not match the objects of the low mesh");
  }
}

LowPrep::~LowPrep() = default;

LowPrep LowPrep::build(const Mesh& low, std::span<const std::uint32_t> low_groups,
                       const NormalBakeSettings& settings,
                       std::span<const std::int64_t> skipped_raster_triangles) {
  validate_normal_bake(low, low_groups, settings);

  LowPrep prep;
  prep.mesh_ = &low;
  prep.name_groups_.assign(low_groups.begin(), low_groups.end());
  prep.settings_ = prep_settings(settings);

  RasterFilter filter;
  filter.materials = settings.raster_materials;
  filter.uv_tile = settings.uv_tile;
  filter.skipped.assign(skipped_raster_triangles.begin(), skipped_raster_triangles.end());
  prep.mask_ = build_raster_mask(low, filter, settings.udim);
  prep.raster_materials_ = settings.raster_materials;
  prep.uv_tile_ = static_cast<std::uint32_t>(settings.uv_tile);
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
  auto raster =
      std::make_unique<UvRaster>(low, settings.width, settings.height, u0, v0,
                                 settings.uv_snap_bits, settings.uv_snap_texel, prep.mask_);

  TangentFrames frames = build_tangent_frames(low);
  prep.frames_ = std::move(frames.frames);
  prep.tangent_normal_fallbacks_ = frames.normal_fallbacks;

  if (settings.average_normals) {
    prep.averaged_ = kv::averaged_normals(low, settings.threads);
  }

  // The raster keeps the snapped corners; its snapped lookups then read them.
  prep.snapped_ = raster->keep_snapped_corners(settings.aa, settings.threads);
  if (settings.aa > 1) {
    prep.snapped_unit_ = raster->keep_snapped_corners(1, settings.threads);
  }
  prep.raster_ = std::move(raster);

  prep.fingerprint_ = compute_fingerprint(low, prep.name_groups_, prep.settings_, filter.given(),
                                          prep.raster_materials_, prep.uv_tile_, prep.mask_);
  return prep;
}

void check_low_prep_use(const LowPrep& prep, const NormalBakeSettings& settings,
                        std::span<const std::int64_t> skipped_raster_triangles,
                        bool tracer_has_name_groups) {
  validate_normal_bake(prep.mesh(), prep.name_groups(), settings);
  bool same = same_settings(prep.settings(), prep_settings(settings)) &&
              settings.raster_materials.size() == prep.raster_materials().size() &&
              static_cast<std::int64_t>(prep.uv_tile()) == settings.uv_tile &&
              skipped_raster_triangles.size() == prep.skipped_raster_triangles().size();
  for (std::size_t i = 0; same && i < settings.raster_materials.size(); ++i) {
    same = settings.raster_materials[i] == prep.raster_materials()[i];
  }
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
