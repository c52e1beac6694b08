// The raw texel file ".kvt": a 32-byte little-endian header (magic "KVTEX1"
// and two zero bytes, version 1, component type, width, height, channels, a
// reserved 0) and the texels as stored, interleaved per texel, rows top
// first. Values keep their type: nothing is converted on the way in or out.
#pragma once

#include <cstdint>
#include <filesystem>
#include <span>

#include "image/texel_image.h"

namespace kv {

inline constexpr std::uint64_t kKvtHeaderBytes = 32;
inline constexpr int kKvtMaxSide = kMaxImageSide;
inline constexpr int kKvtMaxChannels = 4;

// The checks of a texture held in memory: each side 1 to 16384 texels
// ("texture: each side must be 1 to 16384 texels"), 1 to 4 channels
// ("texture: 1 to 4 channels"), a known component type ("texture: unknown
// component type").
void check_texture(const TexelImage& image);

// The file's length for an image: the header and every texel.
std::uint64_t kvt_file_bytes(const TexelImage& image);

// Reads a texel file, every header check before any allocation. Throws
// kv::Error with the first failing check's message (".kvt: ...").
TexelImage read_kvt(const std::filesystem::path& path);

// The same checks on a texel file held in memory (a shared-memory section).
TexelImage parse_kvt(std::span<const std::uint8_t> bytes);

// The header checks alone, nothing allocated for the texels: the image's
// size, channels and type with no data, or the error read_kvt and
// parse_kvt would give.
TexelImage read_kvt_header(const std::filesystem::path& path);
TexelImage parse_kvt_header(std::span<const std::uint8_t> bytes);

// Writes the image through "<path>.tmp" and a rename.
void write_kvt(const std::filesystem::path& path, const TexelImage& image);

// Writes the image into a destination of fixed size, which must hold exactly
// kvt_file_bytes(image) bytes.
void write_kvt_into(std::span<std::uint8_t> destination, const TexelImage& image);

// The check write_kvt_into makes, for callers that want to fail before
// doing the work: ".kvt: the destination must hold exactly N bytes, not M".
void check_kvt_destination(std::uint64_t destination_bytes, std::uint64_t needed_bytes);

}  // namespace kv
