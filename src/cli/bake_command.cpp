#include "cli/bake_command.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "bake/normal_bake.h"
#include "bake/padding.h"
#include "cli/preview_file.h"
#include "cli/run_events.h"
#include "cli/run_summary.h"
#include "core/error.h"
#include "gpu/gpu_probe.h"
#include "image/exr.h"
#include "image/png.h"
#include "mesh/mesh_cache.h"
#include "mesh/mesh_format.h"
#include "mesh/obj_reader.h"
#include "platform/platform.h"

namespace kv::cli {

namespace {

using Clock = std::chrono::steady_clock;

double seconds_since(Clock::time_point start) {
  const auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - start);
  return static_cast<double>(ns.count()) / 1e9;
}

constexpr std::uint64_t kBakeCacheCapBytes = 8192ull * 1048576ull;

struct LoadedMesh {
  Mesh mesh;
  MeshStats stats;
};

LoadedMesh load_input(const std::filesystem::path& path, const NormalBakeSettings& settings,
                      const MeshCacheSettings& cache) {
  MeshReadOptions options;
  options.threads = settings.threads;
  options.quads = settings.quads == 1 ? QuadPolicy::reject : QuadPolicy::split;
  LoadedMesh loaded;
  loaded.mesh = load_mesh_cached(path, options, cache, &loaded.stats);
  return loaded;
}

// The cache does not keep material names; the raster filter needs them, so
// they come from the OBJ's own usemtl statements.
void restore_obj_materials(LoadedMesh& low, const NormalBakeSettings& settings) {
  if (settings.raster_materials.empty() || !low.mesh.materials.empty() ||
      sniff_mesh_format(settings.low) != MeshFormat::Obj) {
    return;
  }
  MeshReadOptions options;
  options.threads = settings.threads;
  options.quads = settings.quads == 1 ? QuadPolicy::reject : QuadPolicy::split;
  ObjReadResult fresh = read_obj(settings.low, options);
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

}  // namespace

int bakeCommand(const NormalBakeSettings& settings) {
  const Clock::time_point start = Clock::now();
  check_bake_start(settings);
  EventWriter events(settings.progress);
  events.phase("load");

  MeshCacheSettings cache;
  cache.folder = settings.cache_dir;
  cache.cap_bytes = kBakeCacheCapBytes;
  LoadedMesh low = load_input(settings.low, settings, cache);
  restore_obj_materials(low, settings);
  LoadedMesh high = load_input(settings.high, settings, cache);
  const double load_seconds = seconds_since(start);

  const BackendChoice backend = choose_backend(settings);
  const std::uint64_t total =
      static_cast<std::uint64_t>(settings.width) * static_cast<std::uint64_t>(settings.height);
  std::unique_ptr<PreviewFile> preview;
  if (!settings.preview.empty()) {
    preview = std::make_unique<PreviewFile>(
        settings.preview, preview_size(settings.preview_size, settings.width, settings.height),
        settings.width, settings.height);
    Json event = make_event("preview");
    event["path"] = settings.preview.string();
    event["width"] = preview->size().width;
    event["height"] = preview->size().height;
    events.write(event);
  }

  // Region events and preview updates come from the worker threads; the
  // finished count grows in the same locked step that writes the event.
  std::mutex progress_lock;
  std::uint64_t done = 0;
  NormalBakeCallbacks callbacks;
  callbacks.phase_started = [&](std::string_view phase) { events.phase(phase); };
  callbacks.tracing_started = [&](std::string_view description) {
    Json event = make_event("bake");
    event["backend"] = description;
    event["width"] = settings.width;
    event["height"] = settings.height;
    event["tile"] = 64;
    events.write(event);
  };
  callbacks.region_finished = [&](const TexelRegion& region, const NormalBakeResult& partial) {
    std::lock_guard guard(progress_lock);
    done += static_cast<std::uint64_t>(region.w) * static_cast<std::uint64_t>(region.h);
    if (events.enabled()) {
      Json event = make_event("region");
      event["x"] = region.x;
      event["y"] = region.y;
      event["w"] = region.w;
      event["h"] = region.h;
      event["done"] = done;
      event["total"] = total;
      events.write(event);
    }
    if (preview) {
      preview->update(region.x, region.y, region.w, region.h, partial.normal.data(),
                      partial.outside.data());
    }
  };
  callbacks.low_memory = [&](const BakeMemoryNotice& notice) {
    Json event = make_event("notice");
    event["notice"] = "low_memory";
    event["stage"] = notice.stage;
    event["reason"] = notice.reason;
    event["from"] = notice.from;
    event["to"] = notice.to;
    events.write(event);
  };

  NormalBakeRun run = bake_normal_map(low.mesh, high.mesh, settings, settings.threads, callbacks);
  NormalBakeResult& result = run.result;

  events.phase("padding");
  const Clock::time_point padding_start = Clock::now();
  const std::vector<std::uint8_t> before = result.normal_valid;
  ImageView normal_view;
  normal_view.width = settings.width;
  normal_view.height = settings.height;
  normal_view.channels = 3;
  normal_view.type = ComponentType::kU16;
  normal_view.bytes = std::as_writable_bytes(std::span(result.normal));
  const std::vector<std::uint8_t> after =
      pad_image(normal_view, before, padding_settings_of(settings), settings.threads);
  const double padding_seconds = seconds_since(padding_start);

  events.phase("write");
  const Clock::time_point write_start = Clock::now();
  write_map(settings.out_normal, settings.width, settings.height, 3, result.normal,
            settings.threads);
  if (!settings.out_opacity.empty()) {
    write_map(settings.out_opacity, settings.width, settings.height, 1, result.opacity,
              settings.threads);
  }
  const double write_seconds = seconds_since(write_start);

  RunResult summary;
  summary.backend = "cpu";
  summary.gpu_unavailable = backend.gpu_unavailable;
  summary.scale = run.scale;
  summary.front = run.front;
  summary.rear = run.rear;
  RunCounts& c = summary.counts;
  const NormalBakeCounters& k = result.counters;
  c.low_triangles = run.low_triangles;
  c.high_triangles = run.high_triangles;
  c.low_quads_split = low.stats.quads_split;
  c.high_quads_split = high.stats.quads_split;
  c.unmatched_low_objects = run.unmatched_low_objects;
  c.texels_covered = k.texels_covered;
  c.texels_valid = run.texels_valid;
  c.texels_opaque = k.texels_opaque;
  c.texels_gutter = total - count_set(before);
  c.texels_padded = count_set(after) - count_set(before);
  c.samples_covered = k.samples_covered;
  c.rays = k.rays;
  c.hits = k.hits;
  c.invalid_ray_normals = k.invalid_ray_normals;
  c.invalid_hit_normals = k.invalid_hit_normals;
  c.degenerate_frames = k.degenerate_frames;
  c.zero_uv_area_triangles = run.zero_uv_area_triangles;
  c.corners_without_normal = run.corners_without_normal;
  RunSeconds& t = summary.seconds;
  t.load = load_seconds;
  t.bvh = run.seconds.bvh;
  t.setup = run.seconds.setup;
  t.trace = run.seconds.trace;
  t.trace_rays = run.seconds.trace_rays;
  t.trace_wait = run.seconds.trace_wait;
  t.trace_resolve = run.seconds.trace_resolve;
  t.padding = padding_seconds;
  t.write = write_seconds;
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
  t.total = seconds_since(start);

  const std::string text = run_summary_text(settings, summary);
  if (!settings.report.empty()) {
    write_report(settings.report, text);
  }
  if (!platform::write_stdout(text + "\n")) {
    throw Error("cannot write to standard output");
  }
  return 0;
}

}  // namespace kv::cli
