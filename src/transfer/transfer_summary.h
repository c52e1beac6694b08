// The summary of a finished transfer, as a JSON object; its compact dump is
// the line that ends the command's stdout (and the --report file).
#pragma once

#include <string>
#include <vector>

#include "core/json_line.h"
#include "transfer/transfer_modes.h"
#include "transfer/transfer_outputs.h"
#include "transfer/transfer_settings.h"

namespace kv::transfer {

struct TransferSeconds {
  double load = 0.0;  // meshes and textures
  double setup = 0.0;
  double bvh = 0.0;
  double transfer = 0.0;
  double padding = 0.0;
  double write = 0.0;
  double total = 0.0;
};

struct TransferResult {
  ModeRun run;
  std::vector<const TexelImage*> outputs;  // the output images, for their shape
  std::vector<PaddedCount> padded;
  std::string gpu_unavailable;  // why the GPU did not run, under --backend auto
  std::uint64_t target_triangles = 0;
  std::uint64_t source_triangles = 0;
  TransferSeconds seconds;
};

Json transfer_summary_json(const TransferSettings& settings, const TransferResult& result);

}  // namespace kv::transfer
