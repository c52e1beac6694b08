// Uncompressed scanline OpenEXR output. Files are written through a temporary
// file beside the target and replace it only when complete.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <span>

namespace kv {

// Pixel types of the file, as the EXR writer's callers pass them.
inline constexpr int kExrHalf = 0;
inline constexpr int kExrFloat = 1;

// Writes a map of UNORM16 codes (interleaved per texel, rows top first;
// 1 channel Y, 3 channels R G B, or 4 channels R G B A) as half or float
// values c / 65535. Throws kv::Error "Cannot write EXR <path>: <reason>".
// Large maps are converted on `threads` worker threads (0: every hardware
// thread) while the file is written; the bytes do not depend on the count.
void writeExr(const std::filesystem::path& path, int width, int height, int channels,
              std::span<const std::uint16_t> codes, int pixel_type, int threads = 0);

// The same for a map of float samples, written without a table; every sample
// must be finite.
void writeExrFloat(const std::filesystem::path& path, int width, int height, int channels,
                   const float* samples, std::size_t sample_count, int pixel_type, int threads = 0);

// The float that code c stands for: c / 65535 in 64-bit, rounded to 32-bit.
// Shared by every writer; built once per process.
const float* exr_code_floats();
// The half-float bits of the same values.
const std::uint16_t* exr_code_halves();

}  // namespace kv
