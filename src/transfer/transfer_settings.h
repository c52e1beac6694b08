// The settings of one texture transfer, as the command line gives them:
// meshes, output size, the outputs with their textures and bindings, and the
// sampling, raster, ray and padding choices.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "padding/padding_mode.h"

namespace kv::transfer {

enum class TransferMode : std::uint8_t { uv2uv, m2m };
enum class SampleFilter : std::uint8_t { nearest, bilinear };
enum class AddressMode : std::uint8_t { repeat, clamp, window };
enum class BilinearWeights : std::uint8_t { gpu8, exact };
enum class MatchMode : std::uint8_t { always, name, objects };

// A UDIM tile read from its own texture.
struct SourceTile {
  std::int32_t tile = 0;
  std::string where;  // a .kvt or .png path, or shm:<section>:<size>
};

// One source texture and what it covers.
struct TextureRequest {
  std::string where;  // a .kvt or .png path, or shm:<section>:<size>
  std::vector<std::string> bind_objects;
  std::vector<std::string> bind_materials;
  std::vector<SourceTile> tiles;
  bool bound() const { return !bind_objects.empty() || !bind_materials.empty(); }
};

// One output and the textures it reads.
struct OutputRequest {
  std::string where;  // a .kvt or .png path, or shm:<section>:<size>
  std::vector<TextureRequest> textures;
  std::string mask;  // empty: no mask
  bool srgb = false;
  std::optional<std::vector<double>> padding_color;  // unset: --padding-color
};

struct TransferSettings {
  TransferMode mode = TransferMode::uv2uv;
  std::filesystem::path target;
  std::filesystem::path source_uvs;  // uv2uv
  std::filesystem::path high;        // m2m
  std::int32_t width = 0;
  std::int32_t height = 0;
  std::vector<OutputRequest> outputs;
  std::int32_t aa = 1;
  SampleFilter filter = SampleFilter::bilinear;
  AddressMode address = AddressMode::repeat;
  BilinearWeights weights = BilinearWeights::gpu8;
  std::int32_t snap_bits = 8;  // -1: off
  std::int32_t dilation = 32;
  PaddingMode padding = PaddingMode::ring;
  std::vector<double> padding_color;  // missing channels: 0
  std::int32_t udim = 1001;
  std::int32_t threads = 0;  // 0: every hardware thread
  std::string backend = "auto";
  float front = 0.01f;
  float rear = 0.01f;
  bool relative_scale = true;
  bool average_normals = true;
  bool ignore_backface = true;
  MatchMode match = MatchMode::always;
  std::vector<std::string> raster_materials;
  std::vector<std::string> raster_objects;
  std::string low_suffix = "_low";
  std::string high_suffix = "_high";
  std::filesystem::path dump_hits;  // empty: no hit dump
  std::filesystem::path report;     // empty: no report file
  bool help = false;
};

// Reads the command's arguments (element 1 is "transfer"). Malformed command
// lines throw pipeline::UsageError; value ranges are checked later.
TransferSettings parse_transfer_options(const std::vector<std::string>& args);

// The settings of a transfer whose meshes come from elsewhere (the
// service's mesh keys): `settings` holds the options but the meshes, the
// report and the texture and output groups, which `outputs` holds alone.
// Throws pipeline::UsageError; `outputs_failed` tells which list it was.
TransferSettings parse_transfer_settings(const std::vector<std::string>& settings,
                                         const std::vector<std::string>& outputs,
                                         bool* outputs_failed);

// The settings checks, in order, each a kv::Error "transfer: ...".
void check_transfer_settings(const TransferSettings& settings);

// The words the command line and the summary use.
const char* mode_word(TransferMode mode);
const char* filter_word(SampleFilter filter);
const char* address_word(AddressMode address);
const char* weights_word(BilinearWeights weights);

}  // namespace kv::transfer
