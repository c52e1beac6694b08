#include "transfer/transfer_command.h"

#include <memory>
#include <new>

#include "core/error.h"
#include "core/stopwatch.h"
#include "mesh/mesh_format.h"
#include "platform/platform.h"
#include "run/report_file.h"
#include "transfer/transfer_backend.h"
#include "transfer/transfer_help.h"
#include "transfer/transfer_modes.h"
#include "transfer/transfer_outputs.h"
#include "transfer/transfer_summary.h"

namespace kv::transfer {
namespace {

Mesh load_mesh(const std::filesystem::path& path, int threads) {
  MeshReadOptions options;
  options.threads = threads;
  return read_mesh(path, options);
}

ModeRun run_mode(const TransferSettings& settings, const Mesh& target, const Mesh& source,
                 std::vector<OutputBuffer>& buffers, const WorkerPool& pool, HitDump* dump,
                 const BandDone& band_done) {
  if (settings.mode == TransferMode::uv2uv) {
    return run_uv2uv(target, source, settings, buffers, pool, band_done);
  }
  return run_m2m(target, source, settings, buffers, pool, dump, band_done);
}

// The hit dump is kept as a temporary file until every output is written:
// a run that fails leaves no dump behind.
std::unique_ptr<HitDump> open_hit_dump(const TransferSettings& settings) {
  if (settings.mode != TransferMode::m2m || settings.dump_hits.empty()) {
    return nullptr;
  }
  return std::make_unique<HitDump>(settings.dump_hits, settings.width, settings.height,
                                   settings.aa);
}

void send_phase(run::ProgressSink* sink, std::string_view phase) {
  if (sink != nullptr) {
    sink->event(run::phase_event(phase));
  }
}

// Region events of the finished bands, counted over the whole image.
BandDone region_events(run::ProgressSink* sink, const TransferSettings& settings,
                       std::uint64_t& done) {
  if (sink == nullptr) {
    return {};
  }
  const std::uint64_t total =
      static_cast<std::uint64_t>(settings.width) * static_cast<std::uint64_t>(settings.height);
  return [sink, total, &done](const TexelRegion& region) {
    done += static_cast<std::uint64_t>(region.w) * static_cast<std::uint64_t>(region.h);
    sink->event(run::region_event(region.x, region.y, region.w, region.h, done, total));
  };
}

}  // namespace

Json run_transfer(const TransferSettings& settings) {
  TransferStart begin;
  begin.start = Clock::now();
  check_transfer_settings(settings);
  begin.gpu_unavailable = choose_backend(settings);
  const Clock::time_point step = Clock::now();
  const Mesh target = load_mesh(settings.target, settings.threads);
  const Mesh source = load_mesh(
      settings.mode == TransferMode::uv2uv ? settings.source_uvs : settings.high, settings.threads);
  begin.load_seconds = seconds_since(step);
  return transfer_loaded_meshes(settings, target, source, begin, nullptr);
}

Json transfer_loaded_meshes(const TransferSettings& settings, const Mesh& target,
                            const Mesh& source, const TransferStart& begin,
                            run::ProgressSink* sink) {
  TransferResult result;
  result.gpu_unavailable = begin.gpu_unavailable;
  Clock::time_point step = Clock::now();
  check_source_mesh(settings.mode, target, source);
  send_phase(sink, "load");
  PreparedOutputs prepared = prepare_outputs(settings, source);
  result.seconds.load = begin.load_seconds + seconds_since(step);
  result.target_triangles = target.triangles.size();
  result.source_triangles = source.triangles.size();

  const WorkerPool pool(settings.threads);
  send_phase(sink, "transfer");
  std::uint64_t done = 0;
  const std::unique_ptr<HitDump> dump = open_hit_dump(settings);
  try {
    result.run = run_mode(settings, target, source, prepared.buffers, pool, dump.get(),
                          region_events(sink, settings, done));
  } catch (const std::bad_alloc&) {
    throw OutOfMemory("transfer: out of memory while transferring");
  }
  result.seconds.setup = result.run.setup_seconds;
  result.seconds.bvh = result.run.bvh_seconds;
  result.seconds.transfer = result.run.transfer_seconds;

  send_phase(sink, "padding");
  step = Clock::now();
  result.padded = pad_outputs(settings, prepared.buffers, pool);
  result.seconds.padding = seconds_since(step);

  send_phase(sink, "write");
  step = Clock::now();
  write_outputs(settings, prepared.buffers);
  if (dump) {
    dump->finish();
  }
  result.seconds.write = seconds_since(step);
  for (const OutputBuffer& buffer : prepared.buffers) {
    result.outputs.push_back(&buffer.image);
  }
  result.seconds.total = seconds_since(begin.start);
  return transfer_summary_json(settings, result);
}

int transfer_command(const std::vector<std::string>& args) {
  const TransferSettings settings = parse_transfer_options(args);
  if (settings.help) {
    if (!platform::write_stdout(transfer_usage_text())) {
      throw Error("cannot write to standard output");
    }
    return 0;
  }
  const std::string line = json_line(run_transfer(settings));
  if (!settings.report.empty()) {
    run::write_report_file(settings.report, line);
  }
  if (!platform::write_stdout(line + "\n")) {
    throw Error("cannot write to standard output");
  }
  return 0;
}

}  // namespace kv::transfer
