#include "trace/tracer.h"

#include "core/error.h"

namespace kv {

RayHit Tracer::trace_excluding(const RayQuery& /*query*/, std::int32_t /*excluded*/) const {
  throw Error("tracer does not support secondary self exclusion");
}

}  // namespace kv
