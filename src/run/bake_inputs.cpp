#include "run/bake_inputs.h"

#include "mesh/mesh_cache.h"
#include "mesh/mesh_format.h"
#include "mesh/obj_reader.h"

namespace kv::run {
namespace {

MeshReadOptions read_options(const NormalBakeSettings& settings) {
  MeshReadOptions options;
  options.threads = settings.threads;
  options.quads = settings.quads == 1 ? QuadPolicy::reject : QuadPolicy::split;
  return options;
}

LoadedMesh load_input(const std::filesystem::path& path, const NormalBakeSettings& settings,
                      const MeshCacheSettings& cache, ProgressSink& sink) {
  CachedMeshLoad load = load_mesh_cached(path, read_options(settings), cache);
  for (const std::string& warning : load.warnings) {
    sink.warning(warning);
  }
  return {std::move(load.mesh), load.stats};
}

// The cache does not keep material names; the raster filter needs them, so
// they come from the OBJ's own usemtl statements.
void restore_obj_materials(LoadedMesh& low, const NormalBakeSettings& settings) {
  if (settings.raster_materials.empty() || !low.mesh.materials.empty() ||
      sniff_mesh_format(settings.low) != MeshFormat::Obj) {
    return;
  }
  ObjReadResult fresh = naming_memory_failures(
      settings.low, [&] { return read_obj(settings.low, read_options(settings)); });
  if (fresh.mesh.triangles.size() == low.mesh.triangles.size()) {
    low.mesh.materials = std::move(fresh.mesh.materials);
    low.mesh.triangle_materials = std::move(fresh.mesh.triangle_materials);
  }
}

}  // namespace

BakeInputs load_bake_inputs(const NormalBakeSettings& settings, ProgressSink& sink) {
  MeshCacheSettings cache;
  cache.folder = settings.cache_dir;
  BakeInputs inputs;
  inputs.low = load_input(settings.low, settings, cache, sink);
  restore_obj_materials(inputs.low, settings);
  inputs.high = load_input(settings.high, settings, cache, sink);
  return inputs;
}

}  // namespace kv::run
