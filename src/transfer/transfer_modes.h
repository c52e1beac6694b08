// The two ways a transfer finds each sub-sample's source point, both on the
// band loop over the target's UV raster: uv2uv takes the same triangle and
// barycentrics in a second UV set of the same surface, m2m casts the Normal
// bake's ray onto the high mesh.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "core/parallel.h"
#include "mesh/mesh.h"
#include "sampling/band_loop.h"
#include "texel/low_prep.h"
#include "transfer/transfer_evaluator.h"
#include "transfer/transfer_settings.h"

namespace kv::transfer {

struct ModeRun {
  TransferCounts counts;
  std::string tracer;  // the tracer's description; empty without rays
  bool retried_compact = false;
  std::uint64_t zero_uv_area_triangles = 0;
  std::uint64_t unmatched_low_objects = 0;
  double setup_seconds = 0.0;  // LowPrep (and name groups)
  double bvh_seconds = 0.0;    // tracer build
  double transfer_seconds = 0.0;
};

// Throws "transfer: the source UV mesh differs from the target at triangle N
// (object, corner positions or their order)" at the first triangle whose
// object name or corner positions differ, or that only one mesh has.
void check_same_surface(const Mesh& target, const Mesh& source);

// The low triangles of objects that --raster-object does not name; empty
// when it names none. Unknown names are refused.
std::vector<std::int64_t> raster_object_skips(const Mesh& target,
                                              const std::vector<std::string>& objects);

// The checks of the meshes before any texture is read: uv2uv needs the same
// surface (check_same_surface), m2m a high mesh with triangles ("transfer:
// the high mesh has no triangles").
void check_source_mesh(TransferMode mode, const Mesh& target, const Mesh& source);

// The source UV mesh must have passed check_same_surface.
// `band_done` runs after every band and may throw Cancelled to end the run.
ModeRun run_uv2uv(const Mesh& target, const Mesh& source_uvs, const TransferSettings& settings,
                  std::vector<OutputBuffer>& outputs, const WorkerPool& pool,
                  const BandDone& band_done = {});

// dump: the hit dump, or null.
ModeRun run_m2m(const Mesh& target, const Mesh& high, const TransferSettings& settings,
                std::vector<OutputBuffer>& outputs, const WorkerPool& pool, HitDump* dump,
                const BandDone& band_done = {});

}  // namespace kv::transfer
