// The capability words of the `hello` handshake, in the protocol's order.
#pragma once

#include <array>
#include <string_view>

namespace kv::service {

inline constexpr std::string_view kServiceVersion = "0.4.0";
inline constexpr int kProtocol = 1;

inline constexpr std::array<std::string_view, 42> kFixes = {
    "mirror_winding",
    "stacked_uv",
    "coverage",
    "flat_curvature",
    "bounded_replies",
    "bounded_requests",
    "load_guard",
    "pad_from_filled",
    "world_normal_up",
    "load_progress",
    "tile_rects",
    "map_done",
    "o_objects",
    "id_sources",
    "meshmaps_stream",
    "match_objects",
    "trim_heaps",
    "release_after",
    "memory_trim",
    "oom_code",
    "memory_estimate",
    "mesh_formats",
    "mesh_objects",
    "release_fence",
    "ngon_exact",
    "cage_bake_normals",
    "transfer_stacked_uv",
    "transfer_raster_material",
    "transfer_raster_object",
    "transfer_match_objects",
    "object_match",
    "bent_flat_misses",
    "meshmaps_outputs",
    "has_uvs",
    "transfer_coverage",
    "transfer_estimate",
    "transfer_bind_lists",
    "transfer_padding_per_output",
    "transfer_udim_sources",
    "transfer_shm",
    "transfer_progress",
    "position_options",
};

inline constexpr std::array<std::string_view, 9> kMeshmapsOutputs = {
    "opacity",      "ao", "thickness", "curvature",   "height",
    "world_normal", "id", "position",  "bent_normals"};

}  // namespace kv::service
