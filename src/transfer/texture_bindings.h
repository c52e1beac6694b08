// Which texture of an output covers each source triangle: by the bindings of
// the textures (object names, material names), checked against the rules of
// one output.
#pragma once

#include <cstdint>
#include <vector>

#include "mesh/mesh.h"
#include "transfer/transfer_settings.h"

namespace kv::transfer {

// The texture index per source triangle, -1 where no texture of the output
// binds the triangle; empty when the output's single texture covers every
// triangle. Throws kv::Error "transfer: ..." for a binding the rules refuse.
std::vector<std::int16_t> bind_textures(const Mesh& source, const OutputRequest& output,
                                        TransferMode mode);

}  // namespace kv::transfer
