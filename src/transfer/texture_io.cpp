#include "transfer/texture_io.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <span>

#include "core/error.h"
#include "core/parse_number.h"
#include "image/kvt_file.h"
#include "image/png.h"
#include "platform/platform.h"

namespace kv::transfer {
namespace {

std::filesystem::path as_path(const std::string& place) {
  return std::filesystem::path(std::u8string(place.begin(), place.end()));
}

}  // namespace

std::optional<ShmForm> parse_shm_form(std::string_view place) {
  constexpr std::string_view kPrefix = "shm:";
  if (place.substr(0, kPrefix.size()) != kPrefix) {
    return std::nullopt;
  }
  const std::string_view rest = place.substr(kPrefix.size());
  const std::size_t colon = rest.rfind(':');
  const std::optional<std::uint64_t> size =
      colon == std::string_view::npos ? std::nullopt : parse_uint64(rest.substr(colon + 1));
  if (colon == 0 || !size || *size == 0 || rest.substr(0, colon).find('/') != std::string::npos) {
    throw pipeline::UsageError("a shared-memory texture is shm:<section>:<size>");
  }
  return ShmForm{std::string(rest.substr(0, colon)), *size};
}

platform::SharedSection open_section(const ShmForm& form, bool writable) {
  int error = 0;
  std::uint64_t section_bytes = 0;
  std::optional<platform::SharedSection> section =
      platform::SharedSection::open(form.section, form.size, writable, &error, &section_bytes);
  if (!section) {
    if (error == ERANGE) {
      throw Error("the shared-memory section " + form.section + " holds " +
                  std::to_string(section_bytes) + " bytes, fewer than " +
                  std::to_string(form.size));
    }
    throw Error("cannot open the shared-memory section " + form.section + ": " +
                platform::system_error_text(error));
  }
  return std::move(*section);
}

bool is_png_place(std::string_view place) {
  if (place.size() < 4) {
    return false;
  }
  std::string ext(place.substr(place.size() - 4));
  std::transform(ext.begin(), ext.end(), ext.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return ext == ".png" && !parse_shm_form(place);
}

TexelImage load_texture(const std::string& place) {
  if (const std::optional<ShmForm> form = parse_shm_form(place)) {
    const platform::SharedSection section = open_section(*form, false);
    return parse_kvt(std::span<const std::uint8_t>(section.data(), section.size()));
  }
  if (is_png_place(place)) {
    return readPng(as_path(place));
  }
  return read_kvt(as_path(place));
}

TextureHeader inspect_texture(const std::string& place) {
  TextureHeader header;
  if (const std::optional<ShmForm> form = parse_shm_form(place)) {
    const platform::SharedSection section = open_section(*form, false);
    header.shape = parse_kvt_header(std::span<const std::uint8_t>(section.data(), section.size()));
  } else if (is_png_place(place)) {
    PngHeader png = inspectPng(as_path(place));
    header.shape = std::move(png.shape);
    header.png_file_bytes = png.file_bytes;
  } else {
    header.shape = read_kvt_header(as_path(place));
  }
  return header;
}

void check_output_place(const std::string& place, const TexelImage& shape) {
  if (const std::optional<ShmForm> form = parse_shm_form(place)) {
    check_kvt_destination(form->size, kvt_file_bytes(shape));
    return;
  }
  if (is_png_place(place) && shape.type != ComponentType::kU8 &&
      shape.type != ComponentType::kU16) {
    throw Error(place + ": PNG stores 8- or 16-bit integer texels only, not " +
                component_type_name(shape.type));
  }
}

void store_image(const std::string& place, const TexelImage& image, int threads) {
  if (const std::optional<ShmForm> form = parse_shm_form(place)) {
    check_kvt_destination(form->size, kvt_file_bytes(image));
    const platform::SharedSection section = open_section(*form, true);
    write_kvt_into(std::span<std::uint8_t>(section.data(), section.size()), image);
    return;
  }
  if (is_png_place(place)) {
    writePng(as_path(place), image, threads);
    return;
  }
  write_kvt(as_path(place), image);
}

}  // namespace kv::transfer
