#include "image/exr_reader.h"

#include <zlib.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include "core/error.h"
#include "image/half.h"
#include "platform/platform.h"

namespace kv {

static_assert(std::endian::native == std::endian::little,
              "the EXR reader takes little-endian values as they lie in the file");

namespace {

constexpr std::uint32_t kMagic = 20000630;
constexpr std::uint32_t kTiledFlag = 0x200;
constexpr std::uint32_t kLongNamesFlag = 0x400;
constexpr std::uint32_t kDeepFlag = 0x800;
constexpr std::uint32_t kMultipartFlag = 0x1000;
// Names are at most 31 bytes, or 255 with the long-names flag; both are read.
constexpr std::size_t kMaxNameBytes = 255;
// Header fields are read through a window of the file this large.
constexpr std::size_t kWindowBytes = 65536;

// Pixel types as the file numbers them.
constexpr std::int32_t kUint = 0;
constexpr std::int32_t kHalf = 1;
constexpr std::int32_t kFloat = 2;

// The most a chunk's data can grow when unpacked: deflate spends at least
// 2 bits on a 258-byte match; an RLE run takes two bytes for at most 128.
constexpr std::uint64_t kZipGrowth = 1032;
constexpr std::uint64_t kRleGrowth = 64;

struct Compression {
  const char* name;
  int lines;             // scanlines per chunk
  std::uint64_t growth;  // 0: not read here
};
constexpr std::array<Compression, 10> kCompressions{{{"NONE", 1, 1},
                                                     {"RLE", 1, kRleGrowth},
                                                     {"ZIPS", 1, kZipGrowth},
                                                     {"ZIP", 16, kZipGrowth},
                                                     {"PIZ", 32, 0},
                                                     {"PXR24", 16, 0},
                                                     {"B44", 32, 0},
                                                     {"B44A", 32, 0},
                                                     {"DWAA", 32, 0},
                                                     {"DWAB", 256, 0}}};
constexpr int kNone = 0;
constexpr int kRle = 1;

struct Channel {
  std::string name;
  std::int32_t type = kHalf;
  int output = -1;                // component of the texel, -1 when skipped
  std::uint64_t line_offset = 0;  // where its values start in a line
};

struct Header {
  std::vector<Channel> channels;
  int compression = -1;
  bool has_window = false;
  std::int32_t x_min = 0;
  std::int32_t y_min = 0;
  std::int32_t x_max = 0;
  std::int32_t y_max = 0;
  std::uint64_t end = 0;  // the first byte after the header
};

std::uint64_t value_bytes(std::int32_t type) {
  return type == kHalf ? 2 : 4;
}

std::uint32_t u32_at(const std::uint8_t* bytes) {
  std::uint32_t value = 0;
  std::memcpy(&value, bytes, 4);
  return value;
}
std::int32_t i32_at(const std::uint8_t* bytes) {
  return static_cast<std::int32_t>(u32_at(bytes));
}

// The open file with its length; header fields are read through a window
// refilled on demand, chunks straight into the caller's buffer.
class Source {
 public:
  explicit Source(const std::filesystem::path& path) : path_(path) {
    int error = 0;
    file_ = platform::File::open_read(path, &error);
    if (!file_.is_open()) {
      throw Error("cannot open " + path.string() + ": " + platform::system_error_text(error));
    }
    const std::int64_t size = file_.size(&error);
    if (size < 0) {
      throw Error("cannot read " + path.string() + ": " + platform::system_error_text(error));
    }
    size_ = static_cast<std::uint64_t>(size);
  }

  std::uint64_t size() const { return size_; }

  [[noreturn]] void fail(const std::string& what) const {
    throw Error(path_.string() + ": EXR: " + what);
  }

  // n bytes (at most the window) at offset; the file must hold them.
  const std::uint8_t* at(std::uint64_t offset, std::size_t n, const std::string& what) {
    if (offset > size_ || n > size_ - offset) {
      fail("the file ends inside " + what);
    }
    if (offset < start_ || offset + n > start_ + window_.size()) {
      const std::uint64_t count =
          std::min<std::uint64_t>(std::max(n, kWindowBytes), size_ - offset);
      window_.resize(static_cast<std::size_t>(count));
      read(offset, window_.data(), window_.size());
      start_ = offset;
    }
    return window_.data() + (offset - start_);
  }

