// An image of texels as stored: width, height, channel count, a component type
// and the interleaved samples, rows top first, in native byte order.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace kv {

// The largest side of an image the program reads: the bake writes maps of
// at most this many texels a side, and a larger header is refused before
// anything is allocated.
inline constexpr int kMaxImageSide = 16384;

// Component types of texels, numbered as in the texel file.
enum class ComponentType : std::uint32_t { kU8 = 1, kU16 = 2, kF16 = 3, kF32 = 4 };

// "u8", "u16", "f16", "f32"; "unknown" for any other value.
const char* component_type_name(ComponentType type);
// 1, 2, 2 or 4; 0 for an unknown type.
std::size_t component_bytes(ComponentType type);

struct TexelImage {
  int width = 0;
  int height = 0;
  int channels = 0;
  ComponentType type = ComponentType::kU8;
  std::vector<std::uint8_t> data;  // width * height * channels samples

  // The number of bytes the samples of this size and type take.
  std::size_t expected_bytes() const {
    return static_cast<std::size_t>(width > 0 ? width : 0) *
           static_cast<std::size_t>(height > 0 ? height : 0) *
           static_cast<std::size_t>(channels > 0 ? channels : 0) * component_bytes(type);
  }
};

}  // namespace kv
