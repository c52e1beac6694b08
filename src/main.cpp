// korvane: wires the commands together and hands over to the process entry.
#include "cli/process_entry.h"
#include "meshmaps/meshmaps_command.h"
#include "service/serve_command.h"
#include "transfer/transfer_command.h"

int main(int argc, char** argv) {
  const kv::cli::Commands commands{
      kv::service::serve_command,
      kv::transfer::transfer_command,
      kv::meshmaps::meshmaps_command,
  };
  return kv::cli::process_entry(argc, argv, commands);
}
