// Where textures come from and outputs go: a .kvt file, an 8- or 16-bit PNG
// (a path ending in ".png", any case), or a .kvt image in a named
// shared-memory section given as "shm:<section>:<size>".
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "image/texel_image.h"
#include "platform/platform.h"

namespace kv::transfer {

struct ShmForm {
  std::string section;
  std::uint64_t size = 0;
};

// The section and size of a "shm:" place; nothing for any other text. A
// malformed form throws pipeline::UsageError "a shared-memory texture is
// shm:<section>:<size>".
std::optional<ShmForm> parse_shm_form(std::string_view place);

bool is_png_place(std::string_view place);

// Maps the first form.size bytes of the section. Throws kv::Error "cannot
// open the shared-memory section <name>: <reason>", or "... holds N bytes,
// fewer than <size>".
platform::SharedSection open_section(const ShmForm& form, bool writable);

// Reads a source texture from its place.
TexelImage load_texture(const std::string& place);

// A source texture as its header gives it, nothing decoded: the image with
// no data (a PNG palette counted as RGBA, as it is decoded), and for a PNG
// the file's length, which the reader holds beside the texels. Fails as
// load_texture fails before it reads the texels.
struct TextureHeader {
  TexelImage shape;
  std::uint64_t png_file_bytes = 0;  // 0: not a PNG
};
TextureHeader inspect_texture(const std::string& place);

// Before any work: the output's image can be stored at its place (a PNG
// holds u8 or u16 texels; a section has exactly the image's file size).
void check_output_place(const std::string& place, const TexelImage& shape);

// Writes an output or a mask to its place; files go through a temporary
// file, sections are written in place.
void store_image(const std::string& place, const TexelImage& image, int threads);

}  // namespace kv::transfer
