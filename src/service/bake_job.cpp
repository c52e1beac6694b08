// The bake job: meshes from the store, settings from the client, and the
// same bake the command line runs.
#include <functional>

#include "core/error.h"
#include "run/bake_options.h"
#include "run/run_bake.h"
#include "service/bake_sections.h"
#include "service/job_budget.h"
#include "service/job_meshes.h"
#include "service/job_output.h"
#include "service/job_sink.h"
#include "service/memory_estimate.h"
#include "service/protocol_error.h"
#include "service/request_rules.h"
#include "service/scene_cache.h"
#include "service/service.h"

namespace kv::service {
namespace {

constexpr std::uint64_t kMiB = 1048576;

NormalBakeSettings read_settings(const FieldReader& fields, int threads) {
  const std::vector<std::string> list = fields.strings(fields.at("settings"), "settings");
  NormalBakeSettings settings;
  try {
    settings = pipeline::parseBakeSettings(list);
  } catch (const pipeline::UsageError& error) {
    fields.fail("settings", error.what());
  }
  if (settings.threads == 0) {
    settings.threads = threads;
  }
  return settings;
}

// The outputs' paths go into the settings, their sections beside them.
BakeSections read_outputs(const FieldReader& fields, NormalBakeSettings& settings) {
  const Json& outputs = fields.object(fields.at("outputs"), "outputs");
  const FieldReader reader(outputs, fields.context() + ": outputs", fields.id());
  reader.expect({"normal"}, {"opacity"});
  BakeSections sections;
  const JobOutput normal = read_job_output(fields, outputs.at("normal"), "outputs.normal");
  settings.out_normal = normal.path;
  sections.normal =
      open_map_section(fields, "outputs.normal", normal, settings.width, settings.height, 3);
  if (outputs.contains("opacity")) {
    const JobOutput opacity = read_job_output(fields, outputs.at("opacity"), "outputs.opacity");
    settings.out_opacity = opacity.path;
    sections.opacity =
        open_map_section(fields, "outputs.opacity", opacity, settings.width, settings.height, 1);
  }
  if (fields.has("preview")) {
    sections.preview = read_preview_section(fields);
  }
  return sections;
}

struct SceneKeys {
  std::string prep;
  std::string tracer;
};

SceneKeys scene_keys_of(const NormalBakeSettings& settings, const std::string& low,
                        std::uint64_t low_generation,
                        const std::vector<std::pair<std::string, std::uint64_t>>& used) {
  std::string high_text;
  for (std::size_t i = 1; i < used.size(); ++i) {  // used[0] is the low mesh
    high_text += std::to_string(used[i].first.size()) + ":" + used[i].first + "#" +
                 std::to_string(used[i].second) + " ";
  }
  return {prep_key(settings, low, low_generation, high_text),
          tracer_key(settings, low, low_generation, high_text)};
}

}  // namespace

void Service::bake(const Request& request, const FieldReader& fields) {
  const std::string low = read_key(fields, fields.at("low"), "low");
  const std::vector<std::string> high = read_keys(fields, "high");
  NormalBakeSettings settings = read_settings(fields, counts_.threads);
  const BakeSections sections = read_outputs(fields, settings);
  queue_job(request, read_release_after(fields), [=, this](Job& job) {
    const Clock::time_point start = Clock::now();
    JobMeshes found = find_job_meshes(meshes_, job, low, high);
    const StoredMesh& low_mesh = found.first;
    const std::vector<const Mesh*> high_meshes = found.other_meshes();
    check_budget(job, settings, !sections.opacity.name.empty(), *low_mesh.mesh, high_meshes);
    NormalBakeScene scene;
    const SceneKeys scene_keys = scene_keys_of(settings, low, low_mesh.generation, found.used);
    scene.prep = scenes_.find_prep(scene_keys.prep);
    std::shared_ptr<const Mesh> high_mesh;
    if (std::optional<KeptTracer> kept = scenes_.find_tracer(scene_keys.tracer)) {
      scene.tracer = kept->tracer;
      high_mesh = kept->high;
    } else {
      // Several high keys bake as one mesh, a joined copy kept with its
      // tracer.
      high_mesh = joined_others(found);
    }
    const std::uint64_t high_quads = found.other_quads_split();
    std::vector<std::string> all_keys = high;
    all_keys.push_back(low);
    // What the bake built is kept however it ends: a cancelled bake's scene
    // serves the next one.
    const auto keep_scene = [&] {
      if (scene.prep) {
        scenes_.keep_prep(scene_keys.prep, scene.prep, low_mesh.mesh, all_keys);
      }
      if (scene.tracer) {
        scenes_.keep_tracer(scene_keys.tracer, {scene.tracer, high_mesh}, all_keys);
      }
    };
    JobSink sink(job, output_, meshes_, std::move(found.used));
    const run::BakeMeshes meshes{*low_mesh.mesh, *high_mesh, low_mesh.stats.quads_split,
                                 high_quads};
    run::BakeExtras extras;
    extras.preview = sections.preview ? &sections.preview->preview : nullptr;
    extras.write_more = [&](const NormalBakeResult& result) {
      sections.write(result, settings.width, settings.height);
    };
    Json reply = Json::object();
    try {
      reply["summary"] =
          run::bake_loaded_meshes(settings, meshes, sink, start, 0.0, &scene, extras);
    } catch (...) {
      keep_scene();
      throw;
    }
    keep_scene();
    return success_reply(job.id, reply);
  });
}

// Refuses, before any work, a bake that cannot fit the memory budget.
void Service::check_budget(Job& job, const NormalBakeSettings& settings, bool opacity_section,
                           const Mesh& low, const std::vector<const Mesh*>& highs) const {
  const bool opacity = !settings.out_opacity.empty() || opacity_section;
  refuse_over_budget(job, bake_job_shape(settings, opacity, low, highs));
}

void Service::prepare_scene(const Request& request, const FieldReader& fields) {
  const std::string low = read_key(fields, fields.at("low"), "low");
  const std::vector<std::string> high = read_keys(fields, "high");
  const bool with_settings = fields.has("settings");
  const NormalBakeSettings settings =
      with_settings ? read_settings(fields, counts_.threads) : NormalBakeSettings();
  refuse_running_id(request);
  output_.write_line(success_reply(request.id, Json{{"queued", true}}));
  queue(request, JobLane::bake, [=, this](Job& job) {
    const JobMeshes found = find_job_meshes(meshes_, job, low, high);
    const StoredMesh& low_mesh = found.first;
    std::vector<std::string> keys = high;
    keys.push_back(low);
    const SceneKeys scene_keys = scene_keys_of(settings, low, low_mesh.generation, found.used);
    KeptTracer kept = scenes_.find_tracer(scene_keys.tracer).value_or(KeptTracer{});
    if (!kept.high) {
      kept.high = joined_others(found);
    }
    NormalBakeScene scene;
    scene.tracer = kept.tracer;
    Json reply = Json::object();
    if (with_settings) {
      scene.prep = scenes_.find_prep(scene_keys.prep);
      prepare_normal_bake_scene(*low_mesh.mesh, *kept.high, settings, settings.threads, scene);
      scenes_.keep_prep(scene_keys.prep, scene.prep, low_mesh.mesh, keys);
    } else if (!scene.tracer) {
      // Without settings there is no LowPrep to build, only the tracer.
      bool retried = false;
      scene.tracer = build_cpu_tracer_with_retry(*kept.high, {}, counts_.threads, &retried);
    }
    kept.tracer = scene.tracer;
    scenes_.keep_tracer(scene_keys.tracer, kept, keys);
    reply["low_prep"] = with_settings;
    reply["scene"] = true;
    return success_reply(job.id, reply);
  });
}

}  // namespace kv::service
