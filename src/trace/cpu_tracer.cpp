#include "trace/cpu_tracer.h"

#include <algorithm>
#include <bit>
#include <cfenv>
#include <cmath>
#include <cstring>
#include <span>
#include <type_traits>

#if defined(__x86_64__) || defined(__i386__)
#include <xmmintrin.h>
#endif

#include "core/error.h"
#include "core/parallel.h"
#include "platform/platform.h"
#include "trace/embree_api.h"
#include "trace/spatial_order.h"

namespace kv {

// ---- the refine cache ---------------------------------------------------------

namespace {

// Releases a scene and then its device, leaving both handles null.
void release_scene_and_device(void*& scene, void*& device) {
  if (scene != nullptr) {
    embree::release_scene(static_cast<embree::Scene>(scene));
    scene = nullptr;
  }
  if (device != nullptr) {
    embree::release_device(static_cast<embree::Device>(device));
    device = nullptr;
  }
}

// Rays per task of a batch: enough that a task's start-up (thread state,
// floating-point state) vanishes beside its rays, few enough that the tasks
// of a band balance over the threads. A multiple of the packet size.
constexpr std::uint64_t kBatchTask = 1024;
static_assert(embree::kPacketLanes == kTraceGroup, "a trace group is one Embree packet");
static_assert(kBatchTask % kTraceGroup == 0, "packets never straddle two tasks");

// The floating-point control state a refinement was computed under (rounding,
// flush-to-zero and exception masks; never the sticky status flags).
std::uint32_t fp_control_state() {
#if defined(__x86_64__) || defined(__i386__)
  return _mm_getcsr() & 0xFFC0u;
#else
  return static_cast<std::uint32_t>(std::fegetround());
#endif
}

bool fp_exceptions_masked(std::uint32_t state) {
#if defined(__x86_64__) || defined(__i386__)
  constexpr std::uint32_t kAllMasks = 0x1F80u;
  return (state & kAllMasks) == kAllMasks;
#else
  (void)state;
  return fegetexcept() == 0;
#endif
}

std::atomic<std::uint64_t> g_next_tracer_id{1};

void bump(std::atomic<std::uint64_t>& counter) {
  // Only the owning thread writes; others may read the sum at any time.
  counter.store(counter.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
}

}  // namespace

// The last candidate accepted for one ray of the current trace, which is the
// winner once the search ends: its refinement need not be computed again.
struct LaneCache {
  bool cached = false;
  std::uint32_t primitive = 0;
  std::uint32_t u_bits = 0;
  std::uint32_t v_bits = 0;
  std::uint32_t t_bits = 0;
  std::uint32_t fp_state = 0;
  RefinedHit refined;
};

// Written on every ray by its own thread: on cache lines of its own, since two
// threads writing to one line slowed tracing by up to a half.
struct alignas(64) CpuTracer::ThreadState {
  // The refine cache: one entry per ray of a packet (a single ray uses the first).
  LaneCache lanes[embree::kPacketLanes];

