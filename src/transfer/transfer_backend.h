// Which backend runs a transfer. This build has no GPU transfer kernel:
// --backend auto runs on the CPU and says why, --backend gpu fails.
#pragma once

#include <string>

#include "transfer/transfer_settings.h"

namespace kv::transfer {

// The reason the GPU does not run under auto ("" for --backend cpu). Throws
// kv::Error under --backend gpu: "transfer: keeping hits needs the CPU path"
// for a hit dump, "transfer: UDIM source tiles are read on the CPU" for
// source tiles, else "transfer: the GPU backend cannot run: <why>".
std::string choose_backend(const TransferSettings& settings);

}  // namespace kv::transfer
