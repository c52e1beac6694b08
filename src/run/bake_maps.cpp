#include "run/bake_maps.h"

#include <algorithm>
#include <cctype>
#include <span>
#include <string>
#include <vector>

#include "image/exr.h"
#include "image/png.h"
#include "normal/normal_padding.h"
#include "padding/padding.h"

namespace kv::run {
namespace {

bool has_png_extension(const std::filesystem::path& path) {
  std::string ext = path.extension().string();
  std::transform(ext.begin(), ext.end(), ext.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return ext == ".png";
}

std::uint64_t count_set(const std::vector<std::uint8_t>& mask) {
  return static_cast<std::uint64_t>(
      std::count_if(mask.begin(), mask.end(), [](std::uint8_t m) { return m != 0; }));
}

}  // namespace

void write_map(const std::filesystem::path& path, int width, int height, int channels,
               std::span<const std::uint16_t> codes, int threads) {
  if (has_png_extension(path)) {
    writePngCodes(path, width, height, channels, codes, threads);
  } else {
    writeExr(path, width, height, channels, codes, kExrFloat, threads);
  }
}

PaddingCount pad_normal_map(NormalBakeResult& result, const NormalBakeSettings& settings) {
  ImageView view;
  view.width = settings.width;
  view.height = settings.height;
  view.channels = 3;
  view.type = ComponentType::kU16;
  view.bytes = std::as_writable_bytes(std::span(result.normal));
  const std::vector<std::uint8_t> after =
      pad_image(view, result.normal_valid, padding_settings_of(settings), settings.threads);
  return {count_set(result.normal_valid), count_set(after)};
}

void write_maps(const NormalBakeResult& result, const NormalBakeSettings& settings) {
  if (!settings.out_normal.empty()) {  // a caller may keep the Normal map elsewhere
    write_map(settings.out_normal, settings.width, settings.height, 3, result.normal,
              settings.threads);
  }
  if (!settings.out_opacity.empty()) {
    write_map(settings.out_opacity, settings.width, settings.height, 1, result.opacity,
              settings.threads);
  }
}

}  // namespace kv::run
