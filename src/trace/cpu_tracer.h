// The reference tracer: Embree finds the candidates, and every accepted hit
// is recomputed in 64-bit arithmetic from the 32-bit mesh data, so results
// do not depend on Embree's internal precision, its version or the thread
// count.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "core/parallel.h"
#include "mesh/mesh.h"
#include "trace/tracer.h"

namespace kv {

struct CpuTracerOptions {
  bool compact = false;            // compact scene: less memory, slower rays
  bool low_build_quality = false;  // faster build, slower rays
  std::uint64_t memory_limit = 0;  // bytes Embree may hold; 0 = no limit
};

// Per-thread counters, summed over the threads that traced.
struct CpuTraceStatistics {
  std::uint64_t refine_cache_hits = 0;
  std::uint64_t refine_cache_misses = 0;
  std::uint64_t filter_calls = 0;
  std::uint64_t refines = 0;
};

// A candidate's hit recomputed in 64-bit and rounded to 32-bit floats.
struct RefinedHit {
  float u = 0.0f;
  float v = 0.0f;
  float t = 0.0f;
};

// Moeller-Trumbore in 64-bit from the query's origin and direction and the
// triangle's corner positions. When the determinant is 0 the given
// (Embree's) u, v, t are kept.
RefinedHit refine_hit(const Mesh& mesh, const RayQuery& query, std::uint32_t triangle, float u,
                      float v, float t);

// The distance tests of a refined hit: 0 < t < t_max, and the hit point's
// distance along the query's axis strictly inside (-rear, front).
bool refined_hit_in_window(const Mesh& mesh, const RayQuery& query, std::uint32_t triangle,
                           const RefinedHit& hit);

// True unless KV_TRACE_REFINE_CACHE holds exactly "0" or "off".
bool refine_cache_enabled(const std::optional<std::string>& value);

class CpuTracer final : public Tracer {
 public:
  // Builds the scene over the high mesh. `name_groups` is empty or holds one
  // group per high triangle. threads >= 1 limits Embree's own threads.
  CpuTracer(const Mesh& high, std::vector<std::uint32_t> name_groups,
            const CpuTracerOptions& options, int threads);
  ~CpuTracer() override;
  CpuTracer(const CpuTracer&) = delete;
  CpuTracer& operator=(const CpuTracer&) = delete;

  std::string description() const override;
  RayHit trace(const RayQuery& query) const override;
  RayHit trace_excluding(const RayQuery& query, std::int32_t excluded) const override;
  bool runs_on_gpu() const override { return false; }
  void trace_batch(const RayQuery* queries, RayHit* hits, std::uint64_t count,
                   const WorkerPool& pool) const override;
  void trace_fanned_batch(const RayQuery* queries, RayHit* hits, std::uint64_t count,
                          const WorkerPool& pool) const override;
  void occluded_batch(const OcclusionQuery* queries, std::uint8_t* occluded, std::uint64_t count,
                      const WorkerPool& pool) const override;
  bool check_known_hit(const RayQuery& query, RayHit& hit) const override;
  // One occlusion query as a single ray; occluded_batch gives the same answers.
  bool occluded(const OcclusionQuery& query) const;
  bool has_name_groups() const override { return !name_groups_.empty(); }
  GpuTraceStatistics gpu_statistics() const override { return {0, 0, 0, 0, 0}; }

  bool refine_cache_on() const { return refine_cache_; }
  CpuTraceStatistics statistics() const;
  std::uint64_t memory_bytes() const { return memory_current_.load(); }
  std::uint64_t peak_memory_bytes() const { return memory_peak_.load(); }
  // Bytes the tracer holds outside Embree (its corner table and groups).
  std::uint64_t table_bytes() const;

  struct ThreadState;      // refine cache and counters of one tracing thread
  struct CornerPositions;  // one high triangle's corner positions

 private:
  friend struct CpuTracerCallbacks;  // Embree's filter, error and memory callbacks

