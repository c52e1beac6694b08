// The mesh-maps evaluator on the shared band loop: every texel's traced
// sub-samples become the values of every map asked for, the secondary rays
// cast from each primary hit on the thread that owns the texel's chunk.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <vector>

#include "mesh/mesh.h"
#include "meshmaps/id_colors.h"
#include "meshmaps/map_buffers.h"
#include "meshmaps/normal_map_input.h"
#include "meshmaps/sample_directions.h"
#include "meshmaps/secondary_rays.h"
#include "sampling/band_loop.h"
#include "texel/low_prep.h"
#include "trace/tracer.h"

namespace kv::meshmaps {

// How positions become colours: 0.5 + 0.5 (p - centre) / half, per axis.
struct PositionScale {
  std::array<double, 3> centre{};
  std::array<double, 3> half{1.0, 1.0, 1.0};
  PositionMode mode = PositionMode::all;
};

// The low mesh's box: one scale (its largest half side) or one per axis.
PositionScale position_scale(const Mesh& low, PositionMode mode, PositionNormalization how);

struct EvaluatorSetup {
  const Mesh* high = nullptr;
  const NoiseTable* noise = nullptr;  // null: hashed rotations
  MapRequest request;
  MapRays ao, bent, thickness, curvature;
  Attenuation ao_attenuation = Attenuation::linear;
  bool bent_shares_ao = false;  // same ray settings: one set of rays serves both maps
  bool bent_nearest = false;    // bent normal rays as nearest-hit queries, as AO's
  GroundPlane ground;
  float front = 0.0f;                      // the primary rays' front distance, mesh units
  bool neutral_height = false;             // the surface is the low mesh itself
  std::vector<std::uint32_t> high_groups;  // name group per high triangle, for same-name rays
  TriangleIds ids;
  std::int32_t world_up = 2;  // 2: z up, 1: y up
  PositionScale position;
  bool directx = false;
  // --normal-map: the low surface's shading normals under --low-as-high, and
  // the curvature of the normal-map method.
  const NormalMapImage* normal_map = nullptr;
  bool normal_map_shading = false;
  bool curvature_from_normal_map = false;
};

class MeshMapsEvaluator final : public TexelEvaluator {
 public:
  MeshMapsEvaluator(const LowPrep& prep, const Tracer& tracer, const EvaluatorSetup& setup,
                    MeshMapsBuffers& out);

  void begin_band(std::uint64_t chunks) override;
  void evaluate(std::uint64_t chunk, const SampleRows& rows) override;
  void end_band() override;

 private:
  struct TexelSums;
  void sample(const SampleRows& rows, std::int32_t x, std::int32_t y, std::uint32_t index,
              const SubSample& s, const RayHit& hit, SecondaryRays& rays, TexelSums& sums) const;
  // One sample's bent direction, in the low's tangent frame, into the sums.
  void add_bent(const SubSample& s, const Vec3f& bent, TexelSums& sums) const;
  void finish_texel(std::size_t texel, const TexelSums& sums) const;

  const LowPrep& prep_;
  const Tracer& tracer_;
  const EvaluatorSetup& setup_;
  MeshMapsBuffers& out_;
  std::vector<MeshMapsCounters> chunk_counters_;
};

}  // namespace kv::meshmaps
