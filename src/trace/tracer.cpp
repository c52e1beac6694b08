#include "trace/tracer.h"

#include "core/error.h"

namespace kv {

RayHit Tracer::trace_excluding(const RayQuery& /*query*/, std::int32_t /*excluded*/) const {
  throw Error("tracer does not support secondary self exclusion");
}

void Tracer::occluded_batch(const OcclusionQuery* /*queries*/, std::uint8_t* /*occluded*/,
                            std::uint64_t /*count*/, const WorkerPool& /*pool*/) const {
  throw Error("tracer does not support occlusion queries");
}

}  // namespace kv
