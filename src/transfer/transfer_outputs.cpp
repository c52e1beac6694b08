#include "transfer/transfer_outputs.h"

#include <algorithm>
#include <span>
#include <string>

#include "core/error.h"
#include "padding/padding.h"
#include "transfer/texture_bindings.h"
#include "transfer/texture_io.h"

namespace kv::transfer {
namespace {

const TexelImage* keep(PreparedOutputs& prepared, TexelImage image) {
  prepared.textures.push_back(std::make_unique<TexelImage>(std::move(image)));
  return prepared.textures.back().get();
}

void require_same_shape(const TexelImage& a, const TexelImage& b) {
  if (a.channels != b.channels || a.type != b.type) {
    throw Error("transfer: the textures of one output must share channel count and component type");
  }
}

// An empty image of the output's size, shaped like its textures.
TexelImage empty_output(const TransferSettings& s, const TexelImage& shape) {
  TexelImage image;
  image.width = s.width;
  image.height = s.height;
  image.channels = shape.channels;
  image.type = shape.type;
  image.data.assign(image.expected_bytes(), 0);
  return image;
}

std::uint64_t count_set(std::span<const std::uint8_t> mask) {
  return static_cast<std::uint64_t>(
      std::count_if(mask.begin(), mask.end(), [](std::uint8_t m) { return m != 0; }));
}

TexelImage mask_image(const OutputBuffer& buffer) {
  TexelImage mask;
  mask.width = buffer.image.width;
  mask.height = buffer.image.height;
  mask.channels = 1;
  mask.type = ComponentType::kU8;
  mask.data.resize(buffer.valid.size());
  std::transform(buffer.valid.begin(), buffer.valid.end(), mask.data.begin(),
                 [](std::uint8_t v) { return static_cast<std::uint8_t>(v != 0 ? 255 : 0); });
  return mask;
}

}  // namespace

PreparedOutputs prepare_outputs(const TransferSettings& settings, const Mesh& source) {
  PreparedOutputs prepared;
  for (const OutputRequest& request : settings.outputs) {
    OutputBuffer buffer;
    for (const TextureRequest& texture : request.textures) {
      const TexelImage* image = keep(prepared, load_texture(texture.where));
      SourceTexture reader(image);
      for (const SourceTile& tile : texture.tiles) {
        const TexelImage* tile_image = keep(prepared, load_texture(tile.where));
        require_same_shape(*image, *tile_image);
        reader.add_tile(tile.tile, tile_image);
      }
      if (!buffer.textures.empty()) {
        require_same_shape(buffer.textures.front().image(), *image);
      }
      buffer.textures.push_back(std::move(reader));
    }
    buffer.texture_of = bind_textures(source, request, settings.mode);
    buffer.image = empty_output(settings, buffer.textures.front().image());
    check_output_place(request.where, buffer.image);
    if (!request.mask.empty()) {
      TexelImage mask_shape = buffer.image;
      mask_shape.channels = 1;
      mask_shape.type = ComponentType::kU8;
      mask_shape.data.clear();
      check_output_place(request.mask, mask_shape);
    }
    buffer.valid.assign(
        static_cast<std::size_t>(settings.width) * static_cast<std::size_t>(settings.height), 0);
    prepared.buffers.push_back(std::move(buffer));
  }
  return prepared;
}

std::vector<PaddedCount> pad_outputs(const TransferSettings& settings,
                                     std::vector<OutputBuffer>& buffers, const WorkerPool& pool) {
  std::vector<PaddedCount> counts;
  for (std::size_t o = 0; o < buffers.size(); ++o) {
    OutputBuffer& buffer = buffers[o];
    const OutputRequest& request = settings.outputs[o];
    PaddingSettings padding;
    padding.mode = settings.padding;
    padding.width = settings.dilation;
    padding.srgb = request.srgb;
    padding.color = request.padding_color ? *request.padding_color : settings.padding_color;
    ImageView view;
    view.width = buffer.image.width;
    view.height = buffer.image.height;
    view.channels = buffer.image.channels;
    view.type = buffer.image.type;
    view.bytes = std::as_writable_bytes(std::span(buffer.image.data));
    const std::vector<std::uint8_t> after = pad_image(view, buffer.valid, padding, pool);
    const std::uint64_t valid = count_set(buffer.valid);
    counts.push_back({valid, count_set(after) - valid});
  }
  return counts;
}

void write_outputs(const TransferSettings& settings, const std::vector<OutputBuffer>& buffers) {
  for (std::size_t o = 0; o < buffers.size(); ++o) {
    store_image(settings.outputs[o].where, buffers[o].image, settings.threads);
  }
  for (std::size_t o = 0; o < buffers.size(); ++o) {
    if (!settings.outputs[o].mask.empty()) {
      store_image(settings.outputs[o].mask, mask_image(buffers[o]), settings.threads);
    }
  }
}

}  // namespace kv::transfer