  std::atomic<std::uint64_t> cache_hits{0};
  std::atomic<std::uint64_t> cache_misses{0};
  std::atomic<std::uint64_t> filter_calls{0};
  std::atomic<std::uint64_t> refines{0};
};

bool refine_cache_enabled(const std::optional<std::string>& value) {
  return !(value && (*value == "0" || *value == "off"));
}

// ---- the exact hit arithmetic -------------------------------------------------

// The three corner positions of one high triangle, side by side: the filter
// reads them for every candidate, and one short record costs far fewer cache
// misses than the triangle record and three scattered positions.
struct CpuTracer::CornerPositions {
  float p[3][3];
};
static_assert(sizeof(CpuTracer::CornerPositions) == 36);

namespace {

using CornerPositions = CpuTracer::CornerPositions;

CornerPositions corners_of(const Mesh& mesh, std::uint32_t triangle) {
  CornerPositions c;
  for (int i = 0; i < 3; ++i) {
    const auto& p = mesh.positions[mesh.triangles[triangle].corners[i].position];
    c.p[i][0] = p[0];
    c.p[i][1] = p[1];
    c.p[i][2] = p[2];
  }
  return c;
}

RefinedHit refine(const CornerPositions& c, const RayQuery& query, float u, float v, float t) {
  double p0[3], e1[3], e2[3], d[3], s[3];
  for (int k = 0; k < 3; ++k) {
    p0[k] = c.p[0][k];
    e1[k] = static_cast<double>(c.p[1][k]) - p0[k];
    e2[k] = static_cast<double>(c.p[2][k]) - p0[k];
    d[k] = query.direction[k];
    s[k] = static_cast<double>(query.origin[k]) - p0[k];
  }
  const double q[3] = {d[1] * e2[2] - d[2] * e2[1], d[2] * e2[0] - d[0] * e2[2],
                       d[0] * e2[1] - d[1] * e2[0]};
  const double det = e1[0] * q[0] + e1[1] * q[1] + e1[2] * q[2];
  if (det == 0.0) {
    return {u, v, t};
  }
  double ru = (s[0] * q[0] + s[1] * q[1] + s[2] * q[2]) / det;
  const double r[3] = {s[1] * e1[2] - s[2] * e1[1], s[2] * e1[0] - s[0] * e1[2],
                       s[0] * e1[1] - s[1] * e1[0]};
  double rv = (d[0] * r[0] + d[1] * r[1] + d[2] * r[2]) / det;
  const double rt = (e2[0] * r[0] + e2[1] * r[1] + e2[2] * r[2]) / det;
  ru = ru < 0.0 ? 0.0 : (ru > 1.0 ? 1.0 : ru);
  rv = rv < 0.0 ? 0.0 : (rv > 1.0 ? 1.0 : rv);
  const double sum = ru + rv;
  if (sum > 1.0) {
    ru /= sum;
    rv /= sum;
  }
  return {static_cast<float>(ru), static_cast<float>(rv), static_cast<float>(rt)};
}

bool in_window(const CornerPositions& c, const RayQuery& query, const RefinedHit& hit) {
  // Written as "inside" tests so that a NaN is refused as well.
  if (!(hit.t > 0.0f && hit.t < query.t_max)) {
    return false;
  }
  const float w0 = 1.0f - hit.u - hit.v;
  float h[3];
  for (int k = 0; k < 3; ++k) {
    const float first = c.p[0][k] * w0 + c.p[1][k] * hit.u;
    h[k] = first + c.p[2][k] * hit.v;
  }
  const auto& p = query.surface_point;
  const auto& n = query.surface_normal;
  const float dy = (h[1] - p[1]) * n[1];
  const float dx = (h[0] - p[0]) * n[0];
  const float dz = (h[2] - p[2]) * n[2];
  const float d_n = (dy + dx) + dz;
  return d_n > -query.rear && d_n < query.front;
}

// Ng . direction >= 0 with Ng = (p1 - p0) x (p2 - p0): the ray sees the
// triangle's corners run clockwise.
bool is_backface(const CornerPositions& c, const RayQuery& query) {
  const float e1[3] = {c.p[1][0] - c.p[0][0], c.p[1][1] - c.p[0][1], c.p[1][2] - c.p[0][2]};
  const float e2[3] = {c.p[2][0] - c.p[0][0], c.p[2][1] - c.p[0][1], c.p[2][2] - c.p[0][2]};
  const float ng[3] = {e1[1] * e2[2] - e1[2] * e2[1], e1[2] * e2[0] - e1[0] * e2[2],
                       e1[0] * e2[1] - e1[1] * e2[0]};
  const auto& d = query.direction;
  return ng[0] * d[0] + ng[1] * d[1] + ng[2] * d[2] >= 0.0f;
}

bool group_allows(std::span<const std::uint32_t> groups, const RayQuery& query,
                  std::uint32_t triangle) {
  if (query.group == -1) {
    return true;
  }
  return !groups.empty() && groups[triangle] == static_cast<std::uint32_t>(query.group);
}

}  // namespace

RefinedHit refine_hit(const Mesh& mesh, const RayQuery& query, std::uint32_t triangle, float u,
                      float v, float t) {
  return refine(corners_of(mesh, triangle), query, u, v, t);
}

bool refined_hit_in_window(const Mesh& mesh, const RayQuery& query, std::uint32_t triangle,
                           const RefinedHit& hit) {
  return in_window(corners_of(mesh, triangle), query, hit);
}

namespace {

// What one trace hands to the filter through Embree's per-ray context: the
// queries of its rays (one, or a packet's), each found by the ray's id.
struct TraceContext {
  embree::RayQueryContext base;  // first: Embree passes a pointer to it
  const CpuTracer* tracer;
  const RayQuery* queries;
  std::int64_t excluded;  // -1 for none
  CpuTracer::ThreadState* thread;
  // The floating-point control state, read once per batch task (reading it
  // is slow): nothing changes it while Embree searches.
  std::uint32_t fp_state;
};
static_assert(std::is_standard_layout_v<TraceContext>);

}  // namespace

struct CpuTracerCallbacks {
  static void filter(const embree::FilterArguments* args) {
    auto* context = reinterpret_cast<TraceContext*>(embree::filter_context(args));
    const CpuTracer& tracer = *context->tracer;
    CpuTracer::ThreadState& thread = *context->thread;
    const unsigned lanes = embree::filter_lane_count(args);
    for (unsigned i = 0; i < lanes; ++i) {
      if (!embree::filter_lane_valid(args, i)) {
        continue;
      }
      bump(thread.filter_calls);
      const unsigned ray = embree::filter_ray_id(args, i);
      const RayQuery& query = context->queries[ray];
      const std::uint32_t primitive = embree::filter_prim_id(args, i);
      if (context->excluded >= 0 &&
          static_cast<std::int64_t>(tracer.order_[primitive]) == context->excluded) {
        embree::filter_refuse(args, i);
        continue;
      }
      const float u = embree::filter_u(args, i);
      const float v = embree::filter_v(args, i);
      const float t = embree::filter_t(args, i);
      const CornerPositions& corners = tracer.corners_[primitive];
      const RefinedHit refined = refine(corners, query, u, v, t);
      bump(thread.refines);
      if (!in_window(corners, query, refined) ||
          !group_allows(tracer.primitive_groups_, query, primitive) ||
          (query.ignore_backface != 0 && is_backface(corners, query))) {
        embree::filter_refuse(args, i);
        continue;
      }
      if (tracer.refine_cache_ && std::isfinite(u) && std::isfinite(v) && std::isfinite(t)) {
        const std::uint32_t state = context->fp_state;
        if (fp_exceptions_masked(state)) {
          LaneCache& cache = thread.lanes[ray];
          cache.cached = true;
          cache.primitive = primitive;
          cache.u_bits = std::bit_cast<std::uint32_t>(u);
          cache.v_bits = std::bit_cast<std::uint32_t>(v);
          cache.t_bits = std::bit_cast<std::uint32_t>(t);
          cache.fp_state = state;
          cache.refined = refined;
        }
      }
    }
  }

