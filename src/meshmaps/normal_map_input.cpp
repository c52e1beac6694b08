#include "meshmaps/normal_map_input.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstring>
#include <string>

#include "core/error.h"
#include "image/exr_reader.h"
#include "image/half.h"
#include "image/kvt_file.h"
#include "image/png.h"

namespace kv::meshmaps {
namespace {

std::string lower_extension(const std::filesystem::path& path) {
  std::string ext = path.extension().string();
  std::transform(ext.begin(), ext.end(), ext.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return ext;
}

// Component i of the texels as a value in [0, 1] (floats as stored).
double component(const TexelImage& image, std::size_t i) {
  switch (image.type) {
    case ComponentType::kU8:
      return static_cast<double>(image.data[i]) / 255.0;
    case ComponentType::kU16: {
      std::uint16_t v = 0;
      std::memcpy(&v, image.data.data() + i * 2, 2);
      return static_cast<double>(v) / 65535.0;
    }
    case ComponentType::kF16: {
      std::uint16_t v = 0;
      std::memcpy(&v, image.data.data() + i * 2, 2);
      return half_bits_to_double(v);
    }
    case ComponentType::kF32:
    default: {
      float v = 0.0f;
      std::memcpy(&v, image.data.data() + i * 4, 4);
      return static_cast<double>(v);
    }
  }
}

}  // namespace

TexelImage read_normal_map_texels(const std::filesystem::path& path) {
  const std::string ext = lower_extension(path);
  if (ext == ".png") {
    return readPng(path);
  }
  if (ext == ".exr") {
    return read_exr(path);
  }
  if (ext == ".kvt") {
    return read_kvt(path);
  }
  throw Error("meshmaps: --normal-map takes a .png, .exr or .kvt file: " + path.string());
}

NormalMapImage decode_normal_map(const TexelImage& texels, bool directx,
                                 const std::filesystem::path& path) {
  if (texels.channels < 3 || texels.width < 1 || texels.height < 1 ||
      texels.data.size() < texels.expected_bytes()) {
    throw Error("meshmaps: the normal map needs three channels: " + path.string());
  }
  NormalMapImage map;
  map.width = texels.width;
  map.height = texels.height;
  const std::size_t count =
      static_cast<std::size_t>(texels.width) * static_cast<std::size_t>(texels.height);
  const auto channels = static_cast<std::size_t>(texels.channels);
  map.normals.resize(count);
  for (std::size_t t = 0; t < count; ++t) {
    Vec3f n{};
    for (std::size_t k = 0; k < 3; ++k) {
      n[k] = static_cast<float>(component(texels, t * channels + k) * 2.0 - 1.0);
    }
    if (directx) {
      n[1] = -n[1];
    }
    if (!normalize_in_place(n)) {
      n = {0.0f, 0.0f, 1.0f};
    }
    map.normals[t] = n;
  }
  return map;
}

std::size_t NormalMapImage::texel_at(double fu, double fv) const {
  const auto column = static_cast<std::int64_t>(std::floor(fu * width));
  const auto row = static_cast<std::int64_t>(std::floor(fv * height));
  const std::int64_t x = std::clamp<std::int64_t>(column, 0, width - 1);
  const std::int64_t y = std::clamp<std::int64_t>(row, 0, height - 1);
  return static_cast<std::size_t>(y * width + x);
}

double NormalMapImage::divergence(std::size_t texel) const {
  const auto w = static_cast<std::size_t>(width);
  const std::size_t x = texel % w;
  const std::size_t y = texel / w;
  const std::size_t left = x > 0 ? texel - 1 : texel;
  const std::size_t right = x + 1 < w ? texel + 1 : texel;
  const std::size_t up = y > 0 ? texel - w : texel;  // +v is up the rows
  const std::size_t down = y + 1 < static_cast<std::size_t>(height) ? texel + w : texel;
  const double du = static_cast<double>(normals[right][0]) - normals[left][0];
  const double dv = static_cast<double>(normals[up][1]) - normals[down][1];
  return 0.5 * (du + dv);
}

}  // namespace kv::meshmaps
