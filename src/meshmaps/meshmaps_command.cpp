#include "meshmaps/meshmaps_command.h"

#include "core/error.h"

namespace kv::meshmaps {

int meshmaps_command(const std::vector<std::string>& /*args*/) {
  throw Error("korvane meshmaps is not built yet");
}

}  // namespace kv::meshmaps
