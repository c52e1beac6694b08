// The two meshes of a bake, loaded through the mesh cache when one is set.
#pragma once

#include "mesh/mesh.h"
#include "normal/normal_bake_settings.h"
#include "run/progress_sink.h"

namespace kv::run {

struct LoadedMesh {
  Mesh mesh;
  MeshStats stats;
};

struct BakeInputs {
  LoadedMesh low;
  LoadedMesh high;
};

// Loads the low mesh, then the high one; each load's warnings go to the sink
// as soon as that load is done.
BakeInputs load_bake_inputs(const NormalBakeSettings& settings, ProgressSink& sink);

}  // namespace kv::run
