// The memory a job would need, as the service's memory budget judges it
// before a job starts, and the budget itself when none is given.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "padding/padding_mode.h"

namespace kv::service {

// A source texture of a transfer (a UDIM tile counts as one more) as it
// lies in memory once read.
struct TextureShape {
  std::uint64_t width = 0, height = 0, channels = 0, component_bytes = 0;
  // A PNG is read whole and decoded beside its texels; 0: not a PNG.
  std::uint64_t png_file_bytes = 0;
};

// An output of a transfer: the job's size, its textures' channels and type.
struct OutputShape {
  std::uint64_t channels = 0, component_bytes = 0;
  bool png = false;  // encoded in memory before it is written
  bool mask = false;
  bool mask_png = false;
};

struct JobShape {
  std::uint32_t width = 0, height = 0, antialias = 1;
  std::vector<std::string> maps;  // names from estimate_map_names()
  bool gpu = false;
  std::uint64_t high_triangles = 0;  // the traced mesh; 0 when nothing is traced
  std::uint64_t low_triangles = 0;   // the mesh whose UVs are rasterised
  // Transfers: every source texture and output, and the source triangles
  // each output binds to a texture.
  std::vector<TextureShape> textures;
  std::vector<OutputShape> outputs;
  PaddingMode padding = PaddingMode::ring;  // of the outputs, with its width
  std::int32_t dilation = 32;
  std::uint64_t source_triangles = 0;
  // A copy joining several high or source keys into one mesh.
  std::uint64_t joined_mesh_bytes = 0;
  // Other inputs read before the job and held through it (a normal map).
  std::uint64_t input_bytes = 0;
};

// The decoded bytes of a texture.
std::uint64_t texture_bytes(const TextureShape& texture);
// The longest PNG file of an 8- or 16-bit texture: every row stored
// uncompressed with its filter byte, in deflate's stored blocks.
std::uint64_t stored_png_file_bytes(const TextureShape& texture);

struct MemoryEstimate {
  std::uint64_t total_bytes = 0;    // the peak: the parts below that live at once
  std::uint64_t texel_bytes = 0;    // per-texel maps, masks and their padding and writing
  std::uint64_t texture_bytes = 0;  // transfer textures, their outputs, other inputs; 0 for bakes
  std::uint64_t mesh_bytes = 0;     // built over the meshes: tracer scene, LowPrep
  std::uint64_t band_bytes = 0;     // one band of sub-samples, rays and hits
};

// The map names an estimate knows, in a fixed order: "normal", "opacity",
// then the mesh maps.
const std::vector<std::string>& estimate_map_names();

// An upper bound of what the job allocates beside the meshes it reads (those
// are counted by the mesh store once loaded): the one estimate of the
// service's bake, transfer and meshmaps jobs and of memory.estimate. Throws
// kv::Error "unknown map "<name>"" for a name estimate_map_names() lacks.
MemoryEstimate estimate_job_memory(const JobShape& shape);

// The budget when none is given: half of the memory free (MemAvailable) when
// the service starts, as the command line's default. The other half stays
// for the client application beside us, which holds the same meshes and
// textures itself, and for the system's file cache; taken once at the start,
// since later readings would count our own caches as used by others.
std::uint64_t automatic_budget_bytes();

}  // namespace kv::service
