// Scanline OpenEXR input: single-part files of half or float channels,
// uncompressed or compressed with RLE, ZIPS or ZIP.
#pragma once

#include <filesystem>

#include "image/texel_image.h"

namespace kv {

// Reads the data window of the file as texels, rows top first. Channels "R",
// "G", "B" (and "A") give RGB or RGBA texels, a lone "Y" (and "A") grey ones;
// other channels are skipped. The texels are f16 when every channel read is
// half, else f32 (halves widened exactly). Every size in the header is
// checked against the program's limits and the file's length before
// anything is allocated. A malformed file throws kv::Error
// "<path>: EXR: <what>"; running out of memory throws OutOfMemory naming
// the file.
TexelImage read_exr(const std::filesystem::path& path);

}  // namespace kv
