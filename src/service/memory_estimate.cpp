#include "service/memory_estimate.h"

#include <algorithm>

#include "core/error.h"
#include "normal/normal_bake_settings.h"
#include "normal/normal_resolve.h"
#include "sampling/band_loop.h"
#include "texel/uv_raster.h"

namespace kv::service {

namespace {

// Per-texel costs of one map, in bytes. `kept` lives from the first band to
// the last write; `transient` only while that map is padded and written,
// which happens one map at a time.
struct MapCost {
  const char* name;
  std::uint64_t kept;
  std::uint64_t transient;
};

// The Normal/Opacity result (three Normal codes, an Opacity code, three
// masks) is one allocation whichever of the two is asked for.
constexpr std::uint64_t kNormalResult = kNormalResultBytesPerTexel;
// Padding at its costliest mode: diffusion keeps three float64 channels and
// a flag per texel over a pyramid of 4/3 the image, plus the masks padding
// copies (33.3 + 2, rounded up).
constexpr std::uint64_t kNormalPadding = 40;
// A PNG write holds the filtered rows and the compressed stream of 16-bit
// codes (2 bytes per channel each); the EXR writer works in bounded pieces.
constexpr std::uint64_t kWriteBytesPerChannel = 4;
// Mesh maps keep a code and a float64 accumulator per channel, and pad with
// float64 channels over the same pyramid (8 x 4/3, rounded up to 12).
constexpr std::uint64_t kMeshMapKeptPerChannel = 2 + 8;
constexpr std::uint64_t kMeshMapPaddingPerChannel = 12;
// Coverage masks the mesh maps share.
constexpr std::uint64_t kMeshMapMasks = 3;

constexpr MapCost mesh_map(const char* name, std::uint64_t channels) {
  return {name, channels * kMeshMapKeptPerChannel,
          channels * (kMeshMapPaddingPerChannel + kWriteBytesPerChannel) + 2};
}

constexpr MapCost kMaps[] = {
    {"normal", 0, kNormalPadding + 3 * kWriteBytesPerChannel},
    {"opacity", 0, kWriteBytesPerChannel},  // written as baked, not padded
    mesh_map("ao", 1),
    mesh_map("thickness", 1),
    mesh_map("curvature", 1),
    mesh_map("height", 1),
    mesh_map("world_normal", 3),
    mesh_map("position", 3),
    mesh_map("id", 3),
    mesh_map("bent_normals", 3),
    // Four float32 channels before the range mapping, not padded.
    {"raw", 4 * (4 + 8), 4 * kWriteBytesPerChannel},
};

// Measured on the standard scene (1.3 million high triangles): Embree's
// scene holds 88 bytes per triangle and peaks at 139 while it is built; the
// tracer's own corner table and order add 40. The build peak counts, since
// the tables are made beside it.
constexpr std::uint64_t kTracerBytesPerTriangle = 139 + 40;
// The GPU path stages the high mesh's vertices and indices for upload and
// keeps the CPU scene for its exact precision and its fallback.
constexpr std::uint64_t kGpuStagingBytesPerTriangle = 36 + 12;
// LowPrep per low triangle, measured at its build peak (MikkTSpace's work
// arrays, three tangent frames of 28 bytes, averaged normals, snapped
// corners at two scales, the raster's boxes, areas and cell lists): 562.
constexpr std::uint64_t kLowPrepBytesPerTriangle = 600;

// A PNG is read whole, inflated into filtered rows and unfiltered, beside
// the texels it gives; the decoder's own tables come on top.
constexpr std::uint64_t kPngDecoderBytes = 65536;
// A PNG output holds its rows in PNG byte order, the filtered rows, the
// compressed stream and the file's bytes beside the texels; a mask is made
// as its own one-byte image before it is written.
constexpr std::uint64_t kPngWriteFactor = 4;

// Per source triangle and output: which texture it reads.
constexpr std::uint64_t kBindingBytesPerTriangle = 2;

std::uint64_t raster_grid_bytes(std::uint64_t width, std::uint64_t height) {
  const std::uint64_t cell = UvRaster::kCellSize;
  const std::uint64_t cells = ((width + cell - 1) / cell) * ((height + cell - 1) / cell);
  return (cells + 1) * sizeof(std::uint64_t);
}

const MapCost& map_cost(const std::string& name) {
  for (const MapCost& cost : kMaps) {
    if (name == cost.name) {
      return cost;
    }
  }
  throw Error("unknown map \"" + name + "\"");
}

// Per texel: the maps kept from the first band to the last write, and the
// costliest map's padding and writing, which happen one map at a time.
std::uint64_t map_bytes_per_texel(const std::vector<std::string>& maps) {
  std::uint64_t kept = 0;
  std::uint64_t transient = 0;
  bool normal_result = false;
  bool mesh_maps = false;
  for (const std::string& name : maps) {
    const MapCost& cost = map_cost(name);
    const bool normal_bake = name == "normal" || name == "opacity";
    normal_result = normal_result || normal_bake;
    mesh_maps = mesh_maps || !normal_bake;
    kept += cost.kept;
    transient = std::max(transient, cost.transient);
  }
  return kept + transient + (normal_result ? kNormalResult : 0) + (mesh_maps ? kMeshMapMasks : 0);
}

// What the textures and outputs of a transfer hold from the start of the
// run to its end: decoded, by type and channels, and the outputs' flags.
std::uint64_t transfer_texture_bytes(const JobShape& shape) {
  std::uint64_t kept = 0;
  for (const TextureShape& texture : shape.textures) {
    kept += texture_bytes(texture);
  }
  const std::uint64_t texels = std::uint64_t{shape.width} * shape.height;
  for (const OutputShape& output : shape.outputs) {
    kept += texels * (output.channels * output.component_bytes + 1);  // texels, valid flags
  }
  return kept + shape.input_bytes;
}

// The largest PNG read beside the texels it gives: the whole file, the
// inflated rows and the decoder's copy.
std::uint64_t png_reading_bytes(const JobShape& shape) {
  std::uint64_t most = 0;
  for (const TextureShape& texture : shape.textures) {
    if (texture.png_file_bytes != 0) {
      most = std::max(most, texture.png_file_bytes + 2 * texture_bytes(texture) + texture.height +
                                kPngDecoderBytes);
    }
  }
  return most;
}

// Per texel, at the worst, what padding one output takes beside it. Every
// mode returns a flag per texel. The ring mode keeps a state and a list slot
// per texel, its ring lists (twice while the chunks join) and the float64
// means of two rings, each ring at most every texel; the nearest-texel modes
// an index and a squared distance per texel, and diffusion its float64
// pyramid from half the size up (a third of the texels).
std::uint64_t padding_per_texel(const JobShape& shape, std::uint64_t channels) {
  if (shape.padding == PaddingMode::passthrough ||
      (shape.padding == PaddingMode::ring && shape.dilation == 0)) {
    return 2;
  }
  if (shape.padding == PaddingMode::ring) {
    return 1 + 1 + 4 + 2 * 4 + 2 * 8 * channels;
  }
  const std::uint64_t nearest = 1 + 4 + 8 + 3;  // flags, index, distance, the block scratch
  return nearest + (shape.padding == PaddingMode::diffusion ? (8 * channels + 1 + 2) / 3 : 0);
}

// What one output needs per texel while it is padded and written, one
// output at a time.
std::uint64_t transfer_output_work_per_texel(const JobShape& shape) {
  std::uint64_t most = 0;
  for (const OutputShape& output : shape.outputs) {
    const std::uint64_t padding = padding_per_texel(shape, output.channels);
    const std::uint64_t write =
        output.png ? kPngWriteFactor * output.channels * output.component_bytes : 0;
    const std::uint64_t mask = output.mask ? 1 + (output.mask_png ? kPngWriteFactor : 0) : 0;
    // Padding ends before the writes begin.
    most = std::max(most, std::max(padding, write + mask));
  }
  return most;
}

}  // namespace

std::uint64_t texture_bytes(const TextureShape& texture) {
  return texture.width * texture.height * texture.channels * texture.component_bytes;
}

std::uint64_t stored_png_file_bytes(const TextureShape& texture) {
  constexpr std::uint64_t kStoredBlock = 65535;  // bytes of one stored deflate block
  constexpr std::uint64_t kBlockHeader = 5;
  constexpr std::uint64_t kChunksAndHeaders = 1024;
  const std::uint64_t rows = texture_bytes(texture) + texture.height;
  return rows + (rows / kStoredBlock + 1) * kBlockHeader + kChunksAndHeaders;
}

const std::vector<std::string>& estimate_map_names() {
  static const std::vector<std::string> names = [] {
    std::vector<std::string> list;
    for (const MapCost& cost : kMaps) {
      list.emplace_back(cost.name);
    }
    return list;
  }();
  return names;
}

MemoryEstimate estimate_job_memory(const JobShape& shape) {
  const std::uint64_t width = shape.width;
  const std::uint64_t height = shape.height;
  const std::uint64_t aa = shape.antialias;
  MemoryEstimate estimate;
  estimate.texel_bytes =
      width * height * (map_bytes_per_texel(shape.maps) + transfer_output_work_per_texel(shape));
  estimate.texture_bytes = transfer_texture_bytes(shape);
  // Bindings and a joined copy live as long as the job.
  const std::uint64_t job_meshes =
      shape.source_triangles * shape.outputs.size() * kBindingBytesPerTriangle +
      shape.joined_mesh_bytes;
  const std::uint64_t traced =
      shape.high_triangles *
          (kTracerBytesPerTriangle + (shape.gpu ? kGpuStagingBytesPerTriangle : 0)) +
      shape.low_triangles * kLowPrepBytesPerTriangle + raster_grid_bytes(width, height);
  estimate.mesh_bytes = traced + job_meshes;
  // One band as the bake cuts it with the default band size; a tighter
  // budget only makes bands smaller.
  const std::uint64_t rows = static_cast<std::uint64_t>(band_rows_for(
      NormalBakeSettings{}.band_samples, static_cast<std::int32_t>(shape.width),
      static_cast<std::int32_t>(shape.height), static_cast<std::int32_t>(shape.antialias)));
  estimate.band_bytes = rows * width * aa * aa * band_bytes_per_sample();
  const std::uint64_t reading = png_reading_bytes(shape);
  if (shape.maps.empty()) {
    // A transfer reads its textures, then traces, then pads, then writes:
    // beside what it keeps, only the largest of those steps counts.
    estimate.total_bytes = estimate.texture_bytes + job_meshes +
                           std::max({reading, traced + estimate.band_bytes, estimate.texel_bytes});
  } else {
    estimate.total_bytes = estimate.texel_bytes + estimate.texture_bytes + estimate.mesh_bytes +
                           estimate.band_bytes + reading;
  }
  return estimate;
}

std::uint64_t automatic_budget_bytes() {
  return memory_budget_bytes(0);
}

}  // namespace kv::service
