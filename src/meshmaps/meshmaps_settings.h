// The validated settings of one mesh-maps bake, with their defaults. The
// primary rays share the Normal bake's settings, so the raster, the tracer
// and the band loop see exactly what a Normal bake would give them.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "normal/normal_bake_settings.h"

namespace kv::meshmaps {

enum class Distribution { uniform, cosine };
enum class Attenuation { none, smooth, linear };
enum class SelfOcclusion { always, same_name };
enum class ThicknessRange { ray, minmax, none };
enum class CurvatureRange { auto_range, manual };
enum class CurvatureMethod { mesh, normal_map };
enum class HeightRange { ray, lowmesh, minmax, manual };
enum class PositionMode { all, x, y, z };
enum class PositionNormalization { bsphere, bbox };
enum class IdSource { object, polygroup, material, mesh_island, vertex_color };
enum class IdGenerator { random, hue, gray };
enum class GpuFailurePolicy { fallback, fail_fast, retry_then_fail };

// The secondary rays of one map: how many, how far and how spread.
struct RaySettings {
  std::int32_t rays = 64;
  float min = 1e-5f;      // nearest distance that counts
  float max = 1.0f;       // farthest distance that counts
  float spread = 180.0f;  // cone angle in degrees around the normal
  bool absolute = false;  // distances in mesh units, not relative to the high box
  Distribution distribution = Distribution::cosine;
  SelfOcclusion self = SelfOcclusion::always;
};

// The maps one bake writes; an empty path is a map not asked for.
struct MapOutputs {
  std::filesystem::path opacity, ao, thickness, curvature, height, raw, world_normal, position, id,
      bent_normals;
};

struct MeshMapsSettings {
  NormalBakeSettings bake;  // primary rays, sizes, matching, threads, budget, report
  MapOutputs out;
  std::vector<std::string> map_order;  // the maps asked for, in command-line order

  bool low_as_high = false;
  std::filesystem::path normal_map;  // empty: none
  CurvatureMethod curvature_method = CurvatureMethod::mesh;

  RaySettings ao;  // --ao-*
  Attenuation ao_attenuation = Attenuation::linear;
  bool ao_ground_plane = false;
  float ao_ground_offset = 0.0f;
  RaySettings bent;       // --bent-*
  RaySettings thickness;  // --thickness-*, max 0.1
  ThicknessRange thickness_range = ThicknessRange::minmax;
  RaySettings curvature;  // --curvature-*: rays 32, max is the radius 0.001
  CurvatureRange curvature_range = CurvatureRange::auto_range;
  float curvature_min = -1.0f;
  float curvature_max = 1.0f;
  float curvature_multiplier = 0.5f;

  HeightRange height_range = HeightRange::lowmesh;
  float height_divisor = 1.0f;
  std::int32_t world_normal_up = 2;  // 2: z up, 1: y up
  PositionMode position_mode = PositionMode::all;
  PositionNormalization position_normalization = PositionNormalization::bsphere;
  IdSource id_source = IdSource::material;
  IdGenerator id_generator = IdGenerator::hue;
  std::uint32_t id_seed = 0;

  std::filesystem::path noise;    // 256 x 256 PNG, empty: none
  std::filesystem::path noise_x;  // 65536-byte raw file, empty: none

  GpuFailurePolicy gpu_failure_policy = GpuFailurePolicy::fallback;
  bool gpu_primary = false, gpu_exact = false, gpu_compact = false, gpu_resident = false,
       no_gpu_resident = false, gpu_resident_check = false;
  std::int64_t gpu_wait_limit_ms = 600000;  // 0: none
  double gpu_batch_ms = 0.0;                // 0: one batch per call
  double gpu_batch_pause_ms = 0.0;

  bool help = false;
};

// What the environment asks of the command.
struct MeshMapsEnvironment {
  std::int32_t budget_policy = 1;  // KV_MESHMAPS_BUDGET_POLICY
  bool embree_compact = false;     // KV_EMBREE_BUILD
  bool embree_threads = false;
  std::int32_t gpu_group = 64;         // KV_MESHMAPS_GPU_GROUP
  std::string low_as_high_experiment;  // KV_EXP_LAH, empty: none
};

}  // namespace kv::meshmaps
