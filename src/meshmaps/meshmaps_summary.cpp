#include "meshmaps/meshmaps_summary.h"

#include "core/version.h"

namespace kv::meshmaps {
namespace {

Json memory_json(const BakeMemoryReport& m, const MeshMapsEnvironment& env) {
  Json j;
  j["budget_mb"] = m.budget_mb;
  j["band_rows"] = m.band_rows;
  j["policy"] = env.budget_policy;
  Json notices = Json::array();
  for (const BakeMemoryNotice& n : m.notices) {
    notices.push_back({{"stage", n.stage}, {"reason", n.reason}, {"from", n.from}, {"to", n.to}});
  }
  j["notices"] = std::move(notices);
  return j;
}

}  // namespace

Json meshmaps_summary_json(const MeshMapsSettings& s, const MeshMapsEnvironment& env,
                           const MeshMapsRun& run, const std::vector<WrittenMap>& written,
                           const std::string& gpu_fallback, const RunTimes& times) {
  const MeshMapsCounters& k = run.buffers.counters;
  Json j;
  j["korvane"] = version();
  j["maps"] = s.map_order;
  j["width"] = s.bake.width;
  j["height"] = s.bake.height;
  j["aa"] = s.bake.aa;
  j["backend"] = "cpu";
  j["coverage"] = {{"texels", k.texels_covered}, {"hits", k.texels_hit}};
  Json seconds;
  seconds["load"] = times.load;
  seconds["setup"] = run.seconds.setup;
  seconds["bvh"] = run.seconds.bvh;
  seconds["bake"] = run.seconds.bake;
  seconds["primary_rays"] = run.seconds.rays;
  seconds["padding"] = times.output.padding;
  seconds["write"] = times.output.write;
  seconds["total"] = times.total;
  j["seconds"] = std::move(seconds);
  if (!gpu_fallback.empty()) {
    j["gpu_fallback"] = gpu_fallback;
  }
  j["tracer"] = run.backend;
  j["low_as_high"] = s.low_as_high;
  if (!env.low_as_high_experiment.empty()) {
    j["low_as_high_experiment"] = env.low_as_high_experiment;
  }
  j["triangles"] = {{"low", run.low_triangles}, {"high", run.high_triangles}};
  j["unmatched_low_objects"] = run.unmatched_low_objects;
  j["distances"] = {{"scale", run.scale}, {"front", run.front}, {"rear", run.rear}};
  j["rays"] = {{"samples_covered", k.samples_covered},
               {"primary", k.rays},
               {"hits", k.hits},
               {"secondary", k.secondary_rays}};
  Json outputs = Json::array();
  for (const WrittenMap& w : written) {
    outputs.push_back({{"map", w.map}, {"texels_padded", w.texels_padded}});
  }
  j["outputs"] = std::move(outputs);
  j["memory"] = memory_json(run.memory, env);
  return j;
}

}  // namespace kv::meshmaps
