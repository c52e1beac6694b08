// The transfer job: the target and source meshes from the store, the
// transfer command's options from the client, and the same transfer the
// command line runs.
//
// Fields: "target" one key; "source" a key or a list of keys (joined in list
// order), the source-UV mesh for uv2uv and the high mesh for m2m;
// "settings" a list of strings holding the command's options but the
// meshes, --report and the texture and output groups, with --mode and
// --size required; "outputs" a list of strings holding only those groups
// (--texture, --bind..., --source-tile, --out, --out-mask, --out-srgb,
// --out-padding-color), each path or shm:<section>:<size> as the command
// line takes it; optional "release_after". The final reply carries the
// command's summary object, whose "target" and "source" are the keys (a
// list of source keys joined by commas).
#include "core/error.h"
#include "run/bake_options.h"
#include "service/job_budget.h"
#include "service/job_meshes.h"
#include "service/job_sink.h"
#include "service/request_rules.h"
#include "service/service.h"
#include "transfer/transfer_backend.h"
#include "transfer/transfer_command.h"
#include "transfer/transfer_modes.h"

namespace kv::service {
namespace {

transfer::TransferSettings read_transfer_settings(const FieldReader& fields, int threads) {
  const std::vector<std::string> settings = fields.strings(fields.at("settings"), "settings");
  const std::vector<std::string> outputs = fields.strings(fields.at("outputs"), "outputs");
  transfer::TransferSettings parsed;
  bool outputs_failed = false;
  try {
    parsed = transfer::parse_transfer_settings(settings, outputs, &outputs_failed);
  } catch (const pipeline::UsageError& error) {
    fields.fail(outputs_failed ? "outputs" : "settings", error.what());
  }
  if (parsed.threads == 0) {
    parsed.threads = threads;
  }
  return parsed;
}

}  // namespace

void Service::transfer(const Request& request, const FieldReader& fields) {
  const std::string target = read_key(fields, fields.at("target"), "target");
  const std::vector<std::string> source = read_keys(fields, "source");
  transfer::TransferSettings settings = read_transfer_settings(fields, counts_.threads);
  // The summary names the meshes by their keys.
  settings.target = std::filesystem::path(std::u8string(target.begin(), target.end()));
  std::string source_text;
  for (const std::string& key : source) {
    source_text += (source_text.empty() ? "" : ",") + key;
  }
  (settings.mode == transfer::TransferMode::uv2uv ? settings.source_uvs : settings.high) =
      std::filesystem::path(std::u8string(source_text.begin(), source_text.end()));
  queue_job(request, read_release_after(fields), [=, this](Job& job) {
    transfer::TransferStart begin;
    begin.start = Clock::now();
    // The settings' own faults come before any wait for the meshes.
    transfer::check_transfer_settings(settings);
    begin.gpu_unavailable = transfer::choose_backend(settings);
    JobMeshes found = find_job_meshes(meshes_, job, target, source);
    // The meshes' own faults come first, as on the command line; then a
    // transfer that cannot fit is refused before its textures are read.
    const std::vector<const Mesh*> sources = found.other_meshes();
    if (sources.size() == 1) {
      transfer::check_source_mesh(settings.mode, *found.first.mesh, *sources.front());
    }
    refuse_over_budget(job, transfer_job_shape(settings, *found.first.mesh, sources));
    const std::shared_ptr<const Mesh> source_mesh = joined_others(found);
    JobSink sink(job, output_, meshes_, std::move(found.used));
    sink.check();
    Json reply = Json::object();
    reply["summary"] =
        transfer::transfer_loaded_meshes(settings, *found.first.mesh, *source_mesh, begin, &sink);
    return success_reply(job.id, reply);
  });
}

}  // namespace kv::service
