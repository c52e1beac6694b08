#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "cli/preview_file.h"
#include "cli/run_summary.h"
#include "core/json_line.h"
#include "support/test_support.h"

namespace kv::cli {
namespace {

std::vector<std::string> keys_of(const Json& object) {
  std::vector<std::string> keys;
  for (const auto& item : object.items()) {
    keys.push_back(item.key());
  }
  return keys;
}

TEST(RunSummary, KeysInOrderAndOptionalObjects) {
  NormalBakeSettings s;
  s.low = "low.obj";
  s.high = "h\xC3\xA9.obj";
  s.out_normal = "n.exr";
  RunResult r;
  r.backend = "cpu";
  r.front = 0.01f;
  const Json plain = Json::parse(run_summary_text(s, r));
  const std::vector<std::string> expected = {"korvane",
                                             "backend",
                                             "backend_request",
                                             "gpu_unavailable",
                                             "gpu_pipeline",
                                             "gpu_pipeline_fallback",
                                             "gpu_precision",
                                             "gpu_bands",
                                             "low",
                                             "high",
                                             "out_normal",
                                             "out_opacity",
                                             "width",
                                             "height",
                                             "udim",
                                             "aa",
                                             "uv_snap",
                                             "front_setting",
                                             "rear_setting",
                                             "relative_scale",
                                             "scale",
                                             "front",
                                             "rear",
                                             "average_normals",
                                             "ignore_backface",
                                             "match",
                                             "normal_format",
                                             "tangent_space",
                                             "dilation",
                                             "padding",
                                             "low_triangles",
                                             "high_triangles",
                                             "low_quads_split",
                                             "high_quads_split",
                                             "unmatched_low_objects",
                                             "gpu_blas_build_bytes",
                                             "texels_covered",
                                             "texels_valid",
                                             "texels_opaque",
                                             "texels_gutter",
                                             "texels_padded",
                                             "samples_covered",
                                             "rays",
                                             "hits",
                                             "invalid_ray_normals",
                                             "invalid_hit_normals",
                                             "degenerate_frames",
                                             "zero_uv_area_triangles",
                                             "corners_without_normal",
                                             "gpu_dispatches",
                                             "seconds",
                                             "coverage"};
  EXPECT_EQ(keys_of(plain), expected);
  EXPECT_EQ(
      keys_of(plain["seconds"]),
      (std::vector<std::string>{"load", "bvh", "setup", "trace", "trace_rays", "trace_wait",
                                "trace_resolve", "gpu_fill", "gpu_submit", "gpu_busy", "gpu_scene",
                                "gpu_scene_upload", "gpu_scene_build", "gpu_scene_compact",
                                "gpu_low", "gpu_copy", "padding", "write", "total"}));
  EXPECT_EQ(keys_of(plain["coverage"]), (std::vector<std::string>{"texels", "hits", "filled"}));
  EXPECT_EQ(plain["gpu_precision"], "exact");
  EXPECT_EQ(plain["uv_snap"], "8 bits per sample");
  EXPECT_EQ(plain["match"], "always");
  EXPECT_EQ(plain["high"], "h\xC3\xA9.obj");
  // Distances print as given, not as the float's binary expansion.
  const std::string text = run_summary_text(s, r);
  EXPECT_NE(text.find("\"front_setting\":0.01,"), std::string::npos) << text;
  EXPECT_NE(text.find("\"front\":0.01,"), std::string::npos) << text;
  EXPECT_NE(text.find("\"high\":\"h\xC3\xA9.obj\""), std::string::npos);  // not escaped

  s.match_by_name = s.match_objects = true;
  s.uv_snap_bits = -1;
  s.raster_materials = {"skin"};
  s.normal_format = 1;
  s.padding = PaddingMode::diffusion;
  r.gpu_pipeline = "resident";
  r.stacked_skipped = 3;
  r.memory.notices.push_back({"bake", "budget", 64, 32});
  r.memory.budget_mb = 100;
  const Json full = Json::parse(run_summary_text(s, r));
  EXPECT_EQ(full["match"], "name");
  EXPECT_EQ(full["uv_snap"], "off");
  EXPECT_EQ(full["normal_format"], "directx");
  EXPECT_EQ(full["padding"], "diffusion");
  EXPECT_EQ(full["gpu_precision"], "fp32-resolve");
  auto full_keys = keys_of(full);
  const std::vector<std::string> tail(full_keys.end() - 5, full_keys.end());
  EXPECT_EQ(tail, (std::vector<std::string>{"seconds", "memory", "raster_filter", "coverage",
                                            "stacked_skipped"}));
  EXPECT_EQ(keys_of(full["memory"]),
            (std::vector<std::string>{"low_memory", "budget_mb", "band_rows", "band_retries",
                                      "bands_pipelined", "notices"}));
  EXPECT_EQ(full["memory"]["notices"][0]["to"], 32);
  EXPECT_EQ(full["raster_filter"]["materials"][0], "skin");

  s.uv_snap_bits = 4;
  s.uv_snap_texel = true;
  EXPECT_EQ(Json::parse(run_summary_text(s, r))["uv_snap"], "4 bits per texel");
}

TEST(Preview, SizesAndCellMapping) {
  auto size = preview_size(0, 4096, 1024);
  EXPECT_EQ(size.width, 2048);
  EXPECT_EQ(size.height, 512);
  size = preview_size(0, 100, 300);
  EXPECT_EQ(size.width, 100);
  EXPECT_EQ(size.height, 300);
  size = preview_size(3, 10, 10);
  EXPECT_EQ(size.width, 3);
  EXPECT_EQ(size.height, 3);
  EXPECT_EQ(preview_size(1, 16384, 1).height, 1);  // never zero rows

  auto cells = preview_cells(0, 1, 10, 3);
  EXPECT_EQ(cells.first, 0);
  EXPECT_EQ(cells.last, 1);
  cells = preview_cells(4, 1, 10, 3);
  EXPECT_EQ(cells.first, 2);
  EXPECT_EQ(cells.last, 2);  // empty
  cells = preview_cells(0, 10, 10, 3);
  EXPECT_EQ(cells.first, 0);
  EXPECT_EQ(cells.last, 3);
}

TEST(Preview, FileHoldsTheFinishedRectangles) {
  test::ScratchDir dir;
  const auto path = dir / "preview.rgba";
  PreviewFile preview(path, preview_size(3, 10, 10), 10, 10);
  EXPECT_EQ(test::read_text_file(path), std::string(3 * 3 * 4, '\0'));

  std::vector<std::uint16_t> codes(10 * 10 * 3);
  std::vector<std::uint8_t> outside(10 * 10, 0);
  for (int t = 0; t < 100; ++t) {
    codes[t * 3 + 0] = static_cast<std::uint16_t>(t * 256 + 255);  // top byte t
    codes[t * 3 + 1] = 0x1200;
    codes[t * 3 + 2] = 0xFFFF;
    outside[t] = (t % 2) ? 0 : 1;  // odd texels covered
  }
  preview.update(4, 0, 1, 10, codes.data(), outside.data());  // maps to no column
  EXPECT_EQ(test::read_text_file(path), std::string(36, '\0'));
  preview.update(6, 0, 4, 4, codes.data(), outside.data());  // column 2, rows 0..1
  const std::string bytes = test::read_text_file(path);
  ASSERT_EQ(bytes.size(), 36u);
  // Pixel (2, 0) shows texel (6, 0); pixel (2, 1) shows texel (6, 3).
  EXPECT_EQ(static_cast<unsigned char>(bytes[(0 * 3 + 2) * 4 + 0]), 6);
  EXPECT_EQ(static_cast<unsigned char>(bytes[(0 * 3 + 2) * 4 + 1]), 0x12);
  EXPECT_EQ(static_cast<unsigned char>(bytes[(0 * 3 + 2) * 4 + 2]), 0xFF);
  EXPECT_EQ(static_cast<unsigned char>(bytes[(0 * 3 + 2) * 4 + 3]), 0);  // texel 6 uncovered
  EXPECT_EQ(static_cast<unsigned char>(bytes[(1 * 3 + 2) * 4 + 0]), 36);
  EXPECT_EQ(static_cast<unsigned char>(bytes[(1 * 3 + 2) * 4 + 3]), 0);
  EXPECT_EQ(bytes.substr(0, 8), std::string(8, '\0'));        // columns 0, 1 untouched
  EXPECT_EQ(bytes.substr(2 * 3 * 4), std::string(12, '\0'));  // row 2 untouched
}

TEST(Preview, UnwritableFileFails) {
  test::ScratchDir dir;
  const auto path = dir / "missing" / "p.rgba";
  try {
    PreviewFile preview(path, {2, 2}, 4, 4);
    FAIL() << "no error";
  } catch (const std::exception& e) {
    EXPECT_EQ(std::string(e.what()), "cannot write the preview file: " + path.string());
  }
}

}  // namespace
}  // namespace kv::cli
