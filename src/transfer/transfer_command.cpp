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
                 std::vector<OutputBuffer>& buffers, const WorkerPool& pool) {
  if (settings.mode == TransferMode::uv2uv) {
    return run_uv2uv(target, source, settings, buffers, pool);
  }
  std::unique_ptr<HitDump> dump;
  if (!settings.dump_hits.empty()) {
    dump =
        std::make_unique<HitDump>(settings.dump_hits, settings.width, settings.height, settings.aa);
  }
  ModeRun run = run_m2m(target, source, settings, buffers, pool, dump.get());
  if (dump) {
    dump->finish();
  }
  return run;
}

}  // namespace

Json run_transfer(const TransferSettings& settings) {
  const Clock::time_point start = Clock::now();
  check_transfer_settings(settings);
  TransferResult result;
  result.gpu_unavailable = choose_backend(settings);

  Clock::time_point step = Clock::now();
  const Mesh target = load_mesh(settings.target, settings.threads);
  const Mesh source = load_mesh(
      settings.mode == TransferMode::uv2uv ? settings.source_uvs : settings.high, settings.threads);
  check_source_mesh(settings.mode, target, source);
  PreparedOutputs prepared = prepare_outputs(settings, source);
  result.seconds.load = seconds_since(step);
  result.target_triangles = target.triangles.size();
  result.source_triangles = source.triangles.size();

  const WorkerPool pool(settings.threads);
  try {
    result.run = run_mode(settings, target, source, prepared.buffers, pool);
  } catch (const std::bad_alloc&) {
    throw OutOfMemory("transfer: out of memory while transferring");
  }
  result.seconds.setup = result.run.setup_seconds;
  result.seconds.bvh = result.run.bvh_seconds;
  result.seconds.transfer = result.run.transfer_seconds;

  step = Clock::now();
  result.padded = pad_outputs(settings, prepared.buffers, pool);
  result.seconds.padding = seconds_since(step);

  step = Clock::now();
  write_outputs(settings, prepared.buffers);
  result.seconds.write = seconds_since(step);
  for (const OutputBuffer& buffer : prepared.buffers) {
    result.outputs.push_back(&buffer.image);
  }
  result.seconds.total = seconds_since(start);
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
