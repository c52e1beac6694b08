// memory.estimate and the out-of-memory refusal of jobs.
#include <algorithm>

#include "platform/platform.h"
#include "service/memory_estimate.h"
#include "service/protocol_error.h"
#include "service/request_rules.h"
#include "service/service.h"

namespace kv::service {
namespace {

constexpr std::uint64_t kMiB = 1048576;
constexpr std::uint64_t kTiB = 1099511627776ull;
constexpr std::uint64_t kMaxHighTriangles = 4294967296ull;
constexpr std::uint64_t kMaxSize = 65536;

std::uint64_t whole_mib_up(std::uint64_t bytes) {
  return (bytes + kMiB - 1) / kMiB;
}

// "size": one edge of a square map, or a list of 1 to 64 of them (tiles
// baked together); every edge 1 to 65536 texels.
std::vector<std::uint64_t> read_sizes(const FieldReader& fields) {
  const Json& value = fields.at("size");
  if (!value.is_array()) {
    const std::uint64_t size = fields.non_negative(value, "size");
    if (size == 0 || size > kMaxSize) {
      fields.fail("size", "sizes must be whole numbers from 1 to 65536");
    }
    return {size};
  }
  if (value.empty() || value.size() > 64) {
    fields.fail("size", "must be a list of 1 to 64 sizes");
  }
  std::vector<std::uint64_t> sizes;
  for (const Json& element : value) {
    if (!element.is_number_unsigned() || element.get<std::uint64_t>() == 0 ||
        element.get<std::uint64_t>() > kMaxSize) {
      fields.fail("size", "sizes must be whole numbers from 1 to 65536");
    }
    sizes.push_back(element.get<std::uint64_t>());
  }
  return sizes;
}

// Each texture of a transfer's estimate fills an output of its own with its
// channels and type, with a mask; 8- and 16-bit outputs and the masks are
// priced as PNG files, the costlier write.
std::vector<OutputShape> priced_outputs(const std::vector<TextureShape>& textures) {
  std::vector<OutputShape> outputs;
  for (const TextureShape& texture : textures) {
    OutputShape output;
    output.channels = texture.channels;
    output.component_bytes = texture.component_bytes;
    output.png = texture.png_file_bytes != 0;
    output.mask = true;
    output.mask_png = true;
    outputs.push_back(output);
  }
  return outputs;
}

}  // namespace

std::string Service::out_of_memory_message(const std::string& op, std::uint64_t need_bytes) const {
  return op + ": not enough memory: the job needs " + std::to_string(whole_mib_up(need_bytes)) +
         " MiB and the memory budget is " + std::to_string(budget_bytes_ / kMiB) + " MiB";
}

Json Service::out_of_memory_fields(std::uint64_t need_bytes) const {
  Json f = Json::object();
  f["code"] = "out_of_memory";
  f["need_mb"] = whole_mib_up(need_bytes);
  f["limit_mb"] = budget_bytes_ / kMiB;
  f["available_mb"] = platform::memory_available_bytes() / kMiB;
  return f;
}

void Service::refuse_over_budget(Job& job, const JobShape& shape) const {
  const MemoryEstimate estimate = estimate_job_memory(shape);
  job.need_bytes = estimate.total_bytes;
  if (budget_bytes_ == 0) {
    return;
  }
  if (estimate.total_bytes > budget_bytes_) {
    throw ProtocolError(job.id, out_of_memory_message(job.op, estimate.total_bytes),
                        out_of_memory_fields(estimate.total_bytes));
  }
}

std::uint64_t Service::estimate_high_triangles(const FieldReader& fields) const {
  if (fields.has("high") && fields.has("high_triangles")) {
    fields.fail("high", "give high keys or high_triangles, not both");
  }
  std::uint64_t high_triangles = 0;
  if (fields.has("high_triangles")) {
    high_triangles = fields.non_negative("high_triangles");
    if (high_triangles > kMaxHighTriangles) {
      fields.fail("high_triangles", "at most 4294967296");
    }
    return high_triangles;
  }
  for (const std::string& key : read_keys(fields, "high")) {
    const auto stored = meshes_.find(key);
    if (!stored) {
      fields.fail("high", "no mesh is loaded under the key \"" + key + "\"");
    }
    high_triangles += stored->mesh->triangles.size();
  }
  return high_triangles;
}

Json Service::memory_estimate(const FieldReader& fields) {
  const std::vector<std::uint64_t> sizes = read_sizes(fields);
  const std::uint32_t antialias = read_antialias(fields);
  std::vector<std::string> maps = read_maps(fields);
  const bool gpu = read_backend_is_gpu(fields);
  const std::uint64_t high_triangles = estimate_high_triangles(fields);
  const auto transfer = std::remove(maps.begin(), maps.end(), kTransferMap);
  std::vector<TextureShape> textures;
  std::vector<OutputShape> outputs;
  if (transfer != maps.end()) {
    if (!fields.has("textures")) {
      fields.fail_request("missing field \"textures\"");
    }
    textures = read_estimate_textures(fields);
    outputs = priced_outputs(textures);
    maps.erase(transfer, maps.end());
  } else if (fields.has("textures")) {
    fields.fail("textures", "only a transfer reads textures");
  }
  MemoryEstimate total{};
  for (const std::uint64_t size : sizes) {
    JobShape shape{};
    shape.width = shape.height = static_cast<std::uint32_t>(size);
    shape.antialias = antialias;
    shape.maps = maps;
    shape.gpu = gpu;
    shape.high_triangles = high_triangles;
    shape.textures = textures;
    shape.outputs = outputs;
    shape.source_triangles = outputs.empty() ? 0 : high_triangles;
    const MemoryEstimate one = estimate_job_memory(shape);
    total.texel_bytes += one.texel_bytes;
    total.texture_bytes += one.texture_bytes;
    // The meshes are shared by every tile.
    total.mesh_bytes = std::max(total.mesh_bytes, one.mesh_bytes);
    total.total_bytes += one.total_bytes - one.mesh_bytes;
  }
  total.total_bytes += total.mesh_bytes;
  if (total.total_bytes > kTiB) {
    fields.fail("size", "at most 1 TiB");
  }
  Json f = Json::object();
  f["bytes"] = total.total_bytes;
  f["texel_bytes"] = total.texel_bytes;
  f["texture_bytes"] = total.texture_bytes;
  f["mesh_bytes"] = total.mesh_bytes;
  f["need_mb"] = whole_mib_up(total.total_bytes);
  f["limit_mb"] = budget_bytes_ / kMiB;
  f["available_mb"] = platform::memory_available_bytes() / kMiB;
  f["fits"] = budget_bytes_ == 0 || total.total_bytes <= budget_bytes_;
  return f;
}

}  // namespace kv::service
