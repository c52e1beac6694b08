// The fixed value rules of request fields, read on top of the field readers.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "mesh/obj_reader.h"
#include "service/field_reader.h"
#include "service/memory_estimate.h"
#include "service/section_mesh.h"

namespace kv::service {

// A mesh key: a string of 1 to 1024 bytes.
std::string read_key(const FieldReader& fields, const Json& value, std::string_view field);
// One key or a non-empty list of keys.
std::vector<std::string> read_keys(const FieldReader& fields, std::string_view field);

// "up" ("Y" or "Z") and "matrix" (row-major 4 x 4, last row 0 0 0 1); at
// most one of them.
struct MeshPlacement {
  bool up_y = false;
  std::optional<std::array<double, 16>> matrix;
};
MeshPlacement read_placement(const FieldReader& fields);

// An object name filter: at most 4096 distinct names of 1 to 1024 bytes,
// 262144 bytes in all.
std::vector<std::string> read_name_filter(const FieldReader& fields, std::string_view field);

QuadPolicy read_quads(const FieldReader& fields);

// The "objects" layout list of a shared-memory or process-memory load.
std::vector<SectionObject> read_section_objects(const FieldReader& fields);

std::uint32_t read_antialias(const FieldReader& fields);
bool read_backend_is_gpu(const FieldReader& fields);
// The map names of memory.estimate: those of estimate_map_names() and
// "transfer".
inline constexpr std::string_view kTransferMap = "transfer";
std::vector<std::string> read_maps(const FieldReader& fields);

// The "textures" of a transfer's estimate: 1 to 64 objects of "width",
// "height", "channels" and "type" ("u8", "u16", "f16" or "f32").
std::vector<TextureShape> read_estimate_textures(const FieldReader& fields);

}  // namespace kv::service
