#include "meshmaps/meshmaps_command.h"

#include <new>
#include <optional>

#include "core/error.h"
#include "core/json_line.h"
#include "core/stopwatch.h"
#include "mesh/mesh_format.h"
#include "meshmaps/meshmaps_bake.h"
#include "meshmaps/meshmaps_options.h"
#include "meshmaps/meshmaps_output.h"
#include "meshmaps/meshmaps_summary.h"
#include "meshmaps/normal_map_input.h"
#include "meshmaps/sample_directions.h"
#include "platform/platform.h"
#include "run/bake_inputs.h"

namespace kv::meshmaps {
namespace {

// Warnings of the mesh reads go straight to stderr; the command sends no
// progress events.
class WarningSink final : public run::ProgressSink {
 public:
  bool wants_events() const override { return false; }
  void event(const Json&) override {}
  void warning(std::string_view text) override { platform::write_stderr(text); }
};

// Until the GPU backend bakes mesh maps, a GPU request runs on the CPU
// under the fallback policy and fails under the others.
std::string gpu_fallback_reason(const MeshMapsSettings& s) {
  if (s.bake.backend != "gpu") {
    return {};
  }
  const std::string why = "the GPU mesh maps backend is not available in this build";
  if (s.gpu_failure_policy != GpuFailurePolicy::fallback) {
    throw Error("meshmaps: the GPU backend cannot run: " + why);
  }
  return why;
}

std::optional<NoiseTable> load_noise(const MeshMapsSettings& s) {
  if (!s.noise_x.empty()) {
    return NoiseTable::read_raw(s.noise_x);
  }
  if (!s.noise.empty()) {
    return NoiseTable::read_png(s.noise);
  }
  return std::nullopt;
}

void write_report(const std::filesystem::path& path, const std::string& line) {
  int error = 0;
  platform::File file = platform::File::create_truncate(path, &error);
  const std::string text = line + "\n";
  if (!file.is_open() || file.write_all(text.data(), text.size()) != 0 || file.close() != 0) {
    throw Error("cannot write the report file: " + path.string());
  }
}

// Materials and vertex colours come only from OBJ files.
void check_id_source(const MeshMapsSettings& s) {
  if (s.out.id.empty() ||
      (s.id_source != IdSource::material && s.id_source != IdSource::vertex_color)) {
    return;
  }
  const std::filesystem::path& high = s.low_as_high ? s.bake.low : s.bake.high;
  if (sniff_mesh_format(high) != MeshFormat::Obj) {
    throw Error(std::string("meshmaps: --id-source ") +
                (s.id_source == IdSource::material ? "material" : "vertex-color") +
                " needs an OBJ high mesh");
  }
}

int run_command(const MeshMapsSettings& s) {
  const Clock::time_point start = Clock::now();
  const MeshMapsEnvironment env = read_meshmaps_environment(platform::get_env);
  check_meshmaps_settings(s);
  const std::string gpu_fallback = gpu_fallback_reason(s);
  check_id_source(s);
  const std::optional<NoiseTable> noise = load_noise(s);
  std::optional<NormalMapImage> normal_map;
  if (!s.normal_map.empty()) {
    normal_map = decode_normal_map(read_normal_map_texels(s.normal_map), s.bake.normal_format == 1,
                                   s.normal_map);
  }

  WarningSink sink;
  NormalBakeSettings load_settings = s.bake;
  if (s.low_as_high) {
    load_settings.high = load_settings.low;  // read through the cache once more, then dropped
  }
  run::BakeInputs inputs = run::load_bake_inputs(load_settings, sink);
  if (s.low_as_high) {
    inputs.high.mesh = Mesh{};
  }
  RunTimes times;
  times.load = seconds_since(start);
  const Mesh& high = s.low_as_high ? inputs.low.mesh : inputs.high.mesh;
  BakeExtras extras;
  extras.noise = noise ? &*noise : nullptr;
  extras.normal_map = normal_map ? &*normal_map : nullptr;
  MeshMapsRun run = bake_mesh_maps(inputs.low.mesh, high, s, env, extras, s.bake.threads);
  const std::vector<WrittenMap> written = write_mesh_maps(run, s, s.bake.threads, &times.output);
  times.total = seconds_since(start);
  const std::string line =
      json_line(meshmaps_summary_json(s, env, run, written, gpu_fallback, times));
  if (!s.bake.report.empty()) {
    write_report(s.bake.report, line);
  }
  if (!platform::write_stdout(line + "\n")) {
    throw Error("cannot write to standard output");
  }
  return 0;
}

}  // namespace

int meshmaps_command(const std::vector<std::string>& args) {
  const MeshMapsSettings settings = parse_meshmaps_options(args);
  if (settings.help) {
    if (!platform::write_stdout(meshmaps_usage_text())) {
      throw Error("cannot write to standard output");
    }
    return 0;
  }
  try {
    return run_command(settings);
  } catch (const OutOfMemory& e) {
    platform::write_stderr(std::string("korvane meshmaps: out of memory: ") + e.what() + "\n");
    return 1;
  } catch (const std::bad_alloc&) {
    platform::write_stderr("korvane meshmaps: out of memory: an allocation failed\n");
    return 1;
  }
}

}  // namespace kv::meshmaps
