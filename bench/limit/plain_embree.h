// The limit the bake benchmarks compare against: the bake's own rays cast
// through a plain Embree closest-hit loop (no filter, the tracer's scene
// flags, the same thread count).
#pragma once

#include <cstdint>
#include <vector>

#include "core/parallel.h"
#include "mesh/mesh.h"
#include "normal/normal_bake_settings.h"
#include "trace/embree_api.h"
#include "trace/tracer.h"

namespace kv::bench {

class PlainEmbree {
 public:
  PlainEmbree(const Mesh& mesh, int threads);
  ~PlainEmbree();
  PlainEmbree(const PlainEmbree&) = delete;
  PlainEmbree& operator=(const PlainEmbree&) = delete;

  // Traces the queries in tasks of 1024 like the tracer; returns the hits.
  std::uint64_t trace(const std::vector<RayQuery>& queries, const WorkerPool& pool) const;

  // The scene, for benchmarks that cast their own rays through it.
  embree::Scene scene() const { return scene_; }

 private:
  embree::Device device_ = nullptr;
  embree::Scene scene_ = nullptr;
};

struct PlainRun {
  std::uint64_t rays = 0;
  std::uint64_t hits = 0;
  double seconds = 0.0;  // tracing only, not the query building
};

// The bake's own rays, band by band (so they never all sit in memory), each
// band traced by the plain loop.
PlainRun plain_trace(const Mesh& low, const Mesh& high, const NormalBakeSettings& settings,
                     const PlainEmbree& plain, const WorkerPool& pool);

}  // namespace kv::bench
