#include "cli/bake_run.h"

#include "core/error.h"

namespace kv::cli {

void run_bake(const NormalBakeSettings& settings) {
  check_bake_start(settings);
  throw Error("the bake driver is not built yet");
}

}  // namespace kv::cli
