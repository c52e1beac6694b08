#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "core/json_line.h"
#include "run/preview_file.h"
#include "run/run_summary.h"
#include "support/test_support.h"

namespace kv::run {
namespace {

// The object's keys in order, each followed by a space.
std::string keys_of(const Json& object) {
  std::string keys;
  for (const auto& item : object.items()) {
    keys += item.key() + " ";
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
  const Json plain = run_summary_json(s, r);
  EXPECT_EQ(keys_of(plain),
            "korvane backend backend_request gpu_unavailable gpu_pipeline gpu_pipeline_fallback "
            "gpu_precision gpu_bands low high out_normal out_opacity width height udim aa uv_snap "
            "front_setting rear_setting relative_scale scale front rear average_normals "
            "ignore_backface match normal_format tangent_space dilation padding low_triangles "
            "high_triangles low_quads_split high_quads_split unmatched_low_objects "
            "gpu_blas_build_bytes texels_covered texels_valid texels_opaque texels_gutter "
            "texels_padded samples_covered rays hits invalid_ray_normals invalid_hit_normals "
            "degenerate_frames zero_uv_area_triangles corners_without_normal gpu_dispatches "
            "seconds coverage ");
  EXPECT_EQ(keys_of(plain["seconds"]),
            "load bvh setup trace trace_rays trace_wait trace_resolve gpu_fill gpu_submit "
            "gpu_busy gpu_scene gpu_scene_upload gpu_scene_build gpu_scene_compact gpu_low "
            "gpu_copy padding write total ");
  EXPECT_EQ(keys_of(plain["coverage"]), "texels hits filled ");
  EXPECT_EQ(plain["gpu_precision"], "exact");
  EXPECT_EQ(plain["uv_snap"], "8 bits per sample");
  EXPECT_EQ(plain["match"], "always");
  // Distances print as given, not as the float's binary expansion.
  const std::string text = json_line(run_summary_json(s, r));
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
  const Json full = run_summary_json(s, r);
  EXPECT_EQ(full["match"], "name");
  EXPECT_EQ(full["uv_snap"], "off");
  EXPECT_EQ(full["normal_format"], "directx");
  EXPECT_EQ(full["padding"], "diffusion");
  EXPECT_EQ(full["gpu_precision"], "fp32-resolve");
  const std::string full_keys = keys_of(full);
  EXPECT_EQ(full_keys.substr(full_keys.find(" seconds ")),
            " seconds memory raster_filter coverage stacked_skipped ");
  EXPECT_EQ(keys_of(full["memory"]),
            "low_memory budget_mb band_rows band_retries bands_pipelined notices ");
  EXPECT_EQ(full["memory"]["notices"][0]["to"], 32);
  EXPECT_EQ(full["raster_filter"]["materials"][0], "skin");

  s.uv_snap_bits = 4;
  s.uv_snap_texel = true;
  EXPECT_EQ(run_summary_json(s, r)["uv_snap"], "4 bits per texel");
}

TEST(Preview, SizesAndCellMapping) {
  const auto size = [](std::int32_t requested, std::int32_t w, std::int32_t h) {
    const PreviewSize p = preview_size(requested, w, h);
    return std::pair(p.width, p.height);
  };
  EXPECT_EQ(size(0, 4096, 1024), std::pair(2048, 512));  // at most 2048 wide
  EXPECT_EQ(size(0, 100, 300), std::pair(100, 300));
  EXPECT_EQ(size(1, 16384, 1), std::pair(1, 1));  // never zero rows
  using Cells = std::pair<std::int64_t, std::int64_t>;
  const auto cells = [](std::int64_t begin, std::int64_t count) {
    const CellRange c = preview_cells(begin, count, 10, 3);
    return Cells(c.first, c.last);
  };
  EXPECT_EQ(cells(0, 1), Cells(0, 1));
  EXPECT_EQ(cells(4, 1), Cells(2, 2));  // empty
  EXPECT_EQ(cells(0, 10), Cells(0, 3));
}

TEST(Preview, FileHoldsTheFinishedRectangles) {
  test::ScratchDir dir;
  const auto path = dir / "preview.rgba";
  PreviewFile preview(path, preview_size(3, 10, 10), 10, 10);
  EXPECT_EQ(test::read_text_file(path), std::string(3 * 3 * 4, '\0'));
  // The same preview in memory: zeroed over its 36 bytes only.
  std::string memory(40, '\xEE');
  PreviewMemory in_memory(std::span(reinterpret_cast<std::uint8_t*>(memory.data()), memory.size()),
                          preview_size(3, 10, 10), 10, 10);
  EXPECT_EQ(memory, std::string(36, '\0') + std::string(4, '\xEE'));

  std::vector<std::uint16_t> codes(10 * 10 * 3);
  std::vector<std::uint8_t> outside(10 * 10, 0);
  for (int t = 0; t < 100; ++t) {
    codes[t * 3 + 0] = static_cast<std::uint16_t>(t * 256 + 255);  // top byte t
    codes[t * 3 + 1] = 0x1200;
    codes[t * 3 + 2] = 0xFFFF;
    outside[t] = t < 10 ? 1 : 0;  // the first row uncovered
  }
  preview.update(4, 0, 1, 10, codes.data(), outside.data());  // maps to no column
  EXPECT_EQ(test::read_text_file(path), std::string(36, '\0'));
  preview.update(6, 0, 4, 4, codes.data(), outside.data());  // column 2, rows 0..1
  in_memory.update(4, 0, 1, 10, codes.data(), outside.data());
  in_memory.update(6, 0, 4, 4, codes.data(), outside.data());
  // Pixel (2, 0) shows texel (6, 0), uncovered, and pixel (2, 1) texel (6, 3);
  // every other pixel stays untouched.
  std::string expected(36, '\0');
  expected.replace(8, 4, std::string("\x06\x12\xFF\0", 4));
  expected.replace(20, 4, std::string("\x24\x12\xFF\xFF", 4));
  EXPECT_EQ(test::read_text_file(path), expected);
  EXPECT_EQ(memory, expected + std::string(4, '\xEE'));
}

}  // namespace
}  // namespace kv::run
