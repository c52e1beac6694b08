#include "meshmaps/meshmaps_command.h"

#include <new>

#include "core/error.h"
#include "core/json_line.h"
#include "core/stopwatch.h"
#include "mesh/mesh_format.h"
#include "meshmaps/meshmaps_options.h"
#include "meshmaps/meshmaps_run.h"
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
  std::string gpu_fallback = check_meshmaps_run(s);
  check_id_source(s);
  const MeshMapsExtras extras = read_meshmaps_extras(s, std::move(gpu_fallback));

  WarningSink sink;
  NormalBakeSettings load_settings = s.bake;
  if (s.low_as_high) {
    load_settings.high = load_settings.low;  // read through the cache once more, then dropped
  }
  run::BakeInputs inputs = run::load_bake_inputs(load_settings, sink);
  if (s.low_as_high) {
    inputs.high.mesh = Mesh{};
  }
  const Mesh& high = s.low_as_high ? inputs.low.mesh : inputs.high.mesh;
  const std::string line = json_line(
      meshmaps_loaded_meshes(s, env, extras, inputs.low.mesh, high, start, seconds_since(start)));
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
