// The meshmaps job: meshes from the store, the meshmaps command's options
// from the client, and the same run the command line does.
//
// Fields: "low" one key; "high" a key or a list of keys (joined in list
// order); "settings" a list of strings with the command's options but the
// meshes, the outputs, --report and --cache-dir; "outputs" an object from
// map name to a path or {"path": ...}, written in the object's key order;
// optional "stream" (a "map_done" event as each map is written) and
// "release_after". Each finished band gives a "region" event; the final
// reply carries the command's summary object.
#include "core/error.h"
#include "meshmaps/meshmaps_options.h"
#include "meshmaps/meshmaps_run.h"
#include "platform/platform.h"
#include "run/bake_options.h"
#include "service/hello.h"
#include "service/job_budget.h"
#include "service/job_meshes.h"
#include "service/job_output.h"
#include "service/job_sink.h"
#include "service/request_rules.h"
#include "service/service.h"

namespace kv::service {
namespace {

meshmaps::MeshMapsSettings read_meshmaps_settings(const FieldReader& fields, int threads) {
  const std::vector<std::string> list = fields.strings(fields.at("settings"), "settings");
  meshmaps::MeshMapsSettings settings;
  try {
    settings = meshmaps::parse_meshmaps_settings(list);
  } catch (const pipeline::UsageError& error) {
    fields.fail("settings", error.what());
  }
  if (settings.bake.threads == 0) {
    settings.bake.threads = threads;
  }
  return settings;
}

void read_map_outputs(const FieldReader& fields, meshmaps::MeshMapsSettings& settings) {
  const Json& outputs = fields.object(fields.at("outputs"), "outputs");
  if (outputs.empty()) {
    fields.fail("outputs", "needs at least one map");
  }
  for (const auto& [map, value] : outputs.items()) {
    const bool listed =
        std::find(kMeshmapsOutputs.begin(), kMeshmapsOutputs.end(), map) != kMeshmapsOutputs.end();
    if (!listed) {
      fields.fail("outputs", "unknown map \"" + map + "\"");
    }
    meshmaps::set_map_output(settings, map, read_output(fields, value, "outputs." + map));
  }
}

}  // namespace

void Service::meshmaps(const Request& request, const FieldReader& fields) {
  const std::string low = read_key(fields, fields.at("low"), "low");
  const std::vector<std::string> high = read_keys(fields, "high");
  meshmaps::MeshMapsSettings settings = read_meshmaps_settings(fields, counts_.threads);
  read_map_outputs(fields, settings);
  const bool stream = fields.has("stream") && fields.boolean("stream");
  queue_job(request, read_release_after(fields), [=, this](Job& job) {
    const Clock::time_point start = Clock::now();
    const meshmaps::MeshMapsEnvironment env =
        meshmaps::read_meshmaps_environment(platform::get_env);
    // The settings' own faults come before any wait for the meshes.
    const meshmaps::MeshMapsExtras extras =
        meshmaps::read_meshmaps_extras(settings, meshmaps::check_meshmaps_run(settings));
    JobMeshes found = find_job_meshes(meshes_, job, low, high);
    refuse_over_budget(
        job, meshmaps_job_shape(settings, extras, *found.first.mesh, found.other_meshes()));
    const std::shared_ptr<const Mesh> high_mesh = joined_others(found);
    JobSink sink(job, output_, meshes_, std::move(found.used));
    sink.event(run::phase_event("bake"));
    meshmaps::MeshMapsHooks hooks;
    hooks.between_bands = [&sink] { sink.check(); };
    const std::uint64_t total = static_cast<std::uint64_t>(settings.bake.width) *
                                static_cast<std::uint64_t>(settings.bake.height);
    std::uint64_t done = 0;
    hooks.band_finished = [&sink, &done, total](const TexelRegion& region) {
      done += static_cast<std::uint64_t>(region.w) * static_cast<std::uint64_t>(region.h);
      sink.event(run::region_event(region.x, region.y, region.w, region.h, done, total));
    };
    if (stream) {
      hooks.map_written = [&sink](const std::string& map, const std::filesystem::path& path) {
        Json event = run::make_event("map_done");
        event["map"] = map;
        event["path"] = path.string();
        sink.event(event);
      };
    }
    Json reply = Json::object();
    reply["summary"] = meshmaps::meshmaps_loaded_meshes(
        settings, env, extras, *found.first.mesh, *high_mesh, start, seconds_since(start), hooks);
    return success_reply(job.id, reply);
  });
}

}  // namespace kv::service
