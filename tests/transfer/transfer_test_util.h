// Helpers of the transfer tests: planes written as OBJ files with chosen UV
// maps, patterned textures of every component type, and runs of the
// transfer from a command line.
#pragma once

#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "core/json_line.h"
#include "image/kvt_file.h"
#include "support/test_support.h"
#include "transfer/transfer_command.h"

namespace kv::test {

// A rectangle [x0, x1] x [y0, y1] at height z, two triangles facing +z, whose
// UV at position (x, y) is (su x + ou, sv y + ov).
struct Quad {
  std::string object = "plane";
  float x0 = 0.0f, y0 = 0.0f, x1 = 1.0f, y1 = 1.0f, z = 0.0f;
  double su = 1.0, ou = 0.0, sv = 1.0, ov = 0.0;
  std::string material;  // empty: no usemtl line
};

inline std::string quads_obj(const std::vector<Quad>& quads) {
  std::string text;
  int base = 1;
  for (const Quad& q : quads) {
    text += "o " + q.object + "\n";
    if (!q.material.empty()) {
      text += "usemtl " + q.material + "\n";
    }
    const float xs[4] = {q.x0, q.x1, q.x1, q.x0};
    const float ys[4] = {q.y0, q.y0, q.y1, q.y1};
    for (int k = 0; k < 4; ++k) {
      text += "v " + std::to_string(xs[k]) + " " + std::to_string(ys[k]) + " " +
              std::to_string(q.z) + "\n";
    }
    for (int k = 0; k < 4; ++k) {
      char line[96];
      std::snprintf(line, sizeof line, "vt %.17g %.17g\n", q.su * xs[k] + q.ou,
                    q.sv * ys[k] + q.ov);
      text += line;
    }
    const auto corner = [&](int k) {
      return std::to_string(base + k) + "/" + std::to_string(base + k);
    };
    text += "f " + corner(0) + " " + corner(1) + " " + corner(2) + "\n";
    text += "f " + corner(0) + " " + corner(2) + " " + corner(3) + "\n";
    base += 4;
  }
  return text;
}

inline std::filesystem::path write_obj(const ScratchDir& dir, const std::string& name,
                                       const std::vector<Quad>& quads) {
  const std::filesystem::path path = dir / name;
  write_text_file(path, quads_obj(quads));
  return path;
}

// Distinct texels of every type; half and single floats include signed
// zeros, subnormals, infinities and NaN with a payload.
inline TexelImage pattern_image(int w, int h, int channels, ComponentType type) {
  TexelImage image;
  image.width = w;
  image.height = h;
  image.channels = channels;
  image.type = type;
  image.data.resize(image.expected_bytes());
  const std::size_t count = static_cast<std::size_t>(w) * h * channels;
  for (std::size_t i = 0; i < count; ++i) {
    switch (type) {
      case ComponentType::kU8:
        image.data[i] = static_cast<std::uint8_t>(i * 7 + 3);
        break;
      case ComponentType::kU16: {
        const auto v = static_cast<std::uint16_t>(i * 4099 + 17);
        std::memcpy(image.data.data() + 2 * i, &v, 2);
        break;
      }
      case ComponentType::kF16: {
        const std::uint16_t specials[5] = {0x8000, 0x0001, 0x7c00, 0x7e05, 0xfbff};
        const auto v = i % 9 < 5 ? specials[i % 9] : static_cast<std::uint16_t>(0x3c00 + i * 13);
        std::memcpy(image.data.data() + 2 * i, &v, 2);
        break;
      }
      case ComponentType::kF32: {
        const std::uint32_t specials[4] = {0x80000000u, 0x00000001u, 0xff800000u, 0x7fc01234u};
        const auto v =
            i % 7 < 4 ? specials[i % 7] : static_cast<std::uint32_t>(0x3f800000u + i * 977);
        std::memcpy(image.data.data() + 4 * i, &v, 4);
        break;
      }
    }
  }
  return image;
}

// One channel per texel, every texel `value`.
inline TexelImage flat_image(int w, int h, std::uint8_t value) {
  TexelImage image;
  image.width = w;
  image.height = h;
  image.channels = 1;
  image.type = ComponentType::kU8;
  image.data.assign(static_cast<std::size_t>(w) * h, value);
  return image;
}

// Runs the transfer in this process: "korvane transfer" and the arguments.
inline Json transfer(std::vector<std::string> args) {
  args.insert(args.begin(), {"korvane", "transfer"});
  return transfer::run_transfer(transfer::parse_transfer_options(args));
}

// The first `channels` components of texel (x, y), as bytes.
inline std::vector<std::uint8_t> texel_bytes(const TexelImage& image, int x, int y) {
  const std::size_t size = component_bytes(image.type) * image.channels;
  const auto first =
      image.data.begin() +
      static_cast<std::ptrdiff_t>((static_cast<std::size_t>(y) * image.width + x) * size);
  return {first, first + static_cast<std::ptrdiff_t>(size)};
}

}  // namespace kv::test
