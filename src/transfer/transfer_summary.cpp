#include "transfer/transfer_summary.h"

#include "core/version.h"
#include "run/run_summary.h"

namespace kv::transfer {
namespace {

Json outputs_json(const TransferSettings& s, const TransferResult& r) {
  Json outputs = Json::array();
  for (std::size_t o = 0; o < s.outputs.size(); ++o) {
    Json out = Json::object();
    out["path"] = s.outputs[o].where;
    out["channels"] = r.outputs[o]->channels;
    out["type"] = component_type_name(r.outputs[o]->type);
    out["texels_valid"] = r.padded[o].valid;
    out["texels_padded"] = r.padded[o].padded;
    if (!s.outputs[o].mask.empty()) {
      out["mask"] = s.outputs[o].mask;
    }
    outputs.push_back(std::move(out));
  }
  return outputs;
}

Json seconds_json(const TransferSeconds& t) {
  Json seconds = Json::object();
  seconds["load"] = t.load;
  seconds["setup"] = t.setup;
  seconds["bvh"] = t.bvh;
  seconds["transfer"] = t.transfer;
  seconds["padding"] = t.padding;
  seconds["write"] = t.write;
  seconds["total"] = t.total;
  return seconds;
}

}  // namespace

Json transfer_summary_json(const TransferSettings& s, const TransferResult& r) {
  Json j = Json::object();
  j["korvane"] = version();
  j["mode"] = mode_word(s.mode);
  j["target"] = s.target.string();
  j["size"] = Json::array({s.width, s.height});
  j["aa"] = s.aa;
  j["outputs"] = outputs_json(s, r);
  Json coverage = Json::object();
  coverage["texels"] = r.run.counts.texels_covered;
  coverage["hits"] = r.run.counts.hits;
  coverage["missed"] = r.run.counts.missed;
  j["coverage"] = std::move(coverage);
  j["backend"] = "cpu";
  j["seconds"] = seconds_json(r.seconds);
  j["backend_request"] = s.backend;
  j["gpu_unavailable"] = r.gpu_unavailable;
  j["source"] = (s.mode == TransferMode::m2m ? s.high : s.source_uvs).string();
  j["udim"] = s.udim;
  j["filter"] = filter_word(s.filter);
  j["address"] = address_word(s.address);
  j["weights"] = weights_word(s.weights);
  j["uv_snap"] = s.snap_bits < 0 ? std::string("off") : std::to_string(s.snap_bits) + " bits";
  j["dilation"] = s.dilation;
  j["padding"] = run::padding_word(s.padding);
  j["target_triangles"] = r.target_triangles;
  j["source_triangles"] = r.source_triangles;
  j["zero_uv_area_triangles"] = r.run.zero_uv_area_triangles;
  if (s.mode == TransferMode::m2m) {
    j["tracer"] = r.run.tracer;
    j["unmatched_low_objects"] = r.run.unmatched_low_objects;
    j["retried_compact"] = r.run.retried_compact;
  }
  return j;
}

}  // namespace kv::transfer
