// The images the map passes work on: a mutable view of samples held
// elsewhere, in any component type, and a map of UNORM16 codes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "image/texel_image.h"

namespace kv {

// A mutable view of an image: width x height texels of `channels`
// interleaved components, rows top first, `bytes` holding exactly
// width * height * channels * component_bytes(type) bytes.
struct ImageView {
  std::int32_t width = 0;
  std::int32_t height = 0;
  std::int32_t channels = 0;
  ComponentType type = ComponentType::kU16;
  std::span<std::byte> bytes;
};

// A map of UNORM16 codes: width x height texels of `channels` codes each,
// interleaved per texel, rows top first.
struct MapU16 {
  std::int32_t width = 0;
  std::int32_t height = 0;
  std::int32_t channels = 0;
  std::vector<std::uint16_t> codes;
};

}  // namespace kv
