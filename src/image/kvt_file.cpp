#include "image/kvt_file.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <new>
#include <string>

#include "core/error.h"
#include "image/temp_file.h"
#include "platform/platform.h"

namespace kv {
namespace {

static_assert(std::endian::native == std::endian::little,
              "texel files are little-endian and written as the samples lie in memory");

constexpr std::array<std::uint8_t, 8> kMagic = {'K', 'V', 'T', 'E', 'X', '1', 0, 0};

struct KvtHeader {
  std::uint32_t version = 0;
  std::uint32_t type = 0;
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  std::uint32_t channels = 0;
  std::uint32_t reserved = 0;
};

std::uint32_t read_u32(const std::uint8_t* at) {
  std::uint32_t value = 0;
  std::memcpy(&value, at, 4);
  return value;
}

// Every check that the header alone allows, in the file's order of checks;
// returns the image without its texels.
TexelImage check_header(const std::uint8_t* header, std::uint64_t file_bytes) {
  if (file_bytes < kKvtHeaderBytes || std::memcmp(header, kMagic.data(), kMagic.size()) != 0) {
    throw Error(".kvt: not a korvane texel file");
  }
  KvtHeader h;
  h.version = read_u32(header + 8);
  h.type = read_u32(header + 12);
  h.width = read_u32(header + 16);
  h.height = read_u32(header + 20);
  h.channels = read_u32(header + 24);
  h.reserved = read_u32(header + 28);
  if (h.version != 1) {
    throw Error(".kvt: unsupported version");
  }
  if (h.type < 1 || h.type > 4) {
    throw Error(".kvt: unknown component type");
  }
  if (h.reserved != 0) {
    throw Error(".kvt: reserved header field is not 0");
  }
  if (h.width > kKvtMaxSide || h.height > kKvtMaxSide || h.channels > kKvtMaxChannels) {
    throw Error(".kvt: size or channel count out of range");
  }
  TexelImage image;
  image.width = static_cast<int>(h.width);
  image.height = static_cast<int>(h.height);
  image.channels = static_cast<int>(h.channels);
  image.type = static_cast<ComponentType>(h.type);
  check_texture(image);
  if (file_bytes != kvt_file_bytes(image)) {
    throw Error(".kvt: data size does not match the header");
  }
  return image;
}

std::array<std::uint8_t, kKvtHeaderBytes> make_header(const TexelImage& image) {
  std::array<std::uint8_t, kKvtHeaderBytes> header{};
  std::memcpy(header.data(), kMagic.data(), kMagic.size());
  const std::array<std::uint32_t, 6> fields = {1u,
                                               static_cast<std::uint32_t>(image.type),
                                               static_cast<std::uint32_t>(image.width),
                                               static_cast<std::uint32_t>(image.height),
                                               static_cast<std::uint32_t>(image.channels),
                                               0u};
  std::memcpy(header.data() + 8, fields.data(), sizeof fields);
  return header;
}

void check_writable(const TexelImage& image) {
  if (image.data.empty()) {
    throw Error(".kvt: no texel data");
  }
  check_texture(image);
  if (image.data.size() != image.expected_bytes()) {
    throw Error(".kvt: the texel data does not match " + std::to_string(image.width) + " x " +
                std::to_string(image.height) + " x " + std::to_string(image.channels) + " " +
                component_type_name(image.type) + " texels");
  }
}

}  // namespace

void check_texture(const TexelImage& image) {
  if (image.width < 1 || image.width > kKvtMaxSide || image.height < 1 ||
      image.height > kKvtMaxSide) {
    throw Error("texture: each side must be 1 to 16384 texels");
  }
  if (image.channels < 1 || image.channels > kKvtMaxChannels) {
    throw Error("texture: 1 to 4 channels");
  }
  if (component_bytes(image.type) == 0) {
    throw Error("texture: unknown component type");
  }
}

std::uint64_t kvt_file_bytes(const TexelImage& image) {
  return kKvtHeaderBytes + static_cast<std::uint64_t>(image.expected_bytes());
}

namespace {

// Opens the file and checks its header: the image without its texels, the
// file left just past the header.
TexelImage open_kvt(const std::filesystem::path& path, platform::File& file) {
  int error = 0;
  file = platform::File::open_read(path, &error);
  if (!file.is_open()) {
    throw Error("cannot open " + path.string() + ": " + platform::system_error_text(error));
  }
  const std::int64_t size = file.size(&error);
  if (size < 0) {
    throw Error("cannot read " + path.string() + ": " + platform::system_error_text(error));
  }
  std::array<std::uint8_t, kKvtHeaderBytes> header{};
  const std::int64_t got = file.read_full(header.data(), header.size(), &error);
  if (got < 0) {
    throw Error("cannot read " + path.string() + ": " + platform::system_error_text(error));
  }
  return check_header(header.data(), static_cast<std::uint64_t>(size));
}

}  // namespace

TexelImage read_kvt_header(const std::filesystem::path& path) {
  platform::File file;
  return open_kvt(path, file);
}

TexelImage read_kvt(const std::filesystem::path& path) {
  platform::File file;
  TexelImage image = open_kvt(path, file);
  try {
    image.data.resize(image.expected_bytes());
  } catch (const std::bad_alloc&) {
    throw OutOfMemory(path.string() + ": out of memory while reading the texels");
  }
  int error = 0;
  if (file.read_full(image.data.data(), image.data.size(), &error) !=
      static_cast<std::int64_t>(image.data.size())) {
    throw Error("cannot read " + path.string());
  }
  return image;
}

TexelImage parse_kvt_header(std::span<const std::uint8_t> bytes) {
  std::array<std::uint8_t, kKvtHeaderBytes> header{};
  std::memcpy(header.data(), bytes.data(), std::min<std::size_t>(bytes.size(), header.size()));
  return check_header(header.data(), bytes.size());
}

TexelImage parse_kvt(std::span<const std::uint8_t> bytes) {
  TexelImage image = parse_kvt_header(bytes);
  image.data.assign(bytes.begin() + kKvtHeaderBytes, bytes.end());
  return image;
}

void write_kvt(const std::filesystem::path& path, const TexelImage& image) {
  check_writable(image);
  const std::filesystem::path parent = path.parent_path();
  if (!parent.empty()) {
    platform::create_directories(parent);  // a failure shows when the file is created
  }
  const auto header = make_header(image);
  PlainTempFile temp(path);
  temp.create();
  temp.write(header.data(), header.size());
  temp.write(image.data.data(), image.data.size());
  temp.commit();
}

void check_kvt_destination(std::uint64_t destination_bytes, std::uint64_t needed_bytes) {
  if (destination_bytes != needed_bytes) {
    throw Error(".kvt: the destination must hold exactly " + std::to_string(needed_bytes) +
                " bytes, not " + std::to_string(destination_bytes));
  }
}

void write_kvt_into(std::span<std::uint8_t> destination, const TexelImage& image) {
  check_writable(image);
  check_kvt_destination(destination.size(), kvt_file_bytes(image));
  const auto header = make_header(image);
  std::memcpy(destination.data(), header.data(), header.size());
  std::memcpy(destination.data() + kKvtHeaderBytes, image.data.data(), image.data.size());
}

}  // namespace kv
