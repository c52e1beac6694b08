// The hit dump of a mesh-to-mesh transfer: a 32-byte header (magic "KVHITS1"
// and a zero byte, version 1, width, height, anti-aliasing, record size 12,
// a reserved 0; little-endian 32-bit numbers) and one 12-byte record per
// sub-sample, texels top row first and sub-samples row-major within a
// texel: the high triangle (signed 32-bit, -1 for none) and the float32
// barycentrics u, v of its second and third corner.
#pragma once

#include <cstdint>
#include <filesystem>
#include <span>

#include "image/temp_file.h"

namespace kv::transfer {

struct HitRecord {
  std::int32_t triangle = -1;
  float u = 0.0f;
  float v = 0.0f;
};
static_assert(sizeof(HitRecord) == 12, "a hit record is 12 bytes");

inline constexpr std::uint64_t kHitDumpHeaderBytes = 32;

// Written record by record in image order, through "<path>.tmp"; the file
// appears only once finish() succeeds.
class HitDump {
 public:
  HitDump(const std::filesystem::path& path, std::int32_t width, std::int32_t height,
          std::int32_t aa);
  void append(std::span<const HitRecord> records);
  void finish();

 private:
  PlainTempFile file_;
};

}  // namespace kv::transfer
