#include "image/png.h"

#include <lodepng.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>

#include "core/error.h"
#include "core/parallel.h"
#include "image/temp_file.h"
#include "platform/platform.h"

namespace kv {

const char* component_type_name(ComponentType type) {
  switch (type) {
    case ComponentType::kU8:
      return "u8";
    case ComponentType::kU16:
      return "u16";
    case ComponentType::kF16:
      return "f16";
    case ComponentType::kF32:
      return "f32";
  }
  return "unknown";
}

std::size_t component_bytes(ComponentType type) {
  switch (type) {
    case ComponentType::kU8:
      return 1;
    case ComponentType::kU16:
    case ComponentType::kF16:
      return 2;
    case ComponentType::kF32:
      return 4;
  }
  return 0;
}

namespace {

// Images at least this large have their rows prepared on the worker threads.
constexpr std::size_t kParallelBytes = 8388608;
constexpr std::uint64_t kMaxRowTasks = 256;

LodePNGColorType colour_type(int channels) {
  switch (channels) {
    case 1:
      return LCT_GREY;
    case 2:
      return LCT_GREY_ALPHA;
    case 3:
      return LCT_RGB;
    default:
      return LCT_RGBA;
  }
}

// The samples of one image, as the encoder needs them described.
struct SampleView {
  const unsigned char* data = nullptr;  // native byte order
  unsigned width = 0;
  unsigned height = 0;
  int channels = 0;
  std::size_t sample_bytes = 0;  // 1 or 2
  std::size_t row_bytes() const { return std::size_t{width} * channels * sample_bytes; }
};

// Rows in PNG byte order, and how repetitive they are.
struct PreparedRows {
  std::vector<unsigned char> bytes;
  std::uint64_t repeated_bytes = 0;
};

void copy_rows_big_endian(const SampleView& image, unsigned char* out, std::uint64_t begin,
                          std::uint64_t end) {
  const std::size_t row = image.row_bytes();
  const unsigned char* in = image.data + begin * row;
  unsigned char* dest = out + begin * row;
  const std::size_t bytes = static_cast<std::size_t>(end - begin) * row;
  if (image.sample_bytes == 1) {
    std::memcpy(dest, in, bytes);
    return;
  }
  for (std::size_t i = 0; i < bytes; i += 2) {
    std::uint16_t sample = 0;
    std::memcpy(&sample, in + i, 2);
    dest[i] = static_cast<unsigned char>(sample >> 8);
    dest[i + 1] = static_cast<unsigned char>(sample & 0xffu);
  }
}

// Bytes equal to the byte one texel to their left: flat areas, which LZ77
// turns into long matches and plain Huffman coding cannot.
std::uint64_t repeated_bytes(const unsigned char* rows, std::size_t row_bytes,
                             std::size_t texel_bytes, std::uint64_t begin, std::uint64_t end) {
  std::uint64_t repeated = 0;
  for (std::uint64_t y = begin; y < end; ++y) {
    const unsigned char* row = rows + y * row_bytes;
    std::uint64_t in_row = 0;
    for (std::size_t i = texel_bytes; i < row_bytes; ++i) {
      in_row += row[i] == row[i - texel_bytes] ? 1 : 0;
    }
    repeated += in_row;
  }
  return repeated;
}

PreparedRows prepare_rows(const SampleView& image, int threads) {
  PreparedRows rows;
  const std::size_t row_bytes = image.row_bytes();
  const std::size_t texel_bytes = static_cast<std::size_t>(image.channels) * image.sample_bytes;
  rows.bytes.resize(row_bytes * image.height);
  if (rows.bytes.size() < kParallelBytes) {
    copy_rows_big_endian(image, rows.bytes.data(), 0, image.height);
    rows.repeated_bytes =
        repeated_bytes(rows.bytes.data(), row_bytes, texel_bytes, 0, image.height);
    return rows;
  }
  // Up to 256 tasks of whole rows, counts joined in order: the same result on
  // any thread count.
  const std::uint64_t tasks = std::min<std::uint64_t>(image.height, kMaxRowTasks);
  const std::uint64_t rows_per_task = chunk_count(image.height, tasks);
  WorkerPool pool(threads);
  const std::vector<std::uint64_t> counts = pool.map_chunks<std::uint64_t>(
      image.height, rows_per_task, [&](std::uint64_t begin, std::uint64_t end) {
        copy_rows_big_endian(image, rows.bytes.data(), begin, end);
        return repeated_bytes(rows.bytes.data(), row_bytes, texel_bytes, begin, end);
      });
  for (std::uint64_t count : counts) {
    rows.repeated_bytes += count;
  }
  return rows;
}

// Settings chosen for speed. Every row takes the Paeth filter, which on these
// maps compresses as well as choosing per row and costs nothing to choose.
// Mostly flat maps (masks, padding) get LZ77 with a small window and no lazy
// matching; busy maps (normal maps, noise) compress as well or better with
// Huffman coding alone, at about three times the speed.
std::vector<unsigned char> encode_samples(const SampleView& image, int threads) {
  const PreparedRows rows = prepare_rows(image, threads);
  lodepng::State state;
  state.info_raw.colortype = colour_type(image.channels);
  state.info_raw.bitdepth = static_cast<unsigned>(8 * image.sample_bytes);
  state.info_png.color.colortype = state.info_raw.colortype;
  state.info_png.color.bitdepth = state.info_raw.bitdepth;
  state.encoder.auto_convert = 0;
  state.encoder.filter_palette_zero = 0;
  state.encoder.filter_strategy = LFS_FOUR;
  state.encoder.zlibsettings.btype = 2;
  state.encoder.zlibsettings.use_lz77 = rows.repeated_bytes * 4 >= rows.bytes.size() * 3 ? 1 : 0;
  state.encoder.zlibsettings.windowsize = 1024;
  state.encoder.zlibsettings.minmatch = 3;
  state.encoder.zlibsettings.nicematch = 258;
  state.encoder.zlibsettings.lazymatching = 0;
  std::vector<unsigned char> png;
  const unsigned error = lodepng::encode(png, rows.bytes.data(), image.width, image.height, state);
  if (error != 0) {
    throw Error(std::string("PNG: cannot encode: ") + lodepng_error_text(error));
  }
  return png;
}

// Encodes, naming the file in an encoding error, then writes the bytes
// through the temporary file, making the folder first.
template <typename Encode>
void write_encoded(const std::filesystem::path& path, Encode encode) {
  std::vector<unsigned char> png;
  try {
    png = encode();
  } catch (const Error& e) {
    throw Error(path.string() + ": " + e.what());
  }
  const std::filesystem::path parent = path.parent_path();
  if (!parent.empty()) {
    platform::create_directories(parent);  // a failure shows when the file is created
  }
  write_file_replacing(path, png.data(), png.size());
}

}  // namespace

void writePngCodes(const std::filesystem::path& path, int width, int height, int channels,
                   std::span<const std::uint16_t> codes, int threads) {
  const bool valid = width >= 1 && height >= 1 && channels >= 1 && channels <= 4 &&
                     codes.size() == static_cast<std::size_t>(width) *
                                         static_cast<std::size_t>(height) *
                                         static_cast<std::size_t>(channels);
  if (!valid) {
    throw Error(path.string() + ": PNG: invalid map");
  }
  SampleView view;
  view.data = reinterpret_cast<const unsigned char*>(codes.data());
  view.width = static_cast<unsigned>(width);
  view.height = static_cast<unsigned>(height);
  view.channels = channels;
  view.sample_bytes = 2;
  write_encoded(path, [&] { return encode_samples(view, threads); });
}

void writePng(const std::filesystem::path& path, const TexelImage& image, int threads) {
  write_encoded(path, [&] { return encodePng(image, threads); });
}

std::vector<unsigned char> encodePng(const TexelImage& image, int threads) {
  if (image.type != ComponentType::kU8 && image.type != ComponentType::kU16) {
    throw Error(std::string("PNG stores 8- or 16-bit integer texels only, not ") +
                component_type_name(image.type));
  }
  if (image.data.empty()) {
    throw Error("PNG: no texel data");
  }
  if (image.channels < 1 || image.channels > 4) {
    throw Error("PNG: the channel count must be 1 to 4");
  }
  if (image.width < 1 || image.height < 1 || image.data.size() != image.expected_bytes()) {
    throw Error("PNG: the texel data does not match " + std::to_string(image.width) + " x " +
                std::to_string(image.height) + " x " + std::to_string(image.channels) + " " +
                component_type_name(image.type) + " texels");
  }
  SampleView view;
  view.data = image.data.data();
  view.width = static_cast<unsigned>(image.width);
  view.height = static_cast<unsigned>(image.height);
  view.channels = image.channels;
  view.sample_bytes = component_bytes(image.type);
  return encode_samples(view, threads);
}

namespace {

// Bigger headers are refused before any decoding.
constexpr auto kMaxPngSide = static_cast<unsigned>(kMaxImageSide);

// Deflate spends at least 2 bits on a 258-byte match, so a zlib stream grows at
// most 1032 times. The whole file, headers included, is taken as the stream:
// that is the margin.
constexpr std::uint64_t kMaxInflateRatio = 1032;

// LodePNG's code for an allocation it could not make.
constexpr unsigned kLodepngAllocationFailed = 83;

std::vector<unsigned char> read_png_bytes(const std::filesystem::path& path) {
  int error = 0;
  platform::File file = platform::File::open_read(path, &error);
  if (!file.is_open()) {
    throw Error("cannot open " + path.string());
  }
  const std::int64_t size = file.size(&error);
  if (size < 0) {
    throw Error("cannot read " + path.string());
  }
  std::vector<unsigned char> bytes(static_cast<std::size_t>(size));
  if (file.read_full(bytes.data(), bytes.size(), &error) != size) {
    throw Error("cannot read " + path.string());
  }
  return bytes;
}

// Refuses, from the header alone, images larger than the program reads and
// images whose samples a file this short cannot hold: decoding either would
// ask for memory the file does not justify.
void check_png_size(const std::filesystem::path& path, unsigned width, unsigned height,
                    const LodePNGColorMode& stored, std::uint64_t file_bytes) {
  const std::string size = std::to_string(width) + " x " + std::to_string(height) + " texels";
  if (width > kMaxPngSide || height > kMaxPngSide) {
    throw Error(path.string() + ": PNG: the image is " + size + ", more than " +
                std::to_string(kMaxPngSide) + " on a side");
  }
  const unsigned bits = lodepng_get_bpp(&stored);
  const std::uint64_t stored_bytes = std::uint64_t{width} * height * bits / 8;
  if (stored_bytes > file_bytes * kMaxInflateRatio) {
    throw Error(path.string() + ": PNG: a file of " + std::to_string(file_bytes) +
                " bytes cannot hold " + size + " of " + std::to_string(bits) +
                (bits == 1 ? " bit" : " bits"));
  }
}

OutOfMemory png_out_of_memory(const std::filesystem::path& path) {
  return OutOfMemory(path.string() + ": PNG: out of memory while reading the image");
}

// The decoder holds the inflated rows and the texels at once, and its texels
// are copied out once more: about twice the texels at the peak. An image that
// needs more than the memory available is refused before it is decoded.
void check_decode_memory(const std::filesystem::path& path, unsigned width, unsigned height,
                         const LodePNGColorMode& raw) {
  const std::uint64_t texel_bytes = std::uint64_t{width} * height * lodepng_get_bpp(&raw) / 8;
  const std::uint64_t need = 2 * texel_bytes;
  const std::uint64_t available = platform::memory_available_bytes();
  if (available != 0 && need > available) {
    const std::uint64_t mib = std::uint64_t{1} << 20;
    throw OutOfMemory(path.string() + ": PNG: decoding " + std::to_string(width) + " x " +
                      std::to_string(height) + " texels needs about " +
                      std::to_string((need + mib - 1) / mib) + " MB; " +
                      std::to_string(available / mib) + " MB of memory are available");
  }
}

// The decoder's failure; it reports an allocation it could not make as a code.
[[noreturn]] void throw_decode_error(const std::filesystem::path& path, unsigned code) {
  if (code == kLodepngAllocationFailed) {
    throw png_out_of_memory(path);
  }
  throw Error(std::string("PNG: ") + lodepng_error_text(code));
}

// Sets the decoded form of the stored colour type: grey, grey with alpha,
// RGB and RGBA as stored (grey below 8 bits widened to 8), a palette as
// 8-bit RGBA. Returns whether the file holds a palette.
bool choose_raw_mode(lodepng::State& state) {
  const LodePNGColorType stored = state.info_png.color.colortype;
  const unsigned depth = state.info_png.color.bitdepth;
  switch (stored) {
    case LCT_GREY:
      state.info_raw.colortype = LCT_GREY;
      state.info_raw.bitdepth = depth < 8 ? 8 : depth;  // k-bit grey widens as v * 255 / (2^k - 1)
      return false;
    case LCT_GREY_ALPHA:
    case LCT_RGB:
    case LCT_RGBA:
      state.info_raw.colortype = stored;
      state.info_raw.bitdepth = depth;
      return false;
    case LCT_PALETTE:
      state.info_raw.colortype = LCT_RGBA;
      state.info_raw.bitdepth = 8;
      return true;
    default:
      throw Error("PNG: unsupported colour type");
  }
}

TexelImage read_png(const std::filesystem::path& path) {
  std::vector<unsigned char> bytes = read_png_bytes(path);
  lodepng::State state;
  unsigned width = 0;
  unsigned height = 0;
  unsigned code = lodepng_inspect(&width, &height, &state, bytes.data(), bytes.size());
  if (code != 0) {
    throw_decode_error(path, code);
  }
  const bool palette = choose_raw_mode(state);
  check_png_size(path, width, height, state.info_png.color, bytes.size());
  check_decode_memory(path, width, height, state.info_raw);
  std::vector<unsigned char> decoded;
  code = lodepng::decode(decoded, width, height, state, bytes.data(), bytes.size());
  if (code != 0) {
    throw_decode_error(path, code);
  }
  bytes = std::vector<unsigned char>();

  TexelImage image;
  image.width = static_cast<int>(width);
  image.height = static_cast<int>(height);
  image.channels = static_cast<int>(lodepng_get_channels(&state.info_raw));
  image.type = state.info_raw.bitdepth == 16 ? ComponentType::kU16 : ComponentType::kU8;
  if (decoded.size() != image.expected_bytes()) {
    throw Error("PNG: decoded data size does not match the image");
  }
  if (palette) {
    // A palette without transparency gives RGB texels.
    bool opaque = true;
    for (std::size_t i = 3; i < decoded.size() && opaque; i += 4) {
      opaque = decoded[i] == 255;
    }
    if (opaque) {
      std::size_t out = 0;
      for (std::size_t i = 0; i < decoded.size(); i += 4) {
        decoded[out++] = decoded[i];
        decoded[out++] = decoded[i + 1];
        decoded[out++] = decoded[i + 2];
      }
      decoded.resize(out);
      image.channels = 3;
    }
  }
  if (image.type == ComponentType::kU16) {
    for (std::size_t i = 0; i + 1 < decoded.size(); i += 2) {
      const auto sample = static_cast<std::uint16_t>((decoded[i] << 8) | decoded[i + 1]);
      std::memcpy(decoded.data() + i, &sample, 2);
    }
  }
  image.data = std::move(decoded);
  return image;
}

// The header of the file and its length, without the rest of the file.
PngHeader inspect_png(const std::filesystem::path& path) {
  int error = 0;
  platform::File file = platform::File::open_read(path, &error);
  if (!file.is_open()) {
    throw Error("cannot open " + path.string());
  }
  const std::int64_t size = file.size(&error);
  // Signature, then the IHDR chunk: length, type, 13 bytes and the CRC.
  std::vector<unsigned char> head(33);
  const std::int64_t got = size < 0 ? -1 : file.read_full(head.data(), head.size(), &error);
  if (got < 0) {
    throw Error("cannot read " + path.string());
  }
  head.resize(static_cast<std::size_t>(got));
  lodepng::State state;
  unsigned width = 0;
  unsigned height = 0;
  const unsigned code = lodepng_inspect(&width, &height, &state, head.data(), head.size());
  if (code != 0) {
    throw_decode_error(path, code);
  }
  choose_raw_mode(state);
  check_png_size(path, width, height, state.info_png.color, static_cast<std::uint64_t>(size));
  PngHeader header;
  header.shape.width = static_cast<int>(width);
  header.shape.height = static_cast<int>(height);
  header.shape.channels = static_cast<int>(lodepng_get_channels(&state.info_raw));
  header.shape.type = state.info_raw.bitdepth == 16 ? ComponentType::kU16 : ComponentType::kU8;
  header.file_bytes = static_cast<std::uint64_t>(size);
  return header;
}

}  // namespace

PngHeader inspectPng(const std::filesystem::path& path) {
  try {
    return inspect_png(path);
  } catch (const std::bad_alloc&) {
    throw png_out_of_memory(path);
  }
}

TexelImage readPng(const std::filesystem::path& path) {
  try {
    return read_png(path);
  } catch (const std::bad_alloc&) {
    throw png_out_of_memory(path);
  } catch (const std::length_error&) {
    throw png_out_of_memory(path);
  }
}

}  // namespace kv
