#include "meshmaps/meshmaps_output.h"

#include <algorithm>

#include "core/error.h"
#include "core/parallel.h"
#include "core/stopwatch.h"
#include "image/exr.h"
#include "meshmaps/map_ranges.h"
#include "padding/padding.h"
#include "run/bake_maps.h"

namespace kv::meshmaps {
namespace {

std::uint64_t count_set(const std::vector<std::uint8_t>& mask) {
  return static_cast<std::uint64_t>(
      std::count_if(mask.begin(), mask.end(), [](std::uint8_t m) { return m != 0; }));
}

// The four raw values per texel before any range mapping: AO, thickness,
// curvature, height (R, G, B, A); 0 where no ray hit.
std::vector<float> raw_samples(const MeshMapsBuffers& b) {
  const std::size_t n = b.hit.size();
  std::vector<float> raw(n * 4, 0.0f);
  for (std::size_t i = 0; i < n; ++i) {
    if (b.hit[i] != 0) {
      raw[i * 4 + 0] = b.ao[i];
      raw[i * 4 + 1] = b.thickness[i];
      raw[i * 4 + 2] = b.curvature[i];
      raw[i * 4 + 3] = b.height_map[i];
    }
  }
  return raw;
}

struct MapCodes {
  std::int32_t channels = 1;
  std::vector<std::uint16_t> codes;
  bool pad = true;
};

MapCodes codes_of(const std::string& map, MeshMapsRun& run, const MeshMapsSettings& s) {
  MeshMapsBuffers& b = run.buffers;
  RangeDistances d;
  d.front = run.front;
  d.rear = run.rear;
  if (map == "opacity") {
    return {1, b.opacity, false};  // padding would mark the gutter opaque
  }
  if (map == "ao") {
    return {1, ao_codes(b.ao, b.hit)};
  }
  if (map == "thickness") {
    const float max = s.thickness.max * (s.thickness.absolute ? 1.0f : run.extent);
    return {1, thickness_codes(b.thickness, b.hit, s.thickness_range, max)};
  }
  if (map == "curvature") {
    return {1, curvature_codes(b.curvature, b.hit, s)};
  }
  if (map == "height") {
    return {1,
            height_codes(b.height_map, b.hit, s.height_range, d, s.height_divisor, s.low_as_high)};
  }
  if (map == "world_normal") {
    return {3, std::move(b.world_normal)};
  }
  if (map == "position") {
    return {3, std::move(b.position)};
  }
  if (map == "id") {
    return {3, std::move(b.id)};
  }
  return {3, std::move(b.bent_normals)};
}

const std::filesystem::path& path_of(const std::string& map, const MapOutputs& o) {
  if (map == "opacity")
    return o.opacity;
  if (map == "ao")
    return o.ao;
  if (map == "thickness")
    return o.thickness;
  if (map == "curvature")
    return o.curvature;
  if (map == "height")
    return o.height;
  if (map == "raw")
    return o.raw;
  if (map == "world_normal")
    return o.world_normal;
  if (map == "position")
    return o.position;
  if (map == "id")
    return o.id;
  return o.bent_normals;
}

}  // namespace

std::vector<WrittenMap> write_mesh_maps(MeshMapsRun& run, const MeshMapsSettings& s, int threads,
                                        OutputSeconds* seconds, const MapWritten& map_written) {
  const WorkerPool pool(threads);
  const std::int32_t w = run.buffers.width;
  const std::int32_t h = run.buffers.height;
  const std::uint64_t valid = count_set(run.buffers.hit);
  std::vector<WrittenMap> written;
  for (const std::string& map : s.map_order) {
    const std::filesystem::path& path = path_of(map, s.out);
    if (map == "raw") {
      Clock::time_point start = Clock::now();
      const std::vector<float> raw = raw_samples(run.buffers);
      writeExrFloat(path, w, h, 4, raw.data(), raw.size(), kExrFloat, threads);
      seconds->write += seconds_since(start);
      written.push_back({map, 0});
      if (map_written) {
        map_written(map, path);
      }
      continue;
    }
    Clock::time_point start = Clock::now();
    MapCodes c = codes_of(map, run, s);
    MapU16 image{w, h, c.channels, std::move(c.codes)};
    std::uint64_t padded = 0;
    if (c.pad && s.bake.dilation > 0) {
      padded = count_set(dilate_mean(image, run.buffers.hit, s.bake.dilation, pool)) - valid;
    }
    seconds->padding += seconds_since(start);
    start = Clock::now();
    run::write_map(path, w, h, c.channels, image.codes, threads);
    seconds->write += seconds_since(start);
    written.push_back({map, padded});
    if (map_written) {
      map_written(map, path);
    }
  }
  return written;
}

}  // namespace kv::meshmaps