  // One ray on the calling thread, whose state and floating-point control
  // state the caller looked up (once per batch task, not once per ray).
  RayHit trace_one(const RayQuery& query, std::int64_t excluded, ThreadState& thread,
                   std::uint32_t fp_state) const;
  // Up to eight rays in one Embree packet on the calling thread; a query
  // whose t_max is not above 0 misses without a lane.
  void trace_packet(const RayQuery* queries, RayHit* hits, unsigned count, ThreadState& thread,
                    std::uint32_t fp_state, bool coherent) const;
  // A batch in packets from its first query, on the pool's threads.
  void trace_packets(const RayQuery* queries, RayHit* hits, std::uint64_t count,
                     const WorkerPool& pool, bool coherent) const;
  // The refined hit of the winning primitive of ray `lane`, from the refine
  // cache when it holds this very candidate.
  RayHit winner(const RayQuery& query, std::uint32_t primitive, float u, float v, float t,
                unsigned lane, ThreadState& thread, std::uint32_t fp_state) const;
  ThreadState& thread_state() const;
  void build(int threads, const WorkerPool& pool);
  void release();
  [[noreturn]] void raise_device_error(const std::string& prefix);

  const Mesh& high_;
  // Embree's primitive i is high triangle order_[i]: the triangles in space
  // order, so that the records below, read for every candidate, are mostly
  // in cache. Both tables are indexed by primitive.
  LargeArray<std::uint32_t> order_;
  LargeArray<CornerPositions> corners_;         // one record per primitive
  std::vector<std::uint32_t> name_groups_;      // per high triangle, or empty
  LargeArray<std::uint32_t> primitive_groups_;  // the same per primitive
  CpuTracerOptions options_;
  bool refine_cache_ = true;
  std::uint64_t id_;  // distinguishes tracers in the per-thread lookup

  // Declared before the Embree handles: Embree reports releases to the
  // memory monitor while the handles are destroyed.
  std::atomic<std::uint64_t> memory_current_{0};
  std::atomic<std::uint64_t> memory_peak_{0};
  std::mutex error_mutex_;
  std::string device_error_;
  bool out_of_memory_ = false;

  mutable std::mutex threads_mutex_;
  mutable std::vector<std::pair<std::thread::id, std::unique_ptr<ThreadState>>> threads_;

  void* device_ = nullptr;
  void* scene_ = nullptr;
  unsigned geometry_id_ = 0;
};

// Builds with {compact off, normal quality, no limit}; on OutOfMemory reports
// "embree.retry_compact" to `memory_trace` (when given), sets *retried_compact
// and builds once more in compact mode. A second failure propagates.
std::unique_ptr<CpuTracer> build_cpu_tracer_with_retry(
    const Mesh& high, std::vector<std::uint32_t> name_groups, int threads, bool* retried_compact,
    const std::function<void(std::string_view)>& memory_trace = {});

// The retry rule over any builder; build_cpu_tracer_with_retry uses it with
// the real build.
std::unique_ptr<CpuTracer> build_with_compact_retry(
    const std::function<std::unique_ptr<CpuTracer>(const CpuTracerOptions&)>& build,
    bool* retried_compact, const std::function<void(std::string_view)>& memory_trace);

// A plain scene over the low mesh for the service's cage check: default
// device, no flags, no filter. Hits are Embree's own.
class LowMeshScene {
 public:
  explicit LowMeshScene(const Mesh& low);
  ~LowMeshScene();
  LowMeshScene(const LowMeshScene&) = delete;
  LowMeshScene& operator=(const LowMeshScene&) = delete;

  // Closest low triangle along the ray within (t_near, t_far).
  RayHit intersect(const std::array<float, 3>& origin, const std::array<float, 3>& direction,
                   float t_near, float t_far) const;

 private:
  void release();

  void* device_ = nullptr;
  void* scene_ = nullptr;
};

}  // namespace kv
