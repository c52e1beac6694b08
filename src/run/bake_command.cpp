#include "run/bake_command.h"

#include <algorithm>
#include <memory>
#include <mutex>
#include <string>

#include "core/error.h"
#include "core/stopwatch.h"
#include "gpu/gpu_probe.h"
#include "image/exr.h"
#include "image/png.h"
#include "mesh/mesh_cache.h"
#include "mesh/mesh_format.h"
#include "mesh/obj_reader.h"
#include "normal/normal_bake.h"
#include "padding/padding.h"
#include "platform/platform.h"
#include "run/preview_file.h"
#include "run/run_events.h"
#include "run/run_summary.h"

namespace kv::cli {

namespace {

struct LoadedMesh {
  Mesh mesh;
  MeshStats stats;
};

MeshReadOptions read_options(const NormalBakeSettings& settings) {
  MeshReadOptions options;
  options.threads = settings.threads;
  options.quads = settings.quads == 1 ? QuadPolicy::reject : QuadPolicy::split;
  return options;
}

LoadedMesh load_input(const std::filesystem::path& path, const NormalBakeSettings& settings,
                      const MeshCacheSettings& cache) {
  CachedMeshLoad load = load_mesh_cached(path, read_options(settings), cache);
  for (const std::string& warning : load.warnings) {
    platform::write_stderr(warning);
  }
  return {std::move(load.mesh), load.stats};
}

// The cache does not keep material names; the raster filter needs them, so
// they come from the OBJ's own usemtl statements.
void restore_obj_materials(LoadedMesh& low, const NormalBakeSettings& settings) {
  if (settings.raster_materials.empty() || !low.mesh.materials.empty() ||
      sniff_mesh_format(settings.low) != MeshFormat::Obj) {
    return;
  }
  ObjReadResult fresh = read_obj(settings.low, read_options(settings));
  if (fresh.mesh.triangles.size() == low.mesh.triangles.size()) {
    low.mesh.materials = std::move(fresh.mesh.materials);
    low.mesh.triangle_materials = std::move(fresh.mesh.triangle_materials);
  }
}

// Which backend bakes, as far as this build can tell.
struct BackendChoice {
  std::string gpu_unavailable;
};

BackendChoice choose_backend(const NormalBakeSettings& settings) {
  BackendChoice choice;
  if (settings.backend == "cpu") {
    return choice;
  }
  gpu::ProbeOptions options;
  options.low_priority = !platform::get_env("KORVANE_PROBE_NORMAL_PRIORITY").has_value();
  std::string why;
  const gpu::GpuProbe probe = gpu::probe_gpu(options, &why);
  if (!probe.available) {
    if (why.empty()) {
      why = "no usable GPU was found";
    }
    if (settings.backend == "gpu") {
      throw Error("the GPU backend cannot run: " + why);
    }
    choice.gpu_unavailable = why;
  }
  return choice;
}

bool has_png_extension(const std::filesystem::path& path) {
  std::string ext = path.extension().string();
  std::transform(ext.begin(), ext.end(), ext.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return ext == ".png";
}

void write_map(const std::filesystem::path& path, int width, int height, int channels,
               std::span<const std::uint16_t> codes, int threads) {
  if (has_png_extension(path)) {
    writePngCodes(path, width, height, channels, codes, threads);
  } else {
    writeExr(path, width, height, channels, codes, kExrFloat, threads);
  }
}

void write_report(const std::filesystem::path& path, const std::string& summary) {
  int error = 0;
  platform::File file = platform::File::create_truncate(path, &error);
  const std::string line = summary + "\n";
  if (!file.is_open() || file.write_all(line.data(), line.size()) != 0 || file.close() != 0) {
    throw Error("cannot write the report file: " + path.string());
  }
}

std::uint64_t count_set(const std::vector<std::uint8_t>& mask) {
  return static_cast<std::uint64_t>(
      std::count_if(mask.begin(), mask.end(), [](std::uint8_t m) { return m != 0; }));
}

// Progress of one bake: events and preview updates from any thread. The
// finished count grows in the same locked step that writes the region event.
class BakeProgress {
 public:
  BakeProgress(const NormalBakeSettings& settings, EventWriter& events)
      : settings_(settings),
        events_(events),
        total_(static_cast<std::uint64_t>(settings.width) *
               static_cast<std::uint64_t>(settings.height)) {
    if (settings.preview.empty()) {
      return;
    }
    preview_ = std::make_unique<PreviewFile>(
        settings.preview, preview_size(settings.preview_size, settings.width, settings.height),
        settings.width, settings.height);
    Json event = make_event("preview");
    event["path"] = settings.preview.string();
    event["width"] = preview_->size().width;
    event["height"] = preview_->size().height;
    events_.write(event);
  }

  NormalBakeCallbacks callbacks() {
    NormalBakeCallbacks c;
    c.phase_started = [this](std::string_view phase) { events_.phase(phase); };
    c.tracing_started = [this](std::string_view description) { tracing_started(description); };
    c.region_finished = [this](const TexelRegion& region, const NormalBakeResult& partial) {
      region_finished(region, partial);
    };
    c.low_memory = [this](const BakeMemoryNotice& notice) { low_memory(notice); };
    return c;
  }

 private:
  void tracing_started(std::string_view description) {
    Json event = make_event("bake");
    event["backend"] = description;
    event["width"] = settings_.width;
    event["height"] = settings_.height;
    event["tile"] = 64;
    events_.write(event);
  }

  void region_finished(const TexelRegion& region, const NormalBakeResult& partial) {
    std::lock_guard guard(lock_);
    done_ += static_cast<std::uint64_t>(region.w) * static_cast<std::uint64_t>(region.h);
    if (events_.enabled()) {
      Json event = make_event("region");
      event["x"] = region.x;
      event["y"] = region.y;
      event["w"] = region.w;
      event["h"] = region.h;
      event["done"] = done_;
      event["total"] = total_;
      events_.write(event);
    }
    if (preview_) {
      preview_->update(region.x, region.y, region.w, region.h, partial.normal.data(),
                       partial.outside.data());
    }
  }

  void low_memory(const BakeMemoryNotice& notice) {
    Json event = make_event("notice");
    event["notice"] = "low_memory";
    event["stage"] = notice.stage;
    event["reason"] = notice.reason;
    event["from"] = notice.from;
    event["to"] = notice.to;
    events_.write(event);
  }

  const NormalBakeSettings& settings_;
  EventWriter& events_;
  std::uint64_t total_;
  std::unique_ptr<PreviewFile> preview_;
  std::mutex lock_;
  std::uint64_t done_ = 0;
};

// Texels holding a Normal before and after padding.
struct PaddingCount {
  std::uint64_t before = 0;
  std::uint64_t after = 0;
};

// Pads the Normal map; the Opacity map keeps its coverage as baked, since
// spreading it would mark the gutter as opaque.
PaddingCount pad_normal_map(NormalBakeResult& result, const NormalBakeSettings& settings) {
  ImageView view;
  view.width = settings.width;
  view.height = settings.height;
  view.channels = 3;
  view.type = ComponentType::kU16;
  view.bytes = std::as_writable_bytes(std::span(result.normal));
  const std::vector<std::uint8_t> after =
      pad_image(view, result.normal_valid, padding_settings_of(settings), settings.threads);
  return {count_set(result.normal_valid), count_set(after)};
}

void write_maps(const NormalBakeResult& result, const NormalBakeSettings& settings) {
  write_map(settings.out_normal, settings.width, settings.height, 3, result.normal,
            settings.threads);
  if (!settings.out_opacity.empty()) {
    write_map(settings.out_opacity, settings.width, settings.height, 1, result.opacity,
              settings.threads);
  }
}

// What the summary reports of the run, the driver's own times included.
RunResult run_result(const NormalBakeRun& run, const LoadedMesh& low, const LoadedMesh& high,
                     const PaddingCount& padded, std::uint64_t texels) {
  RunResult summary;
  summary.backend = "cpu";
  summary.scale = run.scale;
  summary.front = run.front;
  summary.rear = run.rear;
  RunCounts& c = summary.counts;
  const NormalBakeCounters& k = run.result.counters;
  c.low_triangles = run.low_triangles;
  c.high_triangles = run.high_triangles;
  c.low_quads_split = low.stats.quads_split;
  c.high_quads_split = high.stats.quads_split;
  c.unmatched_low_objects = run.unmatched_low_objects;
  c.texels_covered = k.texels_covered;
  c.texels_valid = run.texels_valid;
  c.texels_opaque = k.texels_opaque;
  c.texels_gutter = texels - padded.before;
  c.texels_padded = padded.after - padded.before;
  c.samples_covered = k.samples_covered;
  c.rays = k.rays;
  c.hits = k.hits;
  c.invalid_ray_normals = k.invalid_ray_normals;
  c.invalid_hit_normals = k.invalid_hit_normals;
  c.degenerate_frames = k.degenerate_frames;
  c.zero_uv_area_triangles = run.zero_uv_area_triangles;
  c.corners_without_normal = run.corners_without_normal;
  RunSeconds& t = summary.seconds;
  t.bvh = run.seconds.bvh;
  t.setup = run.seconds.setup;
  t.trace = run.seconds.trace;
  t.trace_rays = run.seconds.trace_rays;
  t.trace_wait = run.seconds.trace_wait;
  t.trace_resolve = run.seconds.trace_resolve;
  summary.memory.budget_mb = run.memory.budget_mb;
  summary.memory.band_rows = run.memory.band_rows;
  summary.memory.band_retries = run.memory.band_retries;
  summary.memory.bands_pipelined = run.memory.bands_pipelined;
  for (const auto& n : run.memory.notices) {
    summary.memory.notices.push_back({n.stage, n.reason, n.from, n.to});
  }
  summary.coverage_texels = run.coverage.texels;
  summary.coverage_hits = run.coverage.hits;
  summary.coverage_filled = run.coverage.filled;
  summary.stacked_skipped = k.stacked_skipped;
  return summary;
}

}  // namespace

int bakeCommand(const NormalBakeSettings& settings) {
  const Clock::time_point start = Clock::now();
  check_bake_start(settings);
  EventWriter events(settings.progress);
  events.phase("load");

  MeshCacheSettings cache;
  cache.folder = settings.cache_dir;
  LoadedMesh low = load_input(settings.low, settings, cache);
  restore_obj_materials(low, settings);
  LoadedMesh high = load_input(settings.high, settings, cache);
  const double load_seconds = seconds_since(start);

  const BackendChoice backend = choose_backend(settings);
  BakeProgress progress(settings, events);
  NormalBakeRun run =
      bake_normal_map(low.mesh, high.mesh, settings, settings.threads, progress.callbacks());

  events.phase("padding");
  const Clock::time_point padding_start = Clock::now();
  const PaddingCount padded = pad_normal_map(run.result, settings);
  const double padding_seconds = seconds_since(padding_start);

  events.phase("write");
  const Clock::time_point write_start = Clock::now();
  write_maps(run.result, settings);
  const double write_seconds = seconds_since(write_start);

  RunResult summary = run_result(
      run, low, high, padded,
      static_cast<std::uint64_t>(settings.width) * static_cast<std::uint64_t>(settings.height));
  summary.gpu_unavailable = backend.gpu_unavailable;
  summary.seconds.load = load_seconds;
  summary.seconds.padding = padding_seconds;
  summary.seconds.write = write_seconds;
  summary.seconds.total = seconds_since(start);

  const std::string text = json_line(run_summary_json(settings, summary));
  if (!settings.report.empty()) {
    write_report(settings.report, text);
  }
  if (!platform::write_stdout(text + "\n")) {
    throw Error("cannot write to standard output");
  }
  return 0;
}

}  // namespace kv::cli
