#include "transfer/transfer_command.h"

#include "core/error.h"

namespace kv::transfer {

int transfer_command(const std::vector<std::string>& /*args*/) {
  throw Error("korvane transfer is not built yet");
}

}  // namespace kv::transfer
