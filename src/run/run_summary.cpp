#include "run/run_summary.h"

#include <charconv>
#include <cstdlib>

#include "core/version.h"

namespace kv::run {

namespace {

// A float setting as the user wrote it: the shortest decimal that reads back
// as the same float, not the float's exact binary value (0.01, not
// 0.009999999776482582).
double as_given(float value) {
  char text[32];
  const auto end = std::to_chars(text, text + sizeof text - 1, value).ptr;
  *end = '\0';
  return std::strtod(text, nullptr);
}

std::string utf8_path(const std::filesystem::path& path) {
  return path.string();
}

std::string uv_snap_text(const NormalBakeSettings& s) {
  if (s.uv_snap_bits == -1) {
    return "off";
  }
  return std::to_string(s.uv_snap_bits) +
         (s.uv_snap_texel ? " bits per texel" : " bits per sample");
}

}  // namespace

const char* padding_word(PaddingMode mode) {
  switch (mode) {
    case PaddingMode::ring:
      return "ring";
    case PaddingMode::passthrough:
      return "passthrough";
    case PaddingMode::infinite:
      return "infinite";
    case PaddingMode::transparent:
      return "transparent";
    case PaddingMode::color:
      return "color";
    case PaddingMode::diffusion:
      return "diffusion";
  }
  return "ring";
}

Json run_summary_json(const NormalBakeSettings& s, const RunResult& r) {
  Json j = Json::object();
  j["korvane"] = version();
  j["backend"] = r.backend;
  j["backend_request"] = s.backend;
  j["gpu_unavailable"] = r.gpu_unavailable;
  j["gpu_pipeline"] = r.gpu_pipeline;
  j["gpu_pipeline_fallback"] = r.gpu_pipeline_fallback;
  j["gpu_precision"] = r.gpu_pipeline == "resident" ? s.gpu_precision : std::string("exact");
  j["gpu_bands"] = r.gpu_bands;
  j["low"] = utf8_path(s.low);
  j["high"] = utf8_path(s.high);
  j["out_normal"] = utf8_path(s.out_normal);
  j["out_opacity"] = utf8_path(s.out_opacity);
  j["width"] = s.width;
  j["height"] = s.height;
  j["udim"] = s.udim;
  j["aa"] = s.aa;
  j["uv_snap"] = uv_snap_text(s);
  j["front_setting"] = as_given(s.front);
  j["rear_setting"] = as_given(s.rear);
  j["relative_scale"] = s.relative_scale;
  j["scale"] = r.scale;
  j["front"] = as_given(r.front);
  j["rear"] = as_given(r.rear);
  j["average_normals"] = s.average_normals;
  j["ignore_backface"] = s.ignore_backface;
  j["match"] = s.match_by_name ? "name" : "always";
  j["normal_format"] = s.normal_format == 1 ? "directx" : "opengl";
  j["tangent_space"] = s.tangent_space == 1 ? "per-vertex" : "per-fragment";
  j["dilation"] = s.dilation;
  j["padding"] = padding_word(s.padding);

  const RunCounts& c = r.counts;
  j["low_triangles"] = c.low_triangles;
  j["high_triangles"] = c.high_triangles;
  j["low_quads_split"] = c.low_quads_split;
  j["high_quads_split"] = c.high_quads_split;
  j["unmatched_low_objects"] = c.unmatched_low_objects;
  j["gpu_blas_build_bytes"] = c.gpu_blas_build_bytes;
  j["texels_covered"] = c.texels_covered;
  j["texels_valid"] = c.texels_valid;
  j["texels_opaque"] = c.texels_opaque;
  j["texels_gutter"] = c.texels_gutter;
  j["texels_padded"] = c.texels_padded;
  j["samples_covered"] = c.samples_covered;
  j["rays"] = c.rays;
  j["hits"] = c.hits;
  j["invalid_ray_normals"] = c.invalid_ray_normals;
  j["invalid_hit_normals"] = c.invalid_hit_normals;
  j["degenerate_frames"] = c.degenerate_frames;
  j["zero_uv_area_triangles"] = c.zero_uv_area_triangles;
  j["corners_without_normal"] = c.corners_without_normal;
  j["gpu_dispatches"] = c.gpu_dispatches;

  const RunSeconds& t = r.seconds;
  Json seconds = Json::object();
  seconds["load"] = t.load;
  seconds["bvh"] = t.bvh;
  seconds["setup"] = t.setup;
  seconds["trace"] = t.trace;
  seconds["trace_rays"] = t.trace_rays;
  seconds["trace_wait"] = t.trace_wait;
  seconds["trace_resolve"] = t.trace_resolve;
  seconds["gpu_fill"] = t.gpu_fill;
  seconds["gpu_submit"] = t.gpu_submit;
  seconds["gpu_busy"] = t.gpu_busy;
  seconds["gpu_scene"] = t.gpu_scene;
  seconds["gpu_scene_upload"] = t.gpu_scene_upload;
  seconds["gpu_scene_build"] = t.gpu_scene_build;
  seconds["gpu_scene_compact"] = t.gpu_scene_compact;
  seconds["gpu_low"] = t.gpu_low;
  seconds["gpu_copy"] = t.gpu_copy;
  seconds["padding"] = t.padding;
  seconds["write"] = t.write;
  seconds["total"] = t.total;
  j["seconds"] = std::move(seconds);

  if (!r.memory.notices.empty()) {
    Json memory = Json::object();
    memory["low_memory"] = true;
    memory["budget_mb"] = r.memory.budget_mb;
    memory["band_rows"] = r.memory.band_rows;
    memory["band_retries"] = r.memory.band_retries;
    memory["bands_pipelined"] = r.memory.bands_pipelined;
    Json notices = Json::array();
    for (const auto& n : r.memory.notices) {
      Json notice = Json::object();
      notice["stage"] = n.stage;
      notice["reason"] = n.reason;
      notice["from"] = n.from;
      notice["to"] = n.to;
      notices.push_back(std::move(notice));
    }
    memory["notices"] = std::move(notices);
    j["memory"] = std::move(memory);
  }
  if (!s.raster_materials.empty() || s.uv_tile != 0) {
    Json filter = Json::object();
    filter["materials"] = s.raster_materials;
    filter["uv_tile"] = s.uv_tile;
    j["raster_filter"] = std::move(filter);
  }
  Json coverage = Json::object();
  coverage["texels"] = r.coverage_texels;
  coverage["hits"] = r.coverage_hits;
  coverage["filled"] = r.coverage_filled;
  j["coverage"] = std::move(coverage);
  if (r.stacked_skipped != 0) {
    j["stacked_skipped"] = r.stacked_skipped;
  }
  return j;
}

}  // namespace kv::run
