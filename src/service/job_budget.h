// The shapes of the service's jobs as the memory estimate prices them, each
// read from what the job will really hold: its meshes, its maps and, for a
// transfer, the headers of its textures.
#pragma once

#include <vector>

#include "mesh/mesh.h"
#include "meshmaps/meshmaps_run.h"
#include "normal/normal_bake_settings.h"
#include "service/memory_estimate.h"
#include "transfer/transfer_settings.h"

namespace kv::service {

// `highs`: the high (or source) meshes, in key order; several are joined
// into one copy for the job. `opacity`: the Opacity map is made too.
JobShape bake_job_shape(const NormalBakeSettings& settings, bool opacity, const Mesh& low,
                        const std::vector<const Mesh*>& highs);

// Reads every texture's header (nothing decoded) and fails as reading the
// texture would.
JobShape transfer_job_shape(const transfer::TransferSettings& settings, const Mesh& target,
                            const std::vector<const Mesh*>& sources);

JobShape meshmaps_job_shape(const meshmaps::MeshMapsSettings& settings,
                            const meshmaps::MeshMapsExtras& extras, const Mesh& low,
                            const std::vector<const Mesh*>& highs);

}  // namespace kv::service