  // A NUL-terminated name at offset, which moves past it.
  std::string name(std::uint64_t& offset, const std::string& what) {
    const std::size_t available =
        static_cast<std::size_t>(std::min<std::uint64_t>(kMaxNameBytes + 1, size_ - offset));
    const std::uint8_t* bytes = at(offset, available, what);
    const void* nul = std::memchr(bytes, 0, available);
    if (nul == nullptr) {
      fail(available <= kMaxNameBytes ? "the file ends inside " + what
                                      : what + " is longer than 255 bytes");
    }
    const std::string text(reinterpret_cast<const char*>(bytes),
                           static_cast<const std::uint8_t*>(nul) - bytes);
    offset += text.size() + 1;
    return text;
  }

  void read(std::uint64_t offset, void* destination, std::size_t n) const {
    int error = 0;
    if (file_.read_full_at(destination, n, offset, &error) != static_cast<std::int64_t>(n)) {
      throw Error("cannot read " + path_.string() +
                  (error != 0 ? ": " + platform::system_error_text(error) : std::string()));
    }
  }

 private:
  std::filesystem::path path_;
  platform::File file_;
  std::uint64_t size_ = 0;
  std::vector<std::uint8_t> window_;
  std::uint64_t start_ = 0;
};

void expect_type(Source& in, const std::string& name, const std::string& type, const char* wanted,
                 std::int32_t size, std::int32_t wanted_size) {
  if (type != wanted) {
    in.fail("the " + name + " attribute has type " + type + ", not " + wanted);
  }
  if (wanted_size > 0 && size != wanted_size) {
    in.fail("the " + name + " attribute holds " + std::to_string(size) + " bytes, not " +
            std::to_string(wanted_size));
  }
}

std::vector<Channel> read_channel_list(Source& in, std::uint64_t offset, std::uint64_t size) {
  const std::uint64_t end = offset + size;
  std::vector<Channel> channels;
  while (true) {
    if (offset >= end) {
      in.fail("the channel list has no end");
    }
    Channel channel;
    channel.name = in.name(offset, "a channel name");
    if (channel.name.empty()) {
      break;
    }
    if (offset + 16 > end) {
      in.fail("the channel list ends inside channel " + channel.name);
    }
    const std::uint8_t* fields = in.at(offset, 16, "channel " + channel.name);
    channel.type = i32_at(fields);
    const std::int32_t x_sampling = i32_at(fields + 8);
    const std::int32_t y_sampling = i32_at(fields + 12);
    offset += 16;
    if (channel.type != kUint && channel.type != kHalf && channel.type != kFloat) {
      in.fail("channel " + channel.name + " has the unknown pixel type " +
              std::to_string(channel.type));
    }
    if (x_sampling != 1 || y_sampling != 1) {
      in.fail("channel " + channel.name + " is subsampled (" + std::to_string(x_sampling) + " x " +
              std::to_string(y_sampling) + "); only full-resolution channels are read");
    }
    for (const Channel& other : channels) {
      if (other.name == channel.name) {
        in.fail("channel " + channel.name + " is listed twice");
      }
    }
    channels.push_back(std::move(channel));
  }
  if (channels.empty()) {
    in.fail("the file has no channels");
  }
  return channels;
}

void read_attribute(Source& in, Header& header, const std::string& name, const std::string& type,
                    std::uint64_t offset, std::int32_t size) {
  if (name == "channels") {
    expect_type(in, name, type, "chlist", size, 0);
    header.channels = read_channel_list(in, offset, static_cast<std::uint64_t>(size));
  } else if (name == "compression") {
    expect_type(in, name, type, "compression", size, 1);
    const int value = *in.at(offset, 1, "the compression");
    if (value >= static_cast<int>(kCompressions.size())) {
      in.fail("unknown compression " + std::to_string(value));
    }
    if (kCompressions[static_cast<std::size_t>(value)].growth == 0) {
      in.fail(std::string(kCompressions[static_cast<std::size_t>(value)].name) +
              " compression is not supported");
    }
    header.compression = value;
  } else if (name == "dataWindow") {
    expect_type(in, name, type, "box2i", size, 16);
    const std::uint8_t* box = in.at(offset, 16, "the data window");
    header.x_min = i32_at(box);
    header.y_min = i32_at(box + 4);
    header.x_max = i32_at(box + 8);
    header.y_max = i32_at(box + 12);
    header.has_window = true;
  } else if (name == "lineOrder") {
    expect_type(in, name, type, "lineOrder", size, 1);
    const int value = *in.at(offset, 1, "the line order");
    if (value > 2) {  // increasing, decreasing, random: the offset table serves all three
      in.fail("unknown line order " + std::to_string(value));
    }
  } else if (name == "type") {
    const auto length = static_cast<std::size_t>(std::min<std::int32_t>(size, kMaxNameBytes));
    const std::string part(reinterpret_cast<const char*>(in.at(offset, length, "the part type")),
                           length);
    if (type != "string" || part != "scanlineimage") {
      in.fail("only scanline images are read, not " + part);
    }
  }
}

Header read_header(Source& in) {
  const std::uint8_t* start = in.at(0, 8, "the header");
  if (u32_at(start) != kMagic) {
    in.fail("the file does not start with the OpenEXR magic number");
  }
  const std::uint32_t version = u32_at(start + 4);
  if ((version & 0xffu) != 2) {
    in.fail("format version " + std::to_string(version & 0xffu) + " is not supported");
  }
  if ((version & kTiledFlag) != 0) {
    in.fail("tiled files are not supported");
  }
  if ((version & kDeepFlag) != 0) {
    in.fail("deep data is not supported");
  }
  if ((version & kMultipartFlag) != 0) {
    in.fail("multi-part files are not supported");
  }
  if ((version & ~(0xffu | kTiledFlag | kLongNamesFlag | kDeepFlag | kMultipartFlag)) != 0) {
    in.fail("unknown version flags " + std::to_string(version >> 8));
  }
  Header header;
  std::uint64_t offset = 8;
  while (true) {
    const std::string name = in.name(offset, "an attribute name");
    if (name.empty()) {
      break;
    }
    const std::string type = in.name(offset, "the type of attribute " + name);
    const std::int32_t size = i32_at(in.at(offset, 4, "the size of attribute " + name));
    offset += 4;
    if (size < 0 || static_cast<std::uint64_t>(size) > in.size() - offset) {
      in.fail("attribute " + name + " claims " + std::to_string(size) +
              " bytes, more than the file has left");
    }
    read_attribute(in, header, name, type, offset, size);
    offset += static_cast<std::uint64_t>(size);
  }
  header.end = offset;
  for (const auto& [present, attribute] : {std::pair{!header.channels.empty(), "channels"},
                                           std::pair{header.compression >= 0, "compression"},
                                           std::pair{header.has_window, "dataWindow"}}) {
    if (!present) {
      in.fail(std::string("the header has no ") + attribute + " attribute");
    }
  }
  return header;
}

std::string names_of(const std::vector<Channel>& channels) {
  std::string names;
  for (std::size_t i = 0; i < channels.size() && i < 8; ++i) {
    names += (i == 0 ? "" : ", ") + channels[i].name;
  }
  return channels.size() > 8 ? names + ", ..." : names;
}

// Picks the channels read into the texel and their components; returns
// the texel's channel count.
int choose_channels(Source& in, std::vector<Channel>& channels) {
  const auto find = [&](const char* name) -> Channel* {
    for (Channel& channel : channels) {
      if (channel.name == name) {
        return &channel;
      }
    }
    return nullptr;
  };
  Channel* const rgb[3] = {find("R"), find("G"), find("B")};
  Channel* const alpha = find("A");
  Channel* const grey = find("Y");
  std::vector<Channel*> chosen;
  if (rgb[0] != nullptr || rgb[1] != nullptr || rgb[2] != nullptr) {
    if (rgb[0] == nullptr || rgb[1] == nullptr || rgb[2] == nullptr) {
      in.fail("an RGB image needs all of R, G and B; the channels are " + names_of(channels));
    }
    chosen.assign(rgb, rgb + 3);
  } else if (grey != nullptr) {
    chosen.push_back(grey);
  } else {
    in.fail("no R, G, B or Y channel to read; the channels are " + names_of(channels));
  }
  if (alpha != nullptr) {
    chosen.push_back(alpha);
  }
  for (std::size_t k = 0; k < chosen.size(); ++k) {
    if (chosen[k]->type == kUint) {
      in.fail("channel " + chosen[k]->name +
              " holds 32-bit unsigned integers; only half and float channels are read");
    }
    chosen[k]->output = static_cast<int>(k);
  }
  return static_cast<int>(chosen.size());
}

// The sizes the header gives, each checked against the program's limits
// and the file's length before anything is allocated.
struct Layout {
  TexelImage image;              // without its data yet
  std::uint64_t line_bytes = 0;  // every channel of one line, as stored
  std::uint64_t chunks = 0;
  std::uint64_t table_end = 0;  // the first byte after the offset table
  std::int64_t y_min = 0;       // the file's number of the top line
  const Compression* compression = nullptr;
};

Layout plan(Source& in, Header& header) {
  Layout layout;
  const std::int64_t width = std::int64_t{header.x_max} - header.x_min + 1;
  const std::int64_t height = std::int64_t{header.y_max} - header.y_min + 1;
  const std::string size = std::to_string(width) + " x " + std::to_string(height) + " texels";
  if (width < 1 || height < 1) {
    in.fail("the data window is empty (" + size + ")");
  }
  if (width > kMaxImageSide || height > kMaxImageSide) {
    in.fail("the image is " + size + ", more than " + std::to_string(kMaxImageSide) + " on a side");
  }
  layout.y_min = header.y_min;
  layout.image.width = static_cast<int>(width);
  layout.image.height = static_cast<int>(height);
  layout.image.channels = choose_channels(in, header.channels);
  bool all_half = true;
  for (Channel& channel : header.channels) {
    channel.line_offset = layout.line_bytes;
    layout.line_bytes += static_cast<std::uint64_t>(width) * value_bytes(channel.type);
    all_half = all_half && (channel.output < 0 || channel.type == kHalf);
  }
  layout.image.type = all_half ? ComponentType::kF16 : ComponentType::kF32;
  layout.compression = &kCompressions[static_cast<std::size_t>(header.compression)];
  const auto lines = static_cast<std::uint64_t>(layout.compression->lines);
  layout.chunks = (static_cast<std::uint64_t>(height) + lines - 1) / lines;
  layout.table_end = header.end + 8 * layout.chunks;
  const std::uint64_t file_bytes = in.size();
  const std::string file = "a file of " + std::to_string(file_bytes) + " bytes";
  if (layout.table_end + 8 * layout.chunks > file_bytes) {
    in.fail(file + " cannot hold the " + std::to_string(layout.chunks) + " chunks of " + size);
  }
  const std::uint64_t data_bytes = file_bytes - layout.table_end - 8 * layout.chunks;
  if (layout.line_bytes * static_cast<std::uint64_t>(height) >
      data_bytes * layout.compression->growth) {
    in.fail(file + " cannot hold " + size + " of " + std::to_string(layout.line_bytes) +
            " bytes a line in " + layout.compression->name + " compression");
  }
  return layout;
}

// Undoes the byte delta and the split into even and odd bytes that RLE and
// ZIP apply before packing.
void unpredict(std::vector<std::uint8_t>& packed, std::vector<std::uint8_t>& out) {
  const std::size_t n = packed.size();
  std::uint8_t* bytes = packed.data();
  for (std::size_t i = 1; i < n; ++i) {
    bytes[i] = static_cast<std::uint8_t>(bytes[i - 1] + bytes[i] - 128);
  }
  const std::uint8_t* even = bytes;
  const std::uint8_t* odd = bytes + (n + 1) / 2;
  std::uint8_t* to = out.data();
  for (std::size_t i = 0; i < n / 2; ++i) {
    to[2 * i] = even[i];
    to[2 * i + 1] = odd[i];
  }
  if (n % 2 != 0) {
    to[n - 1] = even[n / 2];
  }
}

bool unpack_rle(const std::vector<std::uint8_t>& packed, std::vector<std::uint8_t>& out) {
  std::size_t in = 0;
  std::size_t at = 0;
  while (in < packed.size()) {
    const auto count = static_cast<std::int8_t>(packed[in++]);
    if (count < 0) {  // a run of literal bytes
      const auto n = static_cast<std::size_t>(-count);
      if (n > packed.size() - in || n > out.size() - at) {
        return false;
      }
      std::memcpy(out.data() + at, packed.data() + in, n);
      in += n;
      at += n;
    } else {  // one byte repeated count + 1 times
      const auto n = static_cast<std::size_t>(count) + 1;
      if (in == packed.size() || n > out.size() - at) {
        return false;
      }
      std::memset(out.data() + at, packed[in++], n);
      at += n;
    }
  }
  return at == out.size();
}

// Buffers reused from chunk to chunk.
struct ChunkBuffers {
  std::vector<std::uint8_t> packed;
  std::vector<std::uint8_t> unpacked;
  std::vector<std::uint8_t> lines;
};

// Fills buffers.lines with the chunk's lines as stored, from its packed data.
void unpack(Source& in, const Layout& layout, std::uint64_t chunk, ChunkBuffers& buffers) {
  const std::string name = "chunk " + std::to_string(chunk);
  if (buffers.packed.size() == buffers.lines.size()) {
    buffers.lines.swap(buffers.packed);  // stored as is: packing did not pay
    return;
  }
  buffers.unpacked.resize(buffers.lines.size());
  if (layout.compression == &kCompressions[kRle]) {
    if (!unpack_rle(buffers.packed, buffers.unpacked)) {
      in.fail(name + ": the RLE data does not unpack to " + std::to_string(buffers.lines.size()) +
              " bytes");
    }
  } else {
    auto got = static_cast<uLongf>(buffers.unpacked.size());
    const int code = uncompress(buffers.unpacked.data(), &got, buffers.packed.data(),
                                static_cast<uLong>(buffers.packed.size()));
    if (code == Z_MEM_ERROR) {
      throw std::bad_alloc();
    }
    if (code != Z_OK || got != buffers.unpacked.size()) {
      in.fail(name + ": the ZIP data does not unpack to " + std::to_string(buffers.lines.size()) +
              " bytes");
    }
  }
  unpredict(buffers.unpacked, buffers.lines);
}

// Moves the chunk's lines (starting at image row `row`) into the texels.
void store_lines(const Layout& layout, const std::vector<Channel>& channels, std::uint64_t row,
                 const std::vector<std::uint8_t>& lines, TexelImage& image) {
  const auto width = static_cast<std::size_t>(image.width);
  const auto components = static_cast<std::size_t>(image.channels);
  const std::size_t line_count = lines.size() / layout.line_bytes;
  for (std::size_t l = 0; l < line_count; ++l) {
    const std::uint8_t* line = lines.data() + l * layout.line_bytes;
    const std::size_t first = (static_cast<std::size_t>(row) + l) * width * components;
    for (const Channel& channel : channels) {
      if (channel.output < 0) {
        continue;
      }
      const std::uint8_t* values = line + channel.line_offset;
      const auto k = static_cast<std::size_t>(channel.output);
      std::uint8_t* texels = image.data.data() + (first + k) * component_bytes(image.type);
      if (image.type == ComponentType::kF16) {
        for (std::size_t x = 0; x < width; ++x) {
          std::memcpy(texels + 2 * components * x, values + 2 * x, 2);
        }
      } else if (channel.type == kHalf) {
        for (std::size_t x = 0; x < width; ++x) {
          std::uint16_t bits = 0;
          std::memcpy(&bits, values + 2 * x, 2);
          const auto widened = static_cast<float>(half_bits_to_double(bits));  // exact
          std::memcpy(texels + 4 * components * x, &widened, 4);
        }
      } else {
        for (std::size_t x = 0; x < width; ++x) {
          std::memcpy(texels + 4 * components * x, values + 4 * x, 4);
        }
      }
    }
  }
}

// Reads chunk `chunk` through the offset table into its rows of the
// texels, every size checked before it is trusted.
void read_chunk(Source& in, const Layout& layout, const std::vector<Channel>& channels,
                std::uint64_t chunk, ChunkBuffers& buffers, TexelImage& image) {
  const std::string name = "chunk " + std::to_string(chunk);
  std::uint64_t offset = 0;
  std::memcpy(&offset, in.at(layout.table_end - 8 * (layout.chunks - chunk), 8, "the offset table"),
              8);
  if (offset < layout.table_end || offset > in.size() - 8) {
    in.fail(name + " starts at byte " + std::to_string(offset) + ", outside the chunks (bytes " +
            std::to_string(layout.table_end) + " to " + std::to_string(in.size()) + ")");
  }
  const std::uint8_t* head = in.at(offset, 8, name);
  const std::int64_t y = i32_at(head);
  const std::int64_t size = i32_at(head + 4);
  const auto per_chunk = static_cast<std::uint64_t>(layout.compression->lines);
  const std::uint64_t row = chunk * per_chunk;
  const std::int64_t wanted_y = layout.y_min + static_cast<std::int64_t>(row);
  if (y != wanted_y) {
    in.fail(name + " holds line " + std::to_string(y) + ", not " + std::to_string(wanted_y));
  }
  const std::uint64_t raw =
      std::min<std::uint64_t>(per_chunk, static_cast<std::uint64_t>(image.height) - row) *
      layout.line_bytes;
  if (size <= 0 || static_cast<std::uint64_t>(size) > raw) {
    in.fail(name + " holds " + std::to_string(size) + " bytes; its lines take " +
            std::to_string(raw));
  }
  if (static_cast<std::uint64_t>(size) > in.size() - offset - 8) {
    in.fail(name + " runs past the end of the file");
  }
  if (layout.compression == &kCompressions[kNone] && static_cast<std::uint64_t>(size) != raw) {
    in.fail(name + " holds " + std::to_string(size) + " bytes, not " + std::to_string(raw));
  }
  if (raw > static_cast<std::uint64_t>(size) * layout.compression->growth) {
    in.fail(name + ": " + std::to_string(size) + " bytes cannot unpack to " + std::to_string(raw));
  }
  buffers.packed.resize(static_cast<std::size_t>(size));
  buffers.lines.resize(static_cast<std::size_t>(raw));
  in.read(offset + 8, buffers.packed.data(), buffers.packed.size());
  unpack(in, layout, chunk, buffers);
  store_lines(layout, channels, row, buffers.lines, image);
}

// The texels and one chunk's buffers (packed, unpacked, split) are held at
// once; a read that needs more than the memory available is refused first.
void check_read_memory(const std::filesystem::path& path, const Layout& layout) {
  const TexelImage& image = layout.image;
  const auto chunk_lines =
      static_cast<std::uint64_t>(std::min(layout.compression->lines, image.height));
  const std::uint64_t need = image.expected_bytes() + 3 * chunk_lines * layout.line_bytes;
  const std::uint64_t available = platform::memory_available_bytes();
  if (available != 0 && need > available) {
    const std::uint64_t mib = std::uint64_t{1} << 20;
    throw OutOfMemory(path.string() + ": EXR: reading " + std::to_string(image.width) + " x " +
                      std::to_string(image.height) + " texels needs about " +
                      std::to_string((need + mib - 1) / mib) + " MB; " +
                      std::to_string(available / mib) + " MB of memory are available");
  }
}

TexelImage read_file(const std::filesystem::path& path) {
  Source in(path);
  Header header = read_header(in);
  Layout layout = plan(in, header);
  check_read_memory(path, layout);
  TexelImage image = std::move(layout.image);
  image.data.resize(image.expected_bytes());
  ChunkBuffers buffers;
  for (std::uint64_t chunk = 0; chunk < layout.chunks; ++chunk) {
    read_chunk(in, layout, header.channels, chunk, buffers, image);
  }
  return image;
}

}  // namespace

TexelImage read_exr(const std::filesystem::path& path) {
  try {
    return read_file(path);
  } catch (const std::bad_alloc&) {
    throw OutOfMemory(path.string() + ": EXR: out of memory while reading the image");
  } catch (const std::length_error&) {
    throw OutOfMemory(path.string() + ": EXR: out of memory while reading the image");
  }
}

}  // namespace kv
