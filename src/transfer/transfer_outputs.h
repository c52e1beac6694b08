// The outputs of a transfer: their textures read and checked before any
// work, their empty images, and after the transfer their padding, files and
// masks.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "core/parallel.h"
#include "mesh/mesh.h"
#include "transfer/transfer_evaluator.h"
#include "transfer/transfer_settings.h"

namespace kv::transfer {

struct PreparedOutputs {
  std::vector<std::unique_ptr<TexelImage>> textures;  // every texture and tile read
  std::vector<OutputBuffer> buffers;                  // one per output
};

// Reads every texture and source tile, requires the textures of an output to
// share channel count and component type, binds them to the source mesh's
// triangles and checks that each output can be stored where it goes.
PreparedOutputs prepare_outputs(const TransferSettings& settings, const Mesh& source);

// Texels an output holds after padding beyond the transferred ones.
struct PaddedCount {
  std::uint64_t valid = 0;
  std::uint64_t padded = 0;
};

// Pads every output by its settings (means in linear light for sRGB outputs).
std::vector<PaddedCount> pad_outputs(const TransferSettings& settings,
                                     std::vector<OutputBuffer>& buffers, const WorkerPool& pool);

// Writes every output and then every mask (u8, 255 on transferred texels).
void write_outputs(const TransferSettings& settings, const std::vector<OutputBuffer>& buffers);

}  // namespace kv::transfer
