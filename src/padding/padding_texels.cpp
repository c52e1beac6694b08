#include "padding/padding_texels.h"

#include <cmath>
#include <cstring>
#include <limits>
#include <memory>

#include "image/half.h"

namespace kv {

double srgb_to_linear(double encoded) {
  if (encoded <= 0.04045) {
    return encoded / 12.92;
  }
  return std::pow((encoded + 0.055) / 1.055, 2.4);
}

double linear_to_srgb(double linear) {
  if (!(linear > 0.0)) {
    return 0.0;
  }
  if (linear >= 1.0) {
    return 1.0;
  }
  if (linear <= 0.0031308) {
    return linear * 12.92;
  }
  return 1.055 * std::pow(linear, 1.0 / 2.4) - 0.055;
}

namespace padding_detail {

namespace {

// code -> linear light for every code of an 8- or 16-bit component.
std::unique_ptr<double[]> make_decode_table(std::uint32_t top) {
  auto table = std::make_unique<double[]>(top + 1);
  for (std::uint32_t code = 0; code <= top; ++code) {
    table[code] = srgb_to_linear(static_cast<double>(code) / static_cast<double>(top));
  }
  return table;
}

const double* decode_table(ComponentType type) {
  if (type == ComponentType::kU8) {
    static const std::unique_ptr<double[]> table = make_decode_table(255);
    return table.get();
  }
  static const std::unique_ptr<double[]> table = make_decode_table(65535);
  return table.get();
}

bool is_integer(ComponentType type) {
  return type == ComponentType::kU8 || type == ComponentType::kU16;
}

}  // namespace

bool image_shape_ok(const ImageView& image) {
  if (image.width <= 0 || image.height <= 0 || image.channels <= 0) {
    return false;
  }
  const std::size_t bytes_per = component_bytes(image.type);
  if (bytes_per == 0) {
    return false;
  }
  const std::uint64_t texels =
      static_cast<std::uint64_t>(image.width) * static_cast<std::uint64_t>(image.height);
  if (texels > 0xFFFFFFFFull) {
    return false;
  }
  // texels < 2^32 and channels < 2^31: the product of the three fits in
  // 64 bits; it must also fit the address space.
  const std::uint64_t components = texels * static_cast<std::uint64_t>(image.channels);
  if (components > std::numeric_limits<std::size_t>::max() / bytes_per) {
    return false;
  }
  return image.bytes.size() == components * bytes_per;
}

TexelCodec::TexelCodec(const ImageView& image, bool srgb)
    : data_(image.bytes.data()),
      channels_(image.channels),
      type_(image.type),
      component_bytes_(component_bytes(image.type)),
      scale_(image.type == ComponentType::kU8    ? 255.0
             : image.type == ComponentType::kU16 ? 65535.0
                                                 : 1.0),
      linear_light_(static_cast<std::size_t>(image.channels), 0) {
  if (srgb && is_integer(type_)) {
    decode_table_ = decode_table(type_);
    // With two or four channels the last is alpha, which is stored linear.
    const bool has_alpha = channels_ == 2 || channels_ == 4;
    for (std::int32_t c = 0; c < channels_; ++c) {
      linear_light_[static_cast<std::size_t>(c)] = (has_alpha && c == channels_ - 1) ? 0 : 1;
    }
  }
}

double TexelCodec::read_component(std::uint64_t offset) const {
  const std::byte* at = data_ + offset * component_bytes_;
  switch (type_) {
    case ComponentType::kU8:
      return static_cast<double>(std::to_integer<std::uint8_t>(*at));
    case ComponentType::kU16: {
      std::uint16_t v;
      std::memcpy(&v, at, sizeof v);
      return static_cast<double>(v);
    }
    case ComponentType::kF16: {
      std::uint16_t v;
      std::memcpy(&v, at, sizeof v);
      return half_bits_to_double(v);
    }
    case ComponentType::kF32: {
      float v;
      std::memcpy(&v, at, sizeof v);
      return static_cast<double>(v);
    }
  }
  return 0.0;
}

void TexelCodec::write_component(std::uint64_t offset, double value) const {
  std::byte* at = data_ + offset * component_bytes_;
  switch (type_) {
    case ComponentType::kU8:
      *at = static_cast<std::byte>(round_code(value, 255.0));
      return;
    case ComponentType::kU16: {
      const auto v = static_cast<std::uint16_t>(round_code(value, 65535.0));
      std::memcpy(at, &v, sizeof v);
      return;
    }
    case ComponentType::kF16: {
      const std::uint16_t v = double_to_half_bits(value);
      std::memcpy(at, &v, sizeof v);
      return;
    }
    case ComponentType::kF32: {
      const auto v = static_cast<float>(value);
      std::memcpy(at, &v, sizeof v);
      return;
    }
  }
}

void TexelCodec::read(std::uint64_t texel, double* out) const {
  const std::uint64_t base = texel * static_cast<std::uint64_t>(channels_);
  for (std::int32_t c = 0; c < channels_; ++c) {
    if (linear_light_[static_cast<std::size_t>(c)] != 0) {
      const double code = read_component(base + static_cast<std::uint64_t>(c));
      out[c] = decode_table_[static_cast<std::uint32_t>(code)];
    } else {
      out[c] = read_component(base + static_cast<std::uint64_t>(c));
    }
  }
}

void TexelCodec::write(std::uint64_t texel, const double* values) const {
  const std::uint64_t base = texel * static_cast<std::uint64_t>(channels_);
  for (std::int32_t c = 0; c < channels_; ++c) {
    double v = values[c];
    if (linear_light_[static_cast<std::size_t>(c)] != 0) {
      v = linear_to_srgb(v) * scale_;
    }
    write_component(base + static_cast<std::uint64_t>(c), v);
  }
}

void TexelCodec::write_raw(std::uint64_t texel, const double* values) const {
  const std::uint64_t base = texel * static_cast<std::uint64_t>(channels_);
  for (std::int32_t c = 0; c < channels_; ++c) {
    write_component(base + static_cast<std::uint64_t>(c), values[c]);
  }
}

void TexelCodec::copy(std::uint64_t from, std::uint64_t to) const {
  const std::size_t texel_bytes = component_bytes_ * static_cast<std::size_t>(channels_);
  std::memcpy(data_ + to * texel_bytes, data_ + from * texel_bytes, texel_bytes);
}

}  // namespace padding_detail
}  // namespace kv
