#include "image/exr.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstring>
#include <future>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include "core/error.h"
#include "core/parallel.h"
#include "image/half.h"
#include "image/temp_file.h"
#include "platform/platform.h"

namespace kv {

static_assert(std::endian::native == std::endian::little,
              "the EXR writer copies little-endian values as they lie in memory");

namespace {

constexpr std::uint64_t kMaxScanlineBytes = 2147483647;
constexpr std::uint64_t kBufferBytes = 4194304;
constexpr std::size_t kFiniteBlock = 4096;

struct FileChannel {
  const char* name;
  int source;  // index of the channel in the interleaved input
};

constexpr std::array<FileChannel, 1> kGreyChannels{{{"Y", 0}}};
constexpr std::array<FileChannel, 3> kRgbChannels{{{"B", 2}, {"G", 1}, {"R", 0}}};
constexpr std::array<FileChannel, 4> kRgbaChannels{{{"A", 3}, {"B", 2}, {"G", 1}, {"R", 0}}};

// File channels in the order the file stores them (alphabetical, as readers
// expect), each naming the input channel it takes.
std::span<const FileChannel> file_channels(int channels) {
  switch (channels) {
    case 1:
      return kGreyChannels;
    case 3:
      return kRgbChannels;
    default:
      return kRgbaChannels;
  }
}

struct Layout {
  int width = 0;
  int height = 0;
  int channels = 0;
  int pixel_type = 0;
  std::uint64_t value_bytes = 0;     // 4 for float, 2 for half
  std::uint64_t scanline_bytes = 0;  // one line of every channel
};

[[noreturn]] void fail(const std::filesystem::path& path, const std::string& reason) {
  throw Error("Cannot write EXR " + path.string() + ": " + reason);
}

Layout validate(const std::filesystem::path& path, int width, int height, int channels,
                std::size_t count, int pixel_type) {
  const std::string text = path.string();
  if (text.empty()) {
    fail(path, "the output path is empty");
  }
  const std::size_t slash = text.find_last_of("\\/");
  if (slash != std::string::npos && slash + 1 == text.size()) {
    fail(path, "the output path has no file name");
  }
  if (width < 1 || height < 1) {
    fail(path, "width and height must be positive, got " + std::to_string(width) + " x " +
                   std::to_string(height));
  }
  if (channels != 1 && channels != 3 && channels != 4) {
    fail(path, "the channel count must be 1 (Y), 3 (R, G, B) or 4 (R, G, B, A), got " +
                   std::to_string(channels));
  }
  if (pixel_type != kExrHalf && pixel_type != kExrFloat) {
    fail(path, "unknown pixel type " + std::to_string(pixel_type));
  }
  Layout layout;
  layout.width = width;
  layout.height = height;
  layout.channels = channels;
  layout.pixel_type = pixel_type;
  layout.value_bytes = pixel_type == kExrFloat ? 4 : 2;
  layout.scanline_bytes =
      static_cast<std::uint64_t>(channels) * layout.value_bytes * static_cast<std::uint64_t>(width);
  if (layout.scanline_bytes > kMaxScanlineBytes) {
    fail(path, "one scanline would need " + std::to_string(layout.scanline_bytes) +
                   " bytes, more than an EXR chunk can hold (2147483647)");
  }
  const std::uint64_t needed = static_cast<std::uint64_t>(height) *
                               static_cast<std::uint64_t>(channels) *
                               static_cast<std::uint64_t>(width);
  if (count != needed) {
    fail(path, "the map holds " + std::to_string(count) + " codes, but " + std::to_string(width) +
                   " x " + std::to_string(height) + " x " + std::to_string(channels) + " needs " +
                   std::to_string(needed));
  }
  return layout;
}

// Refuses a folder or a read-only file in the target's place and creates the
// missing parent folders, before any temporary file is made.
void prepare_target(const std::filesystem::path& path) {
  int error = 0;
  if (const auto status = platform::file_status(path, &error)) {
    if (status->is_directory) {
      fail(path, "a folder with this name exists");
    }
    if (status->read_only) {
      fail(path, "the existing file is read-only");
    }
  }
  const std::filesystem::path parent = path.parent_path();
  if (!parent.empty()) {
    const int folder_error = platform::create_directories(parent);
    if (folder_error != 0) {
      fail(path, "could not create the folder " + parent.string() + ": " +
                     platform::system_error_text(folder_error));
    }
  }
}

void put_u32(std::string& out, std::uint32_t value) {
  for (int i = 0; i < 4; ++i) {
    out.push_back(static_cast<char>((value >> (8 * i)) & 0xffu));
  }
}
void put_i32(std::string& out, std::int32_t value) {
  put_u32(out, static_cast<std::uint32_t>(value));
}
void put_u64(std::string& out, std::uint64_t value) {
  for (int i = 0; i < 8; ++i) {
    out.push_back(static_cast<char>((value >> (8 * i)) & 0xffu));
  }
}
void put_f32(std::string& out, float value) {
  put_u32(out, std::bit_cast<std::uint32_t>(value));
}
void put_cstr(std::string& out, const char* text) {
  out.append(text, std::strlen(text) + 1);
}

void put_attribute(std::string& out, const char* name, const char* type, const std::string& value) {
  put_cstr(out, name);
  put_cstr(out, type);
  put_u32(out, static_cast<std::uint32_t>(value.size()));
  out += value;
}

// Magic, version and every attribute, ending with the header's zero byte.
std::string build_header(const Layout& layout) {
  std::string header;
  put_u32(header, 20000630);
  put_u32(header, 2);

  std::string channels;
  const std::int32_t file_type = layout.pixel_type == kExrFloat ? 2 : 1;
  for (const FileChannel& channel : file_channels(layout.channels)) {
    put_cstr(channels, channel.name);
    put_i32(channels, file_type);
    channels.append(4, '\0');  // pLinear 0, three reserved bytes
    put_i32(channels, 1);      // x sampling
    put_i32(channels, 1);      // y sampling
  }
  channels.push_back('\0');
  put_attribute(header, "channels", "chlist", channels);

  put_attribute(header, "compression", "compression", std::string(1, '\0'));
  std::string box;
  put_i32(box, 0);
  put_i32(box, 0);
  put_i32(box, layout.width - 1);
  put_i32(box, layout.height - 1);
  put_attribute(header, "dataWindow", "box2i", box);
  put_attribute(header, "displayWindow", "box2i", box);
  put_attribute(header, "lineOrder", "lineOrder", std::string(1, '\0'));
  std::string one;
  put_f32(one, 1.0f);
  put_attribute(header, "pixelAspectRatio", "float", one);
  std::string center;
  put_f32(center, 0.0f);
  put_f32(center, 0.0f);
  put_attribute(header, "screenWindowCenter", "v2f", center);
  put_attribute(header, "screenWindowWidth", "float", one);
  header.push_back('\0');
  return header;
}

// Lines converted per task when a buffer is filled on several threads: about
// 256 KiB of output each.
constexpr std::uint64_t kTaskBytes = 262144;

// Writes the file: header, offset table, then the chunks in buffers of whole
// chunks. fill_line(y, dest) stores the channel data of line y at dest. The
// worker threads fill one buffer while the previous one is being written.
template <typename FillLine>
void write_file(const std::filesystem::path& path, const Layout& layout, int threads,
                FillLine fill_line) {
  prepare_target(path);

  std::string head = build_header(layout);
  const auto height = static_cast<std::uint64_t>(layout.height);
  const std::uint64_t chunk_bytes = layout.scanline_bytes + 8;
  const std::uint64_t first_chunk = head.size() + 8 * height;

  TempFile temp = TempFile::create(path, "Cannot write EXR " + path.string() + ": ");
  // The offset table goes out in pieces of at most a buffer, like the chunks.
  for (std::uint64_t y = 0; y < height; ++y) {
    put_u64(head, first_chunk + y * chunk_bytes);
    if (head.size() >= kBufferBytes) {
      temp.write(head);
      head.clear();
    }
  }
  temp.write(head);
  head = std::string();

  const std::uint64_t lines_per_buffer =
      std::clamp<std::uint64_t>(kBufferBytes / chunk_bytes, 1, height);
  const std::uint64_t lines_per_task = std::max<std::uint64_t>(1, kTaskBytes / chunk_bytes);
  // Maps of a single buffer are filled on this thread alone.
  std::unique_ptr<WorkerPool> pool;
  if (lines_per_buffer < height && lines_per_task < lines_per_buffer) {
    pool = std::make_unique<WorkerPool>(threads);
  }
  std::array<std::vector<unsigned char>, 2> buffers;
  std::future<void> pending;  // declared after temp: finishes before temp goes
  int current = 0;
  for (std::uint64_t first = 0; first < height; first += lines_per_buffer) {
    const std::uint64_t lines = std::min(lines_per_buffer, height - first);
    std::vector<unsigned char>& buffer = buffers[static_cast<std::size_t>(current)];
    current ^= 1;
    buffer.resize(static_cast<std::size_t>(lines * chunk_bytes));
    const auto fill_lines = [&](std::uint64_t begin, std::uint64_t end) {
      unsigned char* out = buffer.data() + begin * chunk_bytes;
      for (std::uint64_t y = first + begin; y < first + end; ++y) {
        const auto line = static_cast<std::uint32_t>(y);
        const auto size = static_cast<std::uint32_t>(layout.scanline_bytes);
        std::memcpy(out, &line, 4);
        std::memcpy(out + 4, &size, 4);
        fill_line(static_cast<std::size_t>(y), out + 8);
        out += chunk_bytes;
      }
    };
    if (pool) {
      pool->for_chunks(
          lines, lines_per_task,
          [&](std::uint64_t, std::uint64_t begin, std::uint64_t end) { fill_lines(begin, end); });
    } else {
      fill_lines(0, lines);
    }
    if (pending.valid()) {
      pending.get();
    }
    try {
      pending = std::async(std::launch::async,
                           [&temp, &buffer] { temp.write(buffer.data(), buffer.size()); });
    } catch (const std::system_error&) {
      temp.write(buffer.data(), buffer.size());  // no thread to spare: write here
    }
  }
  if (pending.valid()) {
    pending.get();
  }
  temp.commit();
}

std::string channel_name(int channels, int source) {
  if (channels == 1) {
    return "Y";
  }
  static constexpr const char* kNames[] = {"R", "G", "B", "A"};
  return kNames[source];
}

bool is_non_finite(std::uint32_t bits) {
  return (bits & 0x7f800000u) == 0x7f800000u;
}

// Blocks are first tested as a whole; only a block holding a non-finite value
// is searched for the first one. Returns the index, or count when all pass.
std::size_t first_non_finite(const float* samples, std::size_t count) {
  for (std::size_t begin = 0; begin < count; begin += kFiniteBlock) {
    const std::size_t end = std::min(count, begin + kFiniteBlock);
    std::uint32_t any = 0;
    for (std::size_t i = begin; i < end; ++i) {
      any |= is_non_finite(std::bit_cast<std::uint32_t>(samples[i])) ? 1u : 0u;
    }
    if (any == 0) {
      continue;
    }
    for (std::size_t i = begin; i < end; ++i) {
      if (is_non_finite(std::bit_cast<std::uint32_t>(samples[i]))) {
        return i;
      }
    }
  }
  return count;
}

// One pass over the line's texels, each value stored into its file channel's
// run; the channel count is a template argument so the loop unrolls.
template <int Channels, typename Value, typename Source, typename Convert>
void fill_line(std::size_t width, const Source* row, unsigned char* dest, Convert convert) {
  const std::span<const FileChannel> order = file_channels(Channels);
  unsigned char* runs[Channels];
  int sources[Channels];
  for (int k = 0; k < Channels; ++k) {
    runs[k] = dest + static_cast<std::size_t>(k) * width * sizeof(Value);
    sources[k] = order[static_cast<std::size_t>(k)].source;
  }
  for (std::size_t x = 0; x < width; ++x) {
    const Source* texel = row + x * Channels;
    for (int k = 0; k < Channels; ++k) {
      const Value value = convert(texel[sources[k]]);
      std::memcpy(runs[k] + x * sizeof(Value), &value, sizeof value);
    }
  }
}

template <typename Value, typename Source, typename Convert>
void fill_channels(const Layout& layout, const Source* samples, std::size_t y, unsigned char* dest,
                   Convert convert) {
  const auto width = static_cast<std::size_t>(layout.width);
  const Source* row = samples + y * width * static_cast<std::size_t>(layout.channels);
  switch (layout.channels) {
    case 1:
      fill_line<1, Value>(width, row, dest, convert);
      break;
    case 3:
      fill_line<3, Value>(width, row, dest, convert);
      break;
    default:
      fill_line<4, Value>(width, row, dest, convert);
      break;
  }
}

}  // namespace

const float* exr_code_floats() {
  static const std::vector<float> table = [] {
    std::vector<float> values(65536);
    for (std::size_t c = 0; c < values.size(); ++c) {
      values[c] = static_cast<float>(static_cast<double>(c) / 65535.0);
    }
    return values;
  }();
  return table.data();
}

const std::uint16_t* exr_code_halves() {
  static const std::vector<std::uint16_t> table = [] {
    const float* floats = exr_code_floats();
    std::vector<std::uint16_t> values(65536);
    for (std::size_t c = 0; c < values.size(); ++c) {
      values[c] = float_to_half_bits(floats[c]);
    }
    return values;
  }();
  return table.data();
}

void writeExr(const std::filesystem::path& path, int width, int height, int channels,
              std::span<const std::uint16_t> codes, int pixel_type, int threads) {
  const Layout layout = validate(path, width, height, channels, codes.size(), pixel_type);
  const std::uint16_t* data = codes.data();
  if (pixel_type == kExrFloat) {
    const float* table = exr_code_floats();
    write_file(path, layout, threads, [&](std::size_t y, unsigned char* dest) {
      fill_channels<float>(layout, data, y, dest, [table](std::uint16_t c) { return table[c]; });
    });
  } else {
    const std::uint16_t* table = exr_code_halves();
    write_file(path, layout, threads, [&](std::size_t y, unsigned char* dest) {
      fill_channels<std::uint16_t>(layout, data, y, dest,
                                   [table](std::uint16_t c) { return table[c]; });
    });
  }
}

void writeExrFloat(const std::filesystem::path& path, int width, int height, int channels,
                   const float* samples, std::size_t sample_count, int pixel_type, int threads) {
  const Layout layout = validate(path, width, height, channels, sample_count, pixel_type);
  if (samples == nullptr) {
    fail(path, "the sample pointer is null");
  }
  const std::size_t bad = first_non_finite(samples, sample_count);
  if (bad != sample_count) {
    const auto per_texel = static_cast<std::size_t>(channels);
    const auto source = static_cast<int>(bad % per_texel);
    const std::size_t texel = bad / per_texel;
    const std::size_t x = texel % static_cast<std::size_t>(width);
    const std::size_t y = texel / static_cast<std::size_t>(width);
    const bool nan = std::isnan(samples[bad]);
    fail(path, "the sample at x " + std::to_string(x) + ", y " + std::to_string(y) + ", channel " +
                   channel_name(channels, source) + " is " + (nan ? "NaN" : "infinite") +
                   "; only finite values can be written");
  }
  if (pixel_type == kExrFloat) {
    write_file(path, layout, threads, [&](std::size_t y, unsigned char* dest) {
      fill_channels<float>(layout, samples, y, dest, [](float v) { return v; });
    });
  } else {
    write_file(path, layout, threads, [&](std::size_t y, unsigned char* dest) {
      fill_channels<std::uint16_t>(layout, samples, y, dest, float_to_half_bits);
    });
  }
}

}  // namespace kv
