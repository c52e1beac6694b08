#include "service/job_budget.h"

#include <string>

#include "transfer/texture_io.h"

namespace kv::service {
namespace {

std::uint64_t total_triangles(const std::vector<const Mesh*>& meshes) {
  std::uint64_t triangles = 0;
  for (const Mesh* mesh : meshes) {
    triangles += mesh->triangles.size();
  }
  return triangles;
}

// One mesh is used as it is; several are copied into one.
std::uint64_t joined_bytes(const std::vector<const Mesh*>& meshes) {
  if (meshes.size() < 2) {
    return 0;
  }
  std::uint64_t bytes = 0;
  for (const Mesh* mesh : meshes) {
    bytes += mesh_memory_bytes(*mesh);
  }
  return bytes;
}

TextureShape texture_shape(const std::string& place) {
  const transfer::TextureHeader header = transfer::inspect_texture(place);
  TextureShape shape;
  shape.width = static_cast<std::uint64_t>(header.shape.width);
  shape.height = static_cast<std::uint64_t>(header.shape.height);
  shape.channels = static_cast<std::uint64_t>(header.shape.channels);
  shape.component_bytes = component_bytes(header.shape.type);
  shape.png_file_bytes = header.png_file_bytes;
  return shape;
}

}  // namespace

JobShape bake_job_shape(const NormalBakeSettings& settings, bool opacity, const Mesh& low,
                        const std::vector<const Mesh*>& highs) {
  JobShape shape{};
  shape.width = static_cast<std::uint32_t>(settings.width);
  shape.height = static_cast<std::uint32_t>(settings.height);
  shape.antialias = static_cast<std::uint32_t>(settings.aa);
  shape.maps = {"normal"};
  if (opacity) {
    shape.maps.push_back("opacity");
  }
  shape.gpu = settings.backend == "gpu";
  shape.low_triangles = low.triangles.size();
  shape.high_triangles = total_triangles(highs);
  shape.joined_mesh_bytes = joined_bytes(highs);
  return shape;
}

JobShape transfer_job_shape(const transfer::TransferSettings& settings, const Mesh& target,
                            const std::vector<const Mesh*>& sources) {
  JobShape shape{};
  shape.width = static_cast<std::uint32_t>(settings.width);
  shape.height = static_cast<std::uint32_t>(settings.height);
  shape.antialias = static_cast<std::uint32_t>(settings.aa);
  shape.low_triangles = target.triangles.size();
  shape.source_triangles = total_triangles(sources);
  // Only mesh to mesh traces the source.
  shape.high_triangles = settings.mode == transfer::TransferMode::m2m ? shape.source_triangles : 0;
  shape.joined_mesh_bytes = joined_bytes(sources);
  shape.padding = settings.padding;
  shape.dilation = settings.dilation;
  for (const transfer::OutputRequest& request : settings.outputs) {
    const std::size_t first = shape.textures.size();
    for (const transfer::TextureRequest& texture : request.textures) {
      shape.textures.push_back(texture_shape(texture.where));
      for (const transfer::SourceTile& tile : texture.tiles) {
        shape.textures.push_back(texture_shape(tile.where));
      }
    }
    OutputShape output;
    if (first < shape.textures.size()) {  // the transfer refuses an output without one
      output.channels = shape.textures[first].channels;
      output.component_bytes = shape.textures[first].component_bytes;
    }
    output.png = transfer::is_png_place(request.where);
    output.mask = !request.mask.empty();
    output.mask_png = output.mask && transfer::is_png_place(request.mask);
    shape.outputs.push_back(output);
  }
  return shape;
}

JobShape meshmaps_job_shape(const meshmaps::MeshMapsSettings& settings,
                            const meshmaps::MeshMapsExtras& extras, const Mesh& low,
                            const std::vector<const Mesh*>& highs) {
  JobShape shape{};
  shape.width = static_cast<std::uint32_t>(settings.bake.width);
  shape.height = static_cast<std::uint32_t>(settings.bake.height);
  shape.antialias = static_cast<std::uint32_t>(settings.bake.aa);
  shape.maps = settings.map_order;
  shape.gpu = settings.bake.backend == "gpu";
  shape.low_triangles = low.triangles.size();
  // The low mesh is the traced surface when no high mesh is given.
  shape.high_triangles = settings.low_as_high ? low.triangles.size() : total_triangles(highs);
  shape.joined_mesh_bytes = joined_bytes(highs);
  if (extras.normal_map) {
    shape.input_bytes += extras.normal_map->normals.size() * sizeof(Vec3f);
  }
  if (extras.noise) {
    shape.input_bytes +=
        meshmaps::NoiseTable::kSide * meshmaps::NoiseTable::kSide * 4 * sizeof(float);
  }
  return shape;
}

}  // namespace kv::service
