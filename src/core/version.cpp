#include "core/version.h"

#include "kv_version.h"

namespace kv {

const char* version() {
  return KV_VERSION;
}

}  // namespace kv
