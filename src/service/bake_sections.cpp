#include "service/bake_sections.h"

#include <cstring>
#include <limits>
#include <utility>

#include "core/error.h"
#include "image/kvt_file.h"
#include "transfer/texture_io.h"

namespace kv::service {
namespace {

constexpr std::int64_t kMaxPreviewSide = 65536;

TexelImage code_image(int width, int height, int channels) {
  TexelImage image;
  image.width = width;
  image.height = height;
  image.channels = channels;
  image.type = ComponentType::kU16;
  return image;
}

// Maps the section, turning the transfer's own failure messages into field
// errors.
std::shared_ptr<platform::SharedSection> map_section(const FieldReader& fields,
                                                     const std::string& field,
                                                     const std::string& name, std::uint64_t size) {
  try {
    return std::make_shared<platform::SharedSection>(
        transfer::open_section(transfer::ShmForm{name, size}, true));
  } catch (const Error& error) {
    fields.fail(field, error.what());
  }
}

std::int32_t preview_side(const FieldReader& preview, const FieldReader& fields,
                          std::string_view name) {
  const std::int64_t side =
      preview.integer(preview.at(name), name, std::numeric_limits<std::int64_t>::min(),
                      std::numeric_limits<std::int64_t>::max());
  if (side < 1 || side > kMaxPreviewSide) {
    fields.fail("preview", "size and height must be 1 to 65536");
  }
  return static_cast<std::int32_t>(side);
}

}  // namespace

MapSection open_map_section(const FieldReader& fields, const std::string& field,
                            const JobOutput& output, int width, int height, int channels) {
  MapSection section;
  if (output.section.empty()) {
    return section;
  }
  try {
    check_kvt_destination(output.size, kvt_file_bytes(code_image(width, height, channels)));
  } catch (const Error& error) {
    fields.fail(field, error.what());
  }
  section.name = output.section;
  section.mapping = map_section(fields, field, output.section, output.size);
  return section;
}

void write_map_section(const MapSection& section, int width, int height, int channels,
                       std::span<const std::uint16_t> codes) {
  if (!section.mapping) {
    return;
  }
  TexelImage image = code_image(width, height, channels);
  image.data.resize(codes.size_bytes());
  std::memcpy(image.data.data(), codes.data(), codes.size_bytes());
  write_kvt_into(std::span<std::uint8_t>(section.mapping->data(), section.mapping->size()), image);
}

PreviewSection read_preview_section(const FieldReader& fields) {
  const Json& value = fields.object(fields.at("preview"), "preview");
  const FieldReader preview(value, fields.context() + ": preview", fields.id());
  preview.expect({"section", "width", "height"}, {"size"});
  if (!preview.has("size")) {
    fields.fail("preview", "needs a section and its size");
  }
  PreviewSection result;
  result.preview.section = preview.string("section");
  const std::uint64_t size = preview.non_negative("size");
  if (size == 0) {
    preview.fail("size", "must be positive");
  }
  result.preview.size.width = preview_side(preview, fields, "width");
  result.preview.size.height = preview_side(preview, fields, "height");
  const std::uint64_t needed = run::preview_bytes(result.preview.size);
  if (size < needed) {
    fields.fail("preview", "the section must hold at least " + std::to_string(needed) +
                               " bytes, not " + std::to_string(size));
  }
  result.mapping = map_section(fields, "preview", result.preview.section, size);
  result.preview.pixels = std::span<std::uint8_t>(result.mapping->data(), needed);
  return result;
}

void BakeSections::write(const NormalBakeResult& result, int width, int height) const {
  write_map_section(normal, width, height, 3, result.normal);
  write_map_section(opacity, width, height, 1, result.opacity);
}

}  // namespace kv::service
