#include "transfer/transfer_modes.h"

#include <algorithm>
#include <memory>

#include "core/error.h"
#include "core/stopwatch.h"
#include "normal/normal_bake.h"
#include "sampling/band_loop.h"
#include "sampling/ray_setup.h"
#include "trace/cpu_tracer.h"

namespace kv::transfer {
namespace {

// Sub-samples per band, as the Normal bake's default, and at least this
// many bands, between which a cancel ends the run.
constexpr std::uint64_t kBandSamples = 1048576;
constexpr std::int32_t kMinBands = 16;

bool same_triangle(const Mesh& a, const Mesh& b, std::size_t t) {
  const Triangle& ta = a.triangles[t];
  const Triangle& tb = b.triangles[t];
  if (ta.object >= a.objects.size() || tb.object >= b.objects.size() ||
      a.objects[ta.object] != b.objects[tb.object]) {
    return false;
  }
  for (std::size_t k = 0; k < 3; ++k) {
    if (a.positions[ta.corners[k].position] != b.positions[tb.corners[k].position]) {
      return false;
    }
  }
  return true;
}

LowPrepSettings prep_settings(const TransferSettings& s, bool average_normals) {
  LowPrepSettings p;
  p.width = s.width;
  p.height = s.height;
  p.udim = s.udim;
  p.aa = s.aa;
  p.snap_bits = s.snap_bits;
  p.average_normals = average_normals;
  p.tangent_frames = false;  // values are copied, never turned into a tangent frame
  p.raster_materials = s.raster_materials;
  p.threads = s.threads;
  return p;
}

BandLoopSettings loop_settings(const TransferSettings& s) {
  BandLoopSettings loop;
  loop.band_rows =
      band_rows_for(band_samples_for_bands(kBandSamples, s.width, s.height, s.aa, kMinBands),
                    s.width, s.height, s.aa);
  loop.count_stacked = false;
  return loop;
}

SamplerSettings sampler_of(const TransferSettings& s) {
  return SamplerSettings{s.filter, s.address, s.weights};
}

NormalBakeSettings matching_of(const TransferSettings& s) {
  NormalBakeSettings m;
  m.match_by_name = s.match != MatchMode::always;
  m.match_objects = s.match == MatchMode::objects;
  m.low_suffix = s.low_suffix;
  m.high_suffix = s.high_suffix;
  return m;
}

}  // namespace

void check_same_surface(const Mesh& target, const Mesh& source) {
  const std::size_t common = std::min(target.triangles.size(), source.triangles.size());
  std::size_t t = 0;
  while (t < common && same_triangle(target, source, t)) {
    ++t;
  }
  if (t < common || target.triangles.size() != source.triangles.size()) {
    throw Error("transfer: the source UV mesh differs from the target at triangle " +
                std::to_string(t) + " (object, corner positions or their order)");
  }
}

void check_source_mesh(TransferMode mode, const Mesh& target, const Mesh& source) {
  if (mode == TransferMode::uv2uv) {
    check_same_surface(target, source);
  } else if (source.triangles.empty()) {
    throw Error("transfer: the high mesh has no triangles");
  }
}

std::vector<std::int64_t> raster_object_skips(const Mesh& target,
                                              const std::vector<std::string>& objects) {
  if (objects.empty()) {
    return {};
  }
  std::vector<std::uint8_t> keep(target.objects.size(), 0);
  for (const std::string& name : objects) {
    const auto found = std::find(target.objects.begin(), target.objects.end(), name);
    if (found == target.objects.end()) {
      throw Error("transfer: the target mesh has no object named '" + name + "'");
    }
    keep[static_cast<std::size_t>(found - target.objects.begin())] = 1;
  }
  std::vector<std::int64_t> skipped;
  for (std::size_t t = 0; t < target.triangles.size(); ++t) {
    const std::uint32_t object = target.triangles[t].object;
    if (object >= keep.size() || keep[object] == 0) {
      skipped.push_back(static_cast<std::int64_t>(t));
    }
  }
  return skipped;
}

ModeRun run_uv2uv(const Mesh& target, const Mesh& source_uvs, const TransferSettings& settings,
                  std::vector<OutputBuffer>& outputs, const WorkerPool& pool,
                  const BandDone& band_done) {
  ModeRun run;
  Clock::time_point start = Clock::now();
  const LowPrep prep = LowPrep::build(target, {}, prep_settings(settings, false),
                                      raster_object_skips(target, settings.raster_objects));
  run.zero_uv_area_triangles = prep.raster().degenerate_count();
  run.setup_seconds = seconds_since(start);

  start = Clock::now();
  TransferEvaluator evaluator(source_uvs, outputs, sampler_of(settings), false, nullptr);
  run_band_loop(prep, loop_settings(settings), evaluator, pool, band_done);
  run.counts = evaluator.counts();
  run.transfer_seconds = seconds_since(start);
  return run;
}

ModeRun run_m2m(const Mesh& target, const Mesh& high, const TransferSettings& settings,
                std::vector<OutputBuffer>& outputs, const WorkerPool& pool, HitDump* dump,
                const BandDone& band_done) {
  if (high.triangles.empty()) {
    throw Error("transfer: the high mesh has no triangles");
  }
  ModeRun run;
  Clock::time_point start = Clock::now();
  NameGroups groups;
  if (settings.match != MatchMode::always) {
    groups = match_name_groups(target, high, matching_of(settings),
                               settings.match == MatchMode::objects);
    run.unmatched_low_objects = groups.unmatched_low_objects;
  }
  const LowPrep prep =
      LowPrep::build(target, groups.low_objects, prep_settings(settings, settings.average_normals),
                     raster_object_skips(target, settings.raster_objects));
  run.zero_uv_area_triangles = prep.raster().degenerate_count();
  run.setup_seconds = seconds_since(start);

  start = Clock::now();
  const std::unique_ptr<CpuTracer> tracer = build_cpu_tracer_with_retry(
      high, std::move(groups.high_triangles), settings.threads, &run.retried_compact);
  run.tracer = tracer->description();
  run.bvh_seconds = seconds_since(start);

  start = Clock::now();
  BandLoopSettings loop = loop_settings(settings);
  loop.distances = ray_distances(high, settings.front, settings.rear, settings.relative_scale);
  loop.ignore_backface = settings.ignore_backface;
  TransferEvaluator evaluator(high, outputs, sampler_of(settings), true, dump);
  run_band_loop(prep, *tracer, loop, evaluator, pool, band_done);
  run.counts = evaluator.counts();
  run.transfer_seconds = seconds_since(start);
  return run;
}

}  // namespace kv::transfer
