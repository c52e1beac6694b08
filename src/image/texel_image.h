// An image of texels as stored: width, height, channel count, a sample format
// and the interleaved samples, rows top first, in native byte order.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace kv {

// Sample formats, numbered as the texel file numbers its component types.
enum class SampleFormat : std::uint32_t { u8 = 1, u16 = 2, f16 = 3, f32 = 4 };

// "u8", "u16", "f16", "f32"; "unknown" for any other value.
const char* sample_format_name(SampleFormat format);
// 1, 2, 2 or 4; 0 for an unknown format.
std::size_t sample_format_bytes(SampleFormat format);

struct TexelImage {
  int width = 0;
  int height = 0;
  int channels = 0;
  SampleFormat format = SampleFormat::u8;
  std::vector<std::uint8_t> data;  // width * height * channels samples

  // The number of bytes the samples of this size and format take.
  std::size_t expected_bytes() const {
    return static_cast<std::size_t>(width > 0 ? width : 0) *
           static_cast<std::size_t>(height > 0 ? height : 0) *
           static_cast<std::size_t>(channels > 0 ? channels : 0) * sample_format_bytes(format);
  }
};

}  // namespace kv
