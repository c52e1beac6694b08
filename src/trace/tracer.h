// The abstract ray tracer of the bakes: along a ray cast from the low
// surface, which high triangle is hit first, and where, inside a window of
// distances around the low surface.
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "core/parallel.h"

namespace kv {

// One ray as the bakes build it: seventeen 32-bit words, packed in batches.
struct RayQuery {
  std::array<float, 3> origin{};
  std::array<float, 3> direction{};  // unit length
  float t_max = 0.0f;                // hits at t >= t_max are refused
  std::array<float, 3> surface_point{};
  std::array<float, 3> surface_normal{};  // axis of the distance window
  float front = 0.0f;                     // allowed in front of the surface point
  float rear = 0.0f;                      // allowed behind it
  std::int32_t group = -1;                // name group, -1 when names are not matched
  std::uint8_t ignore_backface = 1;       // 1: refuse back-facing hits
  std::uint8_t reserved[3] = {0, 0, 0};
};
static_assert(sizeof(RayQuery) == 17 * 4, "a ray query is seventeen 32-bit words");

// The first accepted high triangle along a ray; triangle -1 for none.
// u and v weigh the triangle's second and third corner.
struct RayHit {
  std::int32_t triangle = -1;
  float u = 0.0f;
  float v = 0.0f;
  float t = 0.0f;  // distance from the origin along the direction
};
static_assert(sizeof(RayHit) == 16, "a ray hit is 16 bytes");

// A secondary ray that only asks whether any high triangle lies along it,
// cast from a point of the high surface (occlusion, as mesh maps use).
// Triangles count at distances t_near <= t <= t_far (a query with t_near
// below 0 or t_far below t_near sees nothing); no window, name group or
// backface rule applies.
struct OcclusionQuery {
  std::array<float, 3> origin{};
  std::array<float, 3> direction{};  // unit length
  float t_near = 0.0f;
  float t_far = 0.0f;
};

// Counters a GPU tracer reports; a CPU tracer reports zeros.
using GpuTraceStatistics = std::array<std::uint64_t, 5>;

// trace_batch traces its queries in groups of this many consecutive ones,
// the first group starting at the batch's first query. Where two candidates
// lie at exactly the same distance, which one wins may depend on the group
// a ray shares, so a caller whose results must not depend on how it splits
// its work starts each fixed unit of rays (a row, say) at a multiple of it.
inline constexpr std::uint64_t kTraceGroup = 8;

class Tracer {
 public:
  virtual ~Tracer() = default;

  // A short text naming the tracer and its library version.
  virtual std::string description() const = 0;

  // The first accepted hit of the ray.
  virtual RayHit trace(const RayQuery& query) const = 0;

  // The same, never accepting high triangle `excluded`. By default tracers
  // cannot exclude a triangle and raise an Error.
  virtual RayHit trace_excluding(const RayQuery& query, std::int32_t excluded) const;

  // True for tracers that run on a GPU device.
  virtual bool runs_on_gpu() const = 0;

  // Traces queries[i] into hits[i] for every i below count on the pool's
  // threads (WorkerPool::serial() from inside another pool's chunk). Queries
  // are traced in groups of kTraceGroup from the start of the batch; see
  // there.
  virtual void trace_batch(const RayQuery* queries, RayHit* hits, std::uint64_t count,
                           const WorkerPool& pool) const = 0;

  // The same for rays fanned out from shared points in many directions, as
  // secondary rays are, which a tracer may follow another way, in the same
  // groups. Only where two triangles lie at exactly the same distance along
  // a ray may the winner differ from trace_batch's. By default, trace_batch.
  virtual void trace_fanned_batch(const RayQuery* queries, RayHit* hits, std::uint64_t count,
                                  const WorkerPool& pool) const {
    trace_batch(queries, hits, count, pool);
  }

  // occluded[i] = 1 when any high triangle lies along queries[i], else 0,
  // for every i below count, on the pool's threads. By default tracers
  // cannot answer occlusion queries and raise an Error.
  virtual void occluded_batch(const OcclusionQuery* queries, std::uint8_t* occluded,
                              std::uint64_t count, const WorkerPool& pool) const;

  // Recomputes hit.triangle's hit of the query exactly as tracing does and
  // applies the same distance and group tests. On success writes the refined
  // u, v and t into `hit` and returns true; `hit` is untouched otherwise.
  virtual bool check_known_hit(const RayQuery& query, RayHit& hit) const = 0;

  // True when built with one name group per high triangle.
  virtual bool has_name_groups() const = 0;

  virtual GpuTraceStatistics gpu_statistics() const = 0;

 protected:
  Tracer() = default;
  Tracer(const Tracer&) = default;
  Tracer& operator=(const Tracer&) = default;
};

}  // namespace kv
