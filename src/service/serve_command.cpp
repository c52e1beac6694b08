#include "service/serve_command.h"

#include "core/error.h"

namespace kv::service {

int serve_command(const std::vector<std::string>& /*args*/) {
  throw Error("korvane serve is not built yet");
}

}  // namespace kv::service