  static void error(void* user, RTCError code, const char* text) {
    auto* tracer = static_cast<CpuTracer*>(user);
    std::lock_guard guard(tracer->error_mutex_);
    tracer->device_error_ = text != nullptr && *text != '\0' ? text : "unknown Embree error";
    if (code == RTC_ERROR_OUT_OF_MEMORY) {
      tracer->out_of_memory_ = true;
    }
  }

  static bool memory(void* user, ssize_t bytes, bool /*post*/) {
    auto* tracer = static_cast<CpuTracer*>(user);
    const auto delta = static_cast<std::uint64_t>(static_cast<std::int64_t>(bytes));
    const std::uint64_t total = tracer->memory_current_.fetch_add(delta) + delta;
    if (bytes <= 0) {
      return true;
    }
    if (tracer->options_.memory_limit != 0 && total > tracer->options_.memory_limit) {
      tracer->memory_current_.fetch_sub(delta);
      return false;
    }
    std::uint64_t peak = tracer->memory_peak_.load();
    while (total > peak && !tracer->memory_peak_.compare_exchange_weak(peak, total)) {
    }
    return true;
  }
};

// ---- building -------------------------------------------------------------------

namespace {

// Throws unless every corner of the mesh names an existing position.
void check_position_indices(const Mesh& mesh, const char* which) {
  const std::size_t count = mesh.positions.size();
  for (std::size_t i = 0; i < mesh.triangles.size(); ++i) {
    for (const Corner& corner : mesh.triangles[i].corners) {
      if (corner.position >= count) {
        throw Error(std::string(which) + " mesh triangle " + std::to_string(i) +
                    " refers to position " + std::to_string(corner.position) + " of " +
                    std::to_string(count));
      }
    }
  }
}

// Fills the two buffers of a triangle geometry, its primitives in `order`
// (the mesh's own order when empty), in chunks on the pool's threads; false
// when one could not be allocated.
bool fill_triangle_buffers(embree::Geometry geometry, const Mesh& mesh, const WorkerPool& pool,
                           const LargeArray<std::uint32_t>& order = {}) {
  float* vertices = embree::new_vertex_buffer(geometry, mesh.positions.size());
  if (vertices == nullptr) {
    return false;
  }
  std::uint32_t* indices = embree::new_index_buffer(geometry, mesh.triangles.size());
  if (indices == nullptr) {
    return false;
  }
  constexpr std::uint64_t kChunk = 65536;
  pool.for_chunks(
      mesh.positions.size(), kChunk, [&](std::uint64_t, std::uint64_t begin, std::uint64_t end) {
        std::memcpy(vertices + 3 * begin, mesh.positions[begin].data(), (end - begin) * 12);
      });
  pool.for_chunks(mesh.triangles.size(), kChunk,
                  [&](std::uint64_t, std::uint64_t begin, std::uint64_t end) {
                    for (std::uint64_t i = begin; i < end; ++i) {
                      const Triangle& t = mesh.triangles[order.empty() ? i : order[i]];
                      for (std::uint64_t k = 0; k < 3; ++k) {
                        indices[3 * i + k] = t.corners[k].position;
                      }
                    }
                  });
  return true;
}

}  // namespace

CpuTracer::CpuTracer(const Mesh& high, std::vector<std::uint32_t> name_groups,
                     const CpuTracerOptions& options, int threads)
    : high_(high),
      name_groups_(std::move(name_groups)),
      options_(options),
      id_(g_next_tracer_id.fetch_add(1)) {
  if (!name_groups_.empty() && name_groups_.size() != high.triangles.size()) {
    throw Error("name groups do not match the high mesh");
  }
  check_position_indices(high, "high");
  const WorkerPool pool(threads);
  order_ = spatial_order(high, pool);
  corners_.resize(order_.size());
  if (!name_groups_.empty()) {
    primitive_groups_.resize(order_.size());
  }
  pool.for_chunks(order_.size(), 65536, [&](std::uint64_t, std::uint64_t begin, std::uint64_t end) {
    for (std::uint64_t i = begin; i < end; ++i) {
      corners_[i] = corners_of(high, order_[i]);
      if (!primitive_groups_.empty()) {
        primitive_groups_[i] = name_groups_[order_[i]];
      }
    }
  });
  try {
    build(threads, pool);
  } catch (...) {
    release();
    throw;
  }
}

CpuTracer::~CpuTracer() {
  release();
}

void CpuTracer::release() {
  release_scene_and_device(scene_, device_);
}

void CpuTracer::raise_device_error(const std::string& prefix) {
  std::string text;
  bool memory = false;
  {
    std::lock_guard guard(error_mutex_);
    text = device_error_.empty() ? "unknown Embree error" : device_error_;
    memory = out_of_memory_;
  }
  if (memory) {
    throw OutOfMemory(prefix + text);
  }
  throw Error(prefix + text);
}

void CpuTracer::build(int threads, const WorkerPool& pool) {
  const std::string config = threads >= 1 ? "threads=" + std::to_string(threads) : std::string();
  auto device = embree::new_device(threads >= 1 ? config.c_str() : nullptr);
  if (device == nullptr) {
    throw Error("Embree device could not be created");
  }
  device_ = device;
  embree::set_error_function(device, &CpuTracerCallbacks::error, this);
  embree::set_memory_monitor(device, &CpuTracerCallbacks::memory, this);

  auto scene = embree::new_scene(device, {options_.compact, options_.low_build_quality});
  if (scene == nullptr) {
    raise_device_error("Embree scene build failed: ");
  }
  scene_ = scene;
  if (!high_.triangles.empty()) {
    auto geometry = embree::new_triangle_geometry(device);
    if (geometry == nullptr) {
      raise_device_error("Embree buffer allocation failed: ");
    }
    if (!fill_triangle_buffers(geometry, high_, pool, order_)) {
      embree::release_geometry(geometry);
      raise_device_error("Embree buffer allocation failed: ");
    }
    embree::set_intersect_filter(geometry, &CpuTracerCallbacks::filter, this);
    embree::commit_geometry(geometry);
    geometry_id_ = embree::attach_geometry(scene, geometry);
    embree::release_geometry(geometry);
  }
  embree::commit_scene(scene);
  refine_cache_ = refine_cache_enabled(platform::get_env("KV_TRACE_REFINE_CACHE"));

  bool failed = embree::device_error(device) != RTC_ERROR_NONE;
  {
    std::lock_guard guard(error_mutex_);
    failed = failed || !device_error_.empty();
  }
  if (failed) {
    raise_device_error("Embree scene build failed: ");
  }
}

// ---- tracing -----------------------------------------------------------------------

CpuTracer::ThreadState& CpuTracer::thread_state() const {
  struct Slot {
    std::uint64_t tracer = 0;
    ThreadState* state = nullptr;
  };
  thread_local Slot slot;
  if (slot.tracer == id_) {
    return *slot.state;
  }
  const std::thread::id me = std::this_thread::get_id();
  std::lock_guard guard(threads_mutex_);
  ThreadState* state = nullptr;
  for (auto& [thread, owned] : threads_) {
    if (thread == me) {
      state = owned.get();
    }
  }
  if (state == nullptr) {
    threads_.emplace_back(me, std::make_unique<ThreadState>());
    state = threads_.back().second.get();
  }
  slot = {id_, state};
  return *state;
}

CpuTraceStatistics CpuTracer::statistics() const {
  CpuTraceStatistics sum;
  std::lock_guard guard(threads_mutex_);
  for (const auto& entry : threads_) {
    const ThreadState& s = *entry.second;
    sum.refine_cache_hits += s.cache_hits.load(std::memory_order_relaxed);
    sum.refine_cache_misses += s.cache_misses.load(std::memory_order_relaxed);
    sum.filter_calls += s.filter_calls.load(std::memory_order_relaxed);
    sum.refines += s.refines.load(std::memory_order_relaxed);
  }
  return sum;
}

std::uint64_t CpuTracer::table_bytes() const {
  return corners_.capacity() * sizeof(CornerPositions) +
         (order_.capacity() + name_groups_.capacity() + primitive_groups_.capacity()) *
             sizeof(std::uint32_t);
}

std::string CpuTracer::description() const {
  const std::int64_t version = embree::device_version(static_cast<embree::Device>(device_));
  return "embree " + std::to_string(version / 10000) + "." + std::to_string(version / 100 % 100) +
         "." + std::to_string(version % 100);
}

RayHit CpuTracer::trace(const RayQuery& query) const {
  return trace_one(query, -1, thread_state(), fp_control_state());
}

RayHit CpuTracer::trace_excluding(const RayQuery& query, std::int32_t excluded) const {
  return trace_one(query, excluded, thread_state(), fp_control_state());
}

RayHit CpuTracer::trace_one(const RayQuery& query, std::int64_t excluded, ThreadState& thread,
                            std::uint32_t fp_state) const {
  if (!(query.t_max > 0.0f)) {
    return {};
  }
  thread.lanes[0].cached = false;
  TraceContext context;
  embree::init_context(&context.base);
  context.tracer = this;
  context.queries = &query;
  context.excluded = excluded;
  context.thread = &thread;
  context.fp_state = fp_state;
  RTCRayHit ray = embree::make_ray(query.origin.data(), query.direction.data(), query.t_max);
  embree::intersect1(static_cast<embree::Scene>(scene_), &context.base, &ray);
  if (ray.hit.geomID == embree::kInvalidId) {
    return {};
  }
  return winner(query, ray.hit.primID, ray.hit.u, ray.hit.v, ray.ray.tfar, 0, thread, fp_state);
}

void CpuTracer::trace_packet(const RayQuery* queries, RayHit* hits, unsigned count,
                             ThreadState& thread, std::uint32_t fp_state, bool coherent) const {
  alignas(32) int valid[embree::kPacketLanes];
  alignas(32) embree::RayHit8 packet;
  bool any = false;
  for (unsigned lane = 0; lane < embree::kPacketLanes; ++lane) {
    // Unused lanes get harmless values: Embree loads whole vectors.
    static constexpr float kNowhere[3] = {0.0f, 0.0f, 0.0f};
    static constexpr float kUp[3] = {0.0f, 0.0f, 1.0f};
    const bool traced = lane < count && queries[lane].t_max > 0.0f;
    valid[lane] = traced ? -1 : 0;
    if (traced) {
      embree::set_packet_ray(packet, lane, queries[lane].origin.data(),
                             queries[lane].direction.data(), queries[lane].t_max, lane);
      thread.lanes[lane].cached = false;
      any = true;
    } else {
      embree::set_packet_ray(packet, lane, kNowhere, kUp, 0.0f, lane);
    }
  }
  if (any) {
    TraceContext context;
    embree::init_context(&context.base);
    context.tracer = this;
    context.queries = queries;
    context.excluded = -1;
    context.thread = &thread;
    context.fp_state = fp_state;
    embree::intersect8(valid, static_cast<embree::Scene>(scene_), &context.base, &packet,
                       coherent ? embree::Coherence::coherent : embree::Coherence::incoherent);
  }
  for (unsigned lane = 0; lane < count; ++lane) {
    hits[lane] = valid[lane] != 0 && packet.hit.geomID[lane] != embree::kInvalidId
                     ? winner(queries[lane], packet.hit.primID[lane], packet.hit.u[lane],
                              packet.hit.v[lane], packet.ray.tfar[lane], lane, thread, fp_state)
                     : RayHit{};
  }
}

RayHit CpuTracer::winner(const RayQuery& query, std::uint32_t primitive, float u, float v, float t,
                         unsigned lane, ThreadState& thread, std::uint32_t fp_state) const {
  const LaneCache& cache = thread.lanes[lane];
  RefinedHit refined;
  if (refine_cache_ && cache.cached && cache.primitive == primitive &&
      cache.u_bits == std::bit_cast<std::uint32_t>(u) &&
      cache.v_bits == std::bit_cast<std::uint32_t>(v) &&
      cache.t_bits == std::bit_cast<std::uint32_t>(t) && cache.fp_state == fp_state) {
    bump(thread.cache_hits);
    refined = cache.refined;
  } else {
    if (refine_cache_) {
      bump(thread.cache_misses);
    }
    refined = refine(corners_[primitive], query, u, v, t);
    bump(thread.refines);
  }
  return {static_cast<std::int32_t>(order_[primitive]), refined.u, refined.v, refined.t};
}

void CpuTracer::trace_batch(const RayQuery* queries, RayHit* hits, std::uint64_t count,
                            const WorkerPool& pool) const {
  trace_packets(queries, hits, count, pool, true);
}

void CpuTracer::trace_fanned_batch(const RayQuery* queries, RayHit* hits, std::uint64_t count,
                                   const WorkerPool& pool) const {
  trace_packets(queries, hits, count, pool, false);
}

void CpuTracer::trace_packets(const RayQuery* queries, RayHit* hits, std::uint64_t count,
                              const WorkerPool& pool, bool coherent) const {
  pool.for_chunks(
      count, kBatchTask, [&](std::uint64_t /*task*/, std::uint64_t begin, std::uint64_t end) {
        // Nothing a task runs changes the thread or the floating-point control state.
        ThreadState& thread = thread_state();
        const std::uint32_t fp_state = fp_control_state();
        // Packets start at fixed offsets of the batch, so each ray meets the
        // same neighbours on any thread count.
        for (std::uint64_t i = begin; i < end; i += kTraceGroup) {
          const auto lanes = static_cast<unsigned>(std::min<std::uint64_t>(kTraceGroup, end - i));
          trace_packet(queries + i, hits + i, lanes, thread, fp_state, coherent);
        }
      });
}

namespace {

// Up to eight occlusion queries in one packet; a query that sees nothing
// (see OcclusionQuery) gets no lane and answers 0.
void occluded_packet(embree::Scene scene, const OcclusionQuery* queries, std::uint8_t* occluded,
                     unsigned count) {
  alignas(32) int valid[embree::kPacketLanes];
  alignas(32) embree::Ray8 packet;
  bool any = false;
  for (unsigned lane = 0; lane < embree::kPacketLanes; ++lane) {
    // Unused lanes get harmless values: Embree loads whole vectors.
    static constexpr float kNowhere[3] = {0.0f, 0.0f, 0.0f};
    static constexpr float kUp[3] = {0.0f, 0.0f, 1.0f};
    const OcclusionQuery* q = lane < count ? &queries[lane] : nullptr;
    const bool cast = q != nullptr && q->t_near >= 0.0f && q->t_far >= q->t_near;
    valid[lane] = cast ? -1 : 0;
    if (cast) {
      embree::set_packet_segment(packet, lane, q->origin.data(), q->direction.data(), q->t_near,
                                 q->t_far);
      any = true;
    } else {
      embree::set_packet_segment(packet, lane, kNowhere, kUp, 0.0f, 0.0f);
    }
  }
  if (any) {
    embree::occluded8(valid, scene, &packet);
  }
  for (unsigned lane = 0; lane < count; ++lane) {
    occluded[lane] = valid[lane] != 0 && embree::occluded_lane(packet, lane) ? 1 : 0;
  }
}

}  // namespace

void CpuTracer::occluded_batch(const OcclusionQuery* queries, std::uint8_t* occluded,
                               std::uint64_t count, const WorkerPool& pool) const {
  // No filter runs for occlusion rays: any triangle along the segment counts,
  // whichever order the packet meets them in.
  const auto scene = static_cast<embree::Scene>(scene_);
  pool.for_chunks(count, kBatchTask, [&](std::uint64_t, std::uint64_t begin, std::uint64_t end) {
    for (std::uint64_t i = begin; i < end; i += embree::kPacketLanes) {
      const auto lanes =
          static_cast<unsigned>(std::min<std::uint64_t>(embree::kPacketLanes, end - i));
      occluded_packet(scene, queries + i, occluded + i, lanes);
    }
  });
}

bool CpuTracer::occluded(const OcclusionQuery& q) const {
  return q.t_near >= 0.0f && q.t_far >= q.t_near &&
         embree::occluded1(static_cast<embree::Scene>(scene_), q.origin.data(), q.direction.data(),
                           q.t_near, q.t_far);
}

bool CpuTracer::check_known_hit(const RayQuery& query, RayHit& hit) const {
  if (hit.triangle < 0 || static_cast<std::uint64_t>(hit.triangle) >= high_.triangles.size()) {
    return false;
  }
  const auto triangle = static_cast<std::uint32_t>(hit.triangle);
  const CornerPositions corners = corners_of(high_, triangle);
  const RefinedHit refined = refine(corners, query, hit.u, hit.v, hit.t);
  if (!in_window(corners, query, refined) || !group_allows(name_groups_, query, triangle)) {
    return false;
  }
  hit.u = refined.u;
  hit.v = refined.v;
  hit.t = refined.t;
  return true;
}

// ---- build with retry ------------------------------------------------------------

std::unique_ptr<CpuTracer> build_with_compact_retry(
    const std::function<std::unique_ptr<CpuTracer>(const CpuTracerOptions&)>& build,
    bool* retried_compact, const std::function<void(std::string_view)>& memory_trace) {
  try {
    return build(CpuTracerOptions{});
  } catch (const OutOfMemory&) {
    if (memory_trace) {
      memory_trace("embree.retry_compact");
    }
    if (retried_compact != nullptr) {
      *retried_compact = true;
    }
  }
  CpuTracerOptions compact;
  compact.compact = true;
  return build(compact);
}

std::unique_ptr<CpuTracer> build_cpu_tracer_with_retry(
    const Mesh& high, std::vector<std::uint32_t> name_groups, int threads, bool* retried_compact,
    const std::function<void(std::string_view)>& memory_trace) {
  return build_with_compact_retry(
      [&](const CpuTracerOptions& options) {
        return std::make_unique<CpuTracer>(high, name_groups, options, threads);
      },
      retried_compact, memory_trace);
}

// ---- the low mesh's scene ------------------------------------------------------------

LowMeshScene::LowMeshScene(const Mesh& low) {
  check_position_indices(low, "low");
  auto device = embree::new_device(nullptr);
  if (device == nullptr) {
    throw Error("Embree could not start");
  }
  device_ = device;
  try {
    auto scene = embree::new_plain_scene(device);
    if (scene == nullptr) {
      throw Error("Embree could not build the low poly scene");
    }
    scene_ = scene;
    if (!low.triangles.empty()) {
      auto geometry = embree::new_triangle_geometry(device);
      if (geometry == nullptr) {
        throw OutOfMemory("out of memory for the low poly scene");
      }
      if (!fill_triangle_buffers(geometry, low, WorkerPool(1))) {
        embree::release_geometry(geometry);
        throw OutOfMemory("out of memory for the low poly scene");
      }
      embree::commit_geometry(geometry);
      embree::attach_geometry(scene, geometry);
      embree::release_geometry(geometry);
    }
    embree::commit_scene(scene);
    const RTCError error = embree::device_error(device);
    if (error == RTC_ERROR_OUT_OF_MEMORY) {
      throw OutOfMemory("out of memory for the low poly scene");
    }
    if (error != RTC_ERROR_NONE) {
      throw Error("Embree could not build the low poly scene");
    }
  } catch (...) {
    release();
    throw;
  }
}

LowMeshScene::~LowMeshScene() {
  release();
}

void LowMeshScene::release() {
  release_scene_and_device(scene_, device_);
}

RayHit LowMeshScene::intersect(const std::array<float, 3>& origin,
                               const std::array<float, 3>& direction, float t_near,
                               float t_far) const {
  RTCRayHit ray = embree::make_ray(origin.data(), direction.data(), t_far);
  ray.ray.tnear = t_near;
  embree::intersect1(static_cast<embree::Scene>(scene_), &ray);
  if (ray.hit.geomID == embree::kInvalidId) {
    return {};
  }
  return {static_cast<std::int32_t>(ray.hit.primID), ray.hit.u, ray.hit.v, ray.ray.tfar};
}

}  // namespace kv
