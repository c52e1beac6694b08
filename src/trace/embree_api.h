// The program's one door to the Embree library. Every Embree call of the
// program goes through the functions below, written against the Embree 4
// interface; when only Embree 3 is installed they map to its equivalents
// (an intersection context in place of the ray-query context and the
// optional intersect arguments). Filters are attached to the geometry, never
// passed in the arguments, so no argument-filter scene flag is needed.
#pragma once

#if __has_include(<embree4/rtcore.h>)
#include <embree4/rtcore.h>
#else
#include <embree3/rtcore.h>
#endif

// Embree may be built with its interface inside a namespace.
RTC_NAMESPACE_USE

#include <cstddef>
#include <cstdint>

namespace kv::embree {

using Device = RTCDevice;
using Scene = RTCScene;
using Geometry = RTCGeometry;
using FilterArguments = RTCFilterFunctionNArguments;
using FilterFunction = RTCFilterFunctionN;
using ErrorFunction = RTCErrorFunction;
using MemoryMonitorFunction = RTCMemoryMonitorFunction;

inline constexpr unsigned kInvalidId = RTC_INVALID_GEOMETRY_ID;

// The per-ray context handed to filter functions. Callers embed it as the
// first member of their own record and find the record again from the
// filter's context pointer.
#if RTC_VERSION_MAJOR >= 4
using RayQueryContext = RTCRayQueryContext;
inline void init_context(RayQueryContext* context) {
  rtcInitRayQueryContext(context);
}
#else
using RayQueryContext = RTCIntersectContext;
inline void init_context(RayQueryContext* context) {
  rtcInitIntersectContext(context);
}
#endif

// ---- device ----------------------------------------------------------------

inline Device new_device(const char* config) {
  return rtcNewDevice(config);
}
inline void release_device(Device device) {
  rtcReleaseDevice(device);
}
inline RTCError device_error(Device device) {
  return rtcGetDeviceError(device);
}
inline std::int64_t device_version(Device device) {
  return static_cast<std::int64_t>(rtcGetDeviceProperty(device, RTC_DEVICE_PROPERTY_VERSION));
}
inline void set_error_function(Device device, ErrorFunction fn, void* user) {
  rtcSetDeviceErrorFunction(device, fn, user);
}
inline void set_memory_monitor(Device device, MemoryMonitorFunction fn, void* user) {
  rtcSetDeviceMemoryMonitorFunction(device, fn, user);
}

// ---- scene -------------------------------------------------------------------

struct SceneOptions {
  bool compact = false;
  bool low_quality = false;
};

// A scene with the program's flags: always robust, compact on request.
inline Scene new_scene(Device device, const SceneOptions& options) {
  Scene scene = rtcNewScene(device);
  if (scene == nullptr) {
    return nullptr;
  }
  int flags = RTC_SCENE_FLAG_ROBUST;
  if (options.compact) {
    flags |= RTC_SCENE_FLAG_COMPACT;
  }
  rtcSetSceneFlags(scene, static_cast<RTCSceneFlags>(flags));
  if (options.low_quality) {
    rtcSetSceneBuildQuality(scene, RTC_BUILD_QUALITY_LOW);
  }
  return scene;
}
// A scene with no flags and the default build quality.
inline Scene new_plain_scene(Device device) {
  return rtcNewScene(device);
}
inline void release_scene(Scene scene) {
  rtcReleaseScene(scene);
}
inline void commit_scene(Scene scene) {
  rtcCommitScene(scene);
}
inline unsigned attach_geometry(Scene scene, Geometry geometry) {
  return rtcAttachGeometry(scene, geometry);
}

// ---- triangle geometry -------------------------------------------------------------

inline Geometry new_triangle_geometry(Device device) {
  return rtcNewGeometry(device, RTC_GEOMETRY_TYPE_TRIANGLE);
}
inline void release_geometry(Geometry geometry) {
  rtcReleaseGeometry(geometry);
}
inline void commit_geometry(Geometry geometry) {
  rtcCommitGeometry(geometry);
}

// Float triples with stride 12; nullptr when Embree could not allocate.
inline float* new_vertex_buffer(Geometry geometry, std::size_t count) {
  return static_cast<float*>(
      rtcSetNewGeometryBuffer(geometry, RTC_BUFFER_TYPE_VERTEX, 0, RTC_FORMAT_FLOAT3, 12, count));
}
// Unsigned 32-bit triples with stride 12; nullptr when Embree could not allocate.
inline std::uint32_t* new_index_buffer(Geometry geometry, std::size_t count) {
  return static_cast<std::uint32_t*>(
      rtcSetNewGeometryBuffer(geometry, RTC_BUFFER_TYPE_INDEX, 0, RTC_FORMAT_UINT3, 12, count));
}

// The filter runs for every candidate hit of the geometry (intersect queries).
inline void set_intersect_filter(Geometry geometry, FilterFunction filter, void* user) {
  rtcSetGeometryUserData(geometry, user);
  rtcSetGeometryIntersectFilterFunction(geometry, filter);
}

// ---- rays --------------------------------------------------------------------

// A single ray with tnear 0, every mask bit set and no hit yet.
inline RTCRayHit make_ray(const float origin[3], const float direction[3], float t_far) {
  RTCRayHit r{};
  r.ray.org_x = origin[0];
  r.ray.org_y = origin[1];
  r.ray.org_z = origin[2];
  r.ray.tnear = 0.0f;
  r.ray.dir_x = direction[0];
  r.ray.dir_y = direction[1];
  r.ray.dir_z = direction[2];
  r.ray.time = 0.0f;
  r.ray.tfar = t_far;
  r.ray.mask = 0xFFFFFFFFu;
  r.ray.id = 0;
  r.ray.flags = 0;
  r.hit.geomID = kInvalidId;
  r.hit.primID = kInvalidId;
  r.hit.instID[0] = kInvalidId;
  return r;
}

// Closest hit, with the geometry filters seeing `context`.
inline void intersect1(Scene scene, RayQueryContext* context, RTCRayHit* rayhit) {
#if RTC_VERSION_MAJOR >= 4
  RTCIntersectArguments args;
  rtcInitIntersectArguments(&args);
  args.context = context;
  rtcIntersect1(scene, rayhit, &args);
#else
  rtcIntersect1(scene, context, rayhit);
#endif
}

// Closest hit with a default context.
inline void intersect1(Scene scene, RTCRayHit* rayhit) {
#if RTC_VERSION_MAJOR >= 4
  rtcIntersect1(scene, rayhit, nullptr);
#else
  RTCIntersectContext context;
  rtcInitIntersectContext(&context);
  rtcIntersect1(scene, &context, rayhit);
#endif
}

// True when any geometry lies along the ray within [t_near, t_far].
inline bool occluded1(Scene scene, const float origin[3], const float direction[3], float t_near,
                      float t_far) {
  RTCRay ray = make_ray(origin, direction, t_far).ray;
  ray.tnear = t_near;
#if RTC_VERSION_MAJOR >= 4
  rtcOccluded1(scene, &ray, nullptr);
#else
  RTCIntersectContext context;
  rtcInitIntersectContext(&context);
  rtcOccluded1(scene, &context, &ray);
#endif
  // Embree marks an occluded ray by setting tfar to minus infinity.
  return !(ray.tfar >= 0.0f);
}

// ---- packets of eight rays ---------------------------------------------------

inline constexpr unsigned kPacketLanes = 8;
using RayHit8 = RTCRayHit8;

// Lane `lane` of a packet: tnear 0, every mask bit set, no hit yet, and the
// id the filter finds the lane's own data by.
inline void set_packet_ray(RayHit8& packet, unsigned lane, const float origin[3],
                           const float direction[3], float t_far, unsigned id) {
  packet.ray.org_x[lane] = origin[0];
  packet.ray.org_y[lane] = origin[1];
  packet.ray.org_z[lane] = origin[2];
  packet.ray.tnear[lane] = 0.0f;
  packet.ray.dir_x[lane] = direction[0];
  packet.ray.dir_y[lane] = direction[1];
  packet.ray.dir_z[lane] = direction[2];
  packet.ray.time[lane] = 0.0f;
  packet.ray.tfar[lane] = t_far;
  packet.ray.mask[lane] = 0xFFFFFFFFu;
  packet.ray.id[lane] = id;
  packet.ray.flags[lane] = 0;
  packet.hit.geomID[lane] = kInvalidId;
  packet.hit.primID[lane] = kInvalidId;
  packet.hit.instID[0][lane] = kInvalidId;
}

// How the rays of a packet run. Coherent: side by side, as the primary rays
// of neighbouring texels; without that hint Embree traces such a packet no
// faster than its rays one by one. Incoherent: fanned out from one point, as
// secondary rays; Embree then follows each ray alone where their paths part.
enum class Coherence { coherent, incoherent };

// Closest hits of the lanes whose valid entry is -1 (0: lane unused), with
// the geometry filters seeing `context`.
inline void intersect8(const int* valid, Scene scene, RayQueryContext* context, RayHit8* packet,
                       Coherence coherence) {
  const bool coherent = coherence == Coherence::coherent;
#if RTC_VERSION_MAJOR >= 4
  RTCIntersectArguments args;
  rtcInitIntersectArguments(&args);
  args.flags = coherent ? RTC_RAY_QUERY_FLAG_COHERENT : RTC_RAY_QUERY_FLAG_INCOHERENT;
  args.context = context;
  rtcIntersect8(valid, scene, packet, &args);
#else
  context->flags =
      coherent ? RTC_INTERSECT_CONTEXT_FLAG_COHERENT : RTC_INTERSECT_CONTEXT_FLAG_INCOHERENT;
  rtcIntersect8(valid, scene, context, packet);
#endif
}

using Ray8 = RTCRay8;

// Lane `lane` of an occlusion packet: every mask bit set, distances
// [t_near, t_far].
inline void set_packet_segment(Ray8& packet, unsigned lane, const float origin[3],
                               const float direction[3], float t_near, float t_far) {
  packet.org_x[lane] = origin[0];
  packet.org_y[lane] = origin[1];
  packet.org_z[lane] = origin[2];
  packet.tnear[lane] = t_near;
  packet.dir_x[lane] = direction[0];
  packet.dir_y[lane] = direction[1];
  packet.dir_z[lane] = direction[2];
  packet.time[lane] = 0.0f;
  packet.tfar[lane] = t_far;
  packet.mask[lane] = 0xFFFFFFFFu;
  packet.id[lane] = lane;
  packet.flags[lane] = 0;
}

// Occlusion of the valid lanes (-1; 0: unused) with a default context, the
// rays declared incoherent; afterwards occluded_lane tells each lane's answer.
inline void occluded8(const int* valid, Scene scene, Ray8* packet) {
#if RTC_VERSION_MAJOR >= 4
  RTCOccludedArguments args;
  rtcInitOccludedArguments(&args);
  args.flags = RTC_RAY_QUERY_FLAG_INCOHERENT;
  rtcOccluded8(valid, scene, packet, &args);
#else
  RTCIntersectContext context;
  rtcInitIntersectContext(&context);
  context.flags = RTC_INTERSECT_CONTEXT_FLAG_INCOHERENT;
  rtcOccluded8(valid, scene, &context, packet);
#endif
}
// Embree marks an occluded ray by setting tfar to minus infinity.
inline bool occluded_lane(const Ray8& packet, unsigned lane) {
  return !(packet.tfar[lane] >= 0.0f);
}

// ---- inside a filter function ----------------------------------------------

inline unsigned filter_lane_count(const FilterArguments* args) {
  return args->N;
}
inline bool filter_lane_valid(const FilterArguments* args, unsigned i) {
  return args->valid[i] != 0;
}
inline void filter_refuse(const FilterArguments* args, unsigned i) {
  args->valid[i] = 0;
}
inline RayQueryContext* filter_context(const FilterArguments* args) {
  return args->context;
}
inline void* filter_user(const FilterArguments* args) {
  return args->geometryUserPtr;
}
// The id the caller gave the ray: filters may see a packet's lanes in any
// grouping, so the id, not the lane, names the ray.
inline unsigned filter_ray_id(const FilterArguments* args, unsigned i) {
  return RTCRayN_id(args->ray, args->N, i);
}
inline unsigned filter_prim_id(const FilterArguments* args, unsigned i) {
  return RTCHitN_primID(args->hit, args->N, i);
}
inline float filter_u(const FilterArguments* args, unsigned i) {
  return RTCHitN_u(args->hit, args->N, i);
}
inline float filter_v(const FilterArguments* args, unsigned i) {
  return RTCHitN_v(args->hit, args->N, i);
}
// The candidate's distance: Embree has stored it in the ray's tfar.
inline float filter_t(const FilterArguments* args, unsigned i) {
  return RTCRayN_tfar(args->ray, args->N, i);
}

}  // namespace kv::embree
