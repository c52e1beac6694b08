#include "limit/plain_embree.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "normal/normal_bake.h"
#include "sampling/ray_setup.h"
#include "texel/low_prep.h"

namespace kv::bench {

PlainEmbree::PlainEmbree(const Mesh& mesh, int threads) {
  const std::string config = "threads=" + std::to_string(threads);
  device_ = embree::new_device(config.c_str());
  scene_ = embree::new_scene(device_, {});
  auto geometry = embree::new_triangle_geometry(device_);
  float* vertices = embree::new_vertex_buffer(geometry, mesh.positions.size());
  std::uint32_t* indices = embree::new_index_buffer(geometry, mesh.triangles.size());
  if (vertices == nullptr || indices == nullptr) {
    std::fprintf(stderr, "plain Embree: buffers could not be allocated\n");
    std::exit(1);
  }
  std::memcpy(vertices, mesh.positions.data(), mesh.positions.size() * 12);
  for (std::size_t i = 0; i < mesh.triangles.size(); ++i) {
    for (std::size_t k = 0; k < 3; ++k) {
      indices[3 * i + k] = mesh.triangles[i].corners[k].position;
    }
  }
  embree::commit_geometry(geometry);
  embree::attach_geometry(scene_, geometry);
  embree::release_geometry(geometry);
  embree::commit_scene(scene_);
}

PlainEmbree::~PlainEmbree() {
  embree::release_scene(scene_);
  embree::release_device(device_);
}

std::uint64_t PlainEmbree::trace(const std::vector<RayQuery>& queries,
                                 const WorkerPool& pool) const {
  const std::vector<std::uint64_t> hits = pool.map_chunks<std::uint64_t>(
      queries.size(), 1024, [&](std::uint64_t begin, std::uint64_t end) {
        std::uint64_t n = 0;
        for (std::uint64_t i = begin; i < end; ++i) {
          const RayQuery& q = queries[i];
          RTCRayHit ray = embree::make_ray(q.origin.data(), q.direction.data(), q.t_max);
          embree::intersect1(scene_, &ray);
          n += ray.hit.geomID != embree::kInvalidId ? 1 : 0;
        }
        return n;
      });
  std::uint64_t total = 0;
  for (const std::uint64_t n : hits) {
    total += n;
  }
  return total;
}

PlainRun plain_trace(const Mesh& low, const Mesh& high, const NormalBakeSettings& settings,
                     const PlainEmbree& plain, const WorkerPool& pool) {
  const LowPrep prep = LowPrep::build(low, {}, low_prep_settings_of(settings));
  RaySetup setup;
  setup.low = &low;
  setup.averaged_normals = prep.averaged_normals();
  setup.distances = ray_distances(high, settings.front, settings.rear, settings.relative_scale);
  setup.ignore_backface = settings.ignore_backface;
  const std::int32_t aa = settings.aa;
  const std::int64_t sample_width = static_cast<std::int64_t>(settings.width) * aa;
  const std::int64_t sample_height = static_cast<std::int64_t>(settings.height) * aa;
  const std::int64_t band = std::max<std::int64_t>(1, 1048576 / sample_width);
  PlainRun run;
  std::vector<RayQuery> queries;
  for (std::int64_t y0 = 0; y0 < sample_height; y0 += band) {
    const std::int64_t y1 = std::min(sample_height, y0 + band);
    queries.clear();
    for (std::int64_t sy = y0; sy < y1; ++sy) {
      for (std::int64_t sx = 0; sx < sample_width; ++sx) {
        const RasterHit hit = prep.raster().lookup(sx, sy, aa);
        RayQuery q;
        if (hit.triangle >= 0 &&
            build_ray_query(setup, static_cast<std::uint32_t>(hit.triangle), hit.b1, hit.b2, q)) {
          queries.push_back(q);
        }
      }
    }
    const auto start = std::chrono::steady_clock::now();
    run.hits += plain.trace(queries, pool);
    run.seconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    run.rays += queries.size();
  }
  return run;
}

}  // namespace kv::bench
