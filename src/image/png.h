// 16-bit and 8-bit PNG files through LodePNG. Samples are handed over in the
// order given (no channel reordering); 16-bit samples go big-endian.
#pragma once

#include <cstdint>
#include <filesystem>
#include <span>
#include <vector>

#include "image/texel_image.h"

namespace kv {

// Writes a UNORM16 code map (1 to 4 channels interleaved per texel, rows top
// first) as a 16-bit PNG of the matching colour type, through "<path>.tmp"
// and a rename. threads = 0 takes every hardware thread for large images.
void writePngCodes(const std::filesystem::path& path, int width, int height, int channels,
                   std::span<const std::uint16_t> codes, int threads = 0);

// Writes an 8- or 16-bit image of 1 to 4 channels as a PNG of the matching
// colour type and depth, through "<path>.tmp" and a rename. Encoding errors
// are prefixed by the path and ": ".
void writePng(const std::filesystem::path& path, const TexelImage& image, int threads = 0);

// The PNG bytes of an 8- or 16-bit image of 1 to 4 channels.
std::vector<unsigned char> encodePng(const TexelImage& image, int threads = 0);

// Reads a PNG as 8- or 16-bit texels: grey, grey with alpha, RGB or RGBA as
// stored; grey below 8 bits widens to 8-bit grey, palette images to 8-bit
// RGB (or RGBA when the palette has transparency).
TexelImage readPng(const std::filesystem::path& path);

// What readPng would give, read from the header alone: the image with no
// data (a palette counted as the RGBA it is decoded into) and the file's
// length. Fails as readPng fails before it decodes.
struct PngHeader {
  TexelImage shape;
  std::uint64_t file_bytes = 0;
};
PngHeader inspectPng(const std::filesystem::path& path);

}  // namespace kv
