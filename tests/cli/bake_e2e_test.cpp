// Whole bakes through the built binary on small generated meshes.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "core/json_line.h"
#include "image/png.h"
#include "mesh/kvm_file.h"
#include "mesh/mesh_test_util.h"
#include "mesh/obj_reader.h"
#include "support/address_space_limit.h"
#include "support/test_support.h"

namespace kv {
namespace {

using test::read_text_file;
using test::run_korvane;
using test::ScratchDir;
using test::write_text_file;

// A unit square in the XY plane facing +Z, UVs covering the whole tile, as
// one quad (split into two triangles on reading).
const char* kLowPlane =
    "o plane_low\nv 0 0 0\nv 1 0 0\nv 1 1 0\nv 0 1 0\nvt 0 0\nvt 1 0\nvt 1 1\nvt 0 1\n"
    "vn 0 0 1\nf 1/1/1 2/2/1 3/3/1 4/4/1\n";

// A larger parallel square just above the low one.
const char* kHighPlane =
    "o plane_high\nv -1 -1 0.001\nv 2 -1 0.001\nv 2 2 0.001\nv -1 2 0.001\nvn 0 0 1\n"
    "f 1//1 2//1 3//1\nf 1//1 3//1 4//1\n";

std::vector<std::string> lines_of(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    lines.push_back(line);
  }
  return lines;
}

struct Planes {
  ScratchDir dir;
  std::filesystem::path low = dir / "low.obj";
  std::filesystem::path high = dir / "high.obj";
  Planes() {
    write_text_file(low, kLowPlane);
    write_text_file(high, kHighPlane);
  }
  // The bake's command line: both inputs, the Normal map in the folder, two
  // threads, then the extra options.
  std::vector<std::string> args(const std::string& out, int size,
                                std::vector<std::string> extra = {}) const {
    extra.insert(extra.begin(),
                 {"--low", low.string(), "--high", high.string(), "--out-normal",
                  (dir / out).string(), "--size", std::to_string(size), "--threads", "2"});
    return extra;
  }
};

TEST(BakeRun, FlatPlanesGiveTheFlatNormalAndOneSummaryLine) {
  Planes p;
  // Without a GPU, the automatic backend bakes on the CPU.
  const auto r = run_korvane(
      p.args("n.png", 16, {"--out-opacity", (p.dir / "o.png").string(), "--backend", "auto"}));
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(r.err, "");
  const auto lines = lines_of(r.out);
  ASSERT_EQ(lines.size(), 1u);  // the summary alone
  const Json summary = Json::parse(lines[0]);
  EXPECT_EQ(summary.begin().key(), "korvane");
  EXPECT_EQ(summary["korvane"], KV_PROJECT_VERSION);
  EXPECT_EQ(summary["backend"], "cpu");
  EXPECT_EQ(summary["backend_request"], "auto");
  EXPECT_NE(summary["gpu_unavailable"], "");
  EXPECT_EQ(summary["low_triangles"], 2);
  EXPECT_EQ(summary["low_quads_split"], 1);
  for (const char* key : {"texels_covered", "rays", "hits"}) {
    EXPECT_EQ(summary[key], 256) << key;
  }
  EXPECT_EQ(summary["out_opacity"], (p.dir / "o.png").string());
  EXPECT_FALSE(summary.contains("memory"));
  EXPECT_FALSE(summary.contains("raster_filter"));

  // Every texel of the map holds the flat tangent-space normal, and every
  // texel is opaque.
  const TexelImage normal = readPng(p.dir / "n.png");
  const TexelImage opacity = readPng(p.dir / "o.png");
  ASSERT_EQ(std::tuple(normal.width, normal.height, normal.channels, normal.type, opacity.channels),
            std::tuple(16, 16, 3, ComponentType::kU16, 1));
  const auto* codes = reinterpret_cast<const std::uint16_t*>(normal.data.data());
  const auto* alpha = reinterpret_cast<const std::uint16_t*>(opacity.data.data());
  for (int t = 0; t < 16 * 16; ++t) {
    ASSERT_EQ(codes[t * 3 + 0], 32768) << t;
    ASSERT_EQ(codes[t * 3 + 1], 32768) << t;
    ASSERT_EQ(codes[t * 3 + 2], 65535) << t;
    ASSERT_EQ(alpha[t], 65535) << t;
  }
  EXPECT_FALSE(std::filesystem::exists(p.dir / "n.png.tmp"));
}

TEST(BakeRun, ProgressEventsPrecedeTheSummaryAndCoverEveryTexel) {
  Planes p;
  const auto report = p.dir / "report.json";
  const auto r = run_korvane(
      p.args("n.exr", 40, {"--height", "24", "--progress", "1", "--report", report.string()}));
  ASSERT_EQ(r.exit_code, 0) << r.err;
  const auto lines = lines_of(r.out);
  ASSERT_GE(lines.size(), 3u);
  std::vector<std::string> phases;
  std::uint64_t area = 0;
  int bakes = 0;
  for (std::size_t i = 0; i + 1 < lines.size(); ++i) {
    const Json event = Json::parse(lines[i]);
    ASSERT_EQ(event.begin().key(), "event") << lines[i];
    if (event["event"] == "phase") {
      phases.push_back(event["phase"]);
    } else if (event["event"] == "bake") {
      ++bakes;
      EXPECT_EQ(event["width"], 40);
      EXPECT_EQ(event["height"], 24);
      EXPECT_EQ(event["tile"], 64);
    } else if (event["event"] == "region") {
      area += event["w"].get<std::uint64_t>() * event["h"].get<std::uint64_t>();
      EXPECT_EQ(event["done"].get<std::uint64_t>(), area);  // grows by each rectangle
      EXPECT_EQ(event["total"], 40 * 24);
    }
  }
  EXPECT_EQ(bakes, 1);
  EXPECT_EQ(area, 40u * 24u);
  EXPECT_EQ(phases, (std::vector<std::string>{"load", "bvh", "bake", "padding", "write"}));
  EXPECT_EQ(Json::parse(lines.back()).begin().key(), "korvane");
  EXPECT_EQ(read_text_file(report), lines.back() + "\n");  // the summary without the events
}

TEST(BakeRun, PreviewFileSizeAndEvent) {
  Planes p;
  const auto preview = p.dir / "preview.rgba";
  auto r = run_korvane(
      p.args("n.exr", 100, {"--height", "300", "--preview", preview.string(), "--progress", "1"}));
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(std::filesystem::file_size(preview), 100u * 300u * 4u);
  EXPECT_NE(r.out.find("{\"event\":\"preview\",\"path\":\"" + preview.string() +
                       "\",\"width\":100,\"height\":300}"),
            std::string::npos);
  // The preview shows the Normal before padding: every covered texel of the
  // flat bake is (128, 128, 255) with alpha 255.
  EXPECT_EQ(read_text_file(preview).substr(0, 4), "\x80\x80\xFF\xFF");

  r = run_korvane(p.args("n.exr", 10, {"--preview", preview.string(), "--preview-size", "3"}));
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(std::filesystem::file_size(preview), 3u * 3u * 4u);
}

TEST(BakeRun, FailuresExitWithOneAndNoSummary) {
  Planes p;
  const std::string missing = (p.dir / "missing" / "file").string();
  const std::pair<std::vector<std::string>, std::string> cases[] = {
      {{"--preview", missing}, "korvane: cannot write the preview file: " + missing + "\n"},
      {{"--report", missing, "--progress", "1"},
       "korvane: cannot write the report file: " + missing + "\n"},
      {{"--backend", "gpu", "--gpu-pipeline", "batched"}, "korvane: the GPU backend cannot run: "},
  };
  for (const auto& [extra, message] : cases) {
    const auto r = run_korvane(p.args("n.exr", 8, extra));
    EXPECT_EQ(r.exit_code, 1);
    EXPECT_EQ(r.err.substr(0, message.size()), message);
    EXPECT_EQ(r.err.find('\n'), r.err.size() - 1) << r.err;  // one line
    for (const auto& line : lines_of(r.out)) {
      EXPECT_EQ(Json::parse(line).begin().key(), "event");
    }
  }

  std::filesystem::remove(p.dir / "n.exr");
  std::filesystem::remove(p.high);
  const auto r = run_korvane(p.args("n.exr", 8));
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_EQ(r.out, "");
  EXPECT_NE(r.err.find(p.high.string()), std::string::npos) << r.err;
  EXPECT_FALSE(std::filesystem::exists(p.dir / "n.exr"));
}

TEST(BakeRun, RunningOutOfMemoryReadingAMeshNamesItAndExitsWithOne) {
  // The high mesh announces more positions than the address space the run
  // inherits can map; the low one reads first and is fine.
  Planes p;
  const auto huge = p.dir / "huge.kvm";
  test::write_oversized_kvm(huge);
  std::vector<std::string> args = p.args("n.exr", 8);
  ASSERT_EQ(args[2], "--high");
  args[3] = huge.string();
  platform::ProcessResult r;
  {
    const test::AddressSpaceLimit limit(std::uint64_t{2} << 30);
    ASSERT_TRUE(limit.applied());
    r = run_korvane(args);
  }
  EXPECT_EQ(
      std::tuple(r.exit_code, r.err),
      std::tuple(1, "korvane: " + huge.string() + ": out of memory while reading the mesh\n"));
  EXPECT_FALSE(std::filesystem::exists(p.dir / "n.exr"));
}

std::vector<std::string> cache_files(const std::filesystem::path& folder) {
  std::vector<std::string> names;
  if (std::filesystem::exists(folder)) {
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
      names.push_back(entry.path().filename().string());
    }
  }
  std::sort(names.begin(), names.end());
  return names;
}

TEST(BakeRun, MeshCacheHitsMissesAndNewKeys) {
  Planes p;
  const auto cache = p.dir / "cache";
  // A low mesh with a polygon that cannot be triangulated exactly (it
  // crosses itself) warns on the fresh read only.
  write_text_file(p.low, std::string(kLowPlane) +
                             "v 0 0 0\nv 1 1 0\nv 1 0 0\nv 0 1 0\nv 0.5 2 0\n"
                             "f 5/1/1 6/2/1 7/3/1 8/4/1 9/1/1\n");
  const std::string warning =
      "korvane: warning: 1 faces of " + p.low.string() + " could not be triangulated exactly\n";
  const auto args = p.args("n.exr", 8, {"--cache-dir", cache.string()});
  auto first = run_korvane(args);
  ASSERT_EQ(first.exit_code, 0) << first.err;
  EXPECT_NE(first.err.find(warning), std::string::npos) << first.err;
  const auto entries = cache_files(cache);
  EXPECT_EQ(entries.size(), 4u);  // .kvc and .key for each input

  const auto second = run_korvane(args);
  ASSERT_EQ(second.exit_code, 0) << second.err;
  EXPECT_EQ(second.err, "");  // a hit does not warn again
  EXPECT_EQ(cache_files(cache), entries);
  const Json a = Json::parse(first.out), b = Json::parse(second.out);
  EXPECT_EQ(a["low_quads_split"], b["low_quads_split"]);
  EXPECT_EQ(a["low_triangles"], b["low_triangles"]);

  // A damaged key is a silent miss, and the entry is written again.
  for (const auto& name : entries) {
    if (name.ends_with(".key")) {
      write_text_file(cache / name, "damaged");
    }
  }
  const auto third = run_korvane(args);
  ASSERT_EQ(third.exit_code, 0) << third.err;
  EXPECT_NE(third.err.find(warning), std::string::npos);
  EXPECT_EQ(cache_files(cache), entries);

  // Quads refused: the low fails to read and nothing new is stored.
  const auto reject =
      run_korvane(p.args("n.exr", 8, {"--cache-dir", cache.string(), "--quads", "reject"}));
  EXPECT_EQ(reject.exit_code, 1);
  EXPECT_NE(reject.err.find("quad face, but quads are set to be rejected"), std::string::npos)
      << reject.err;
  EXPECT_EQ(cache_files(cache), entries);

  // Touching the source makes a new key.
  std::filesystem::last_write_time(
      p.high, std::filesystem::last_write_time(p.high) + std::chrono::seconds(5));
  ASSERT_EQ(run_korvane(args).exit_code, 0);
  EXPECT_EQ(cache_files(cache).size(), entries.size() + 2);
}

TEST(BakeRun, QuadsSettingIsPartOfTheCacheKey) {
  Planes p;
  write_text_file(p.low,
                  "v 0 0 0\nv 1 0 0\nv 1 1 0\nv 0 1 0\nvt 0 0\nvt 1 0\nvt 1 1\nvt 0 1\n"
                  "vn 0 0 1\nf 1/1/1 2/2/1 3/3/1\nf 1/1/1 3/3/1 4/4/1\n");
  const auto cache = p.dir / "cache";
  for (const char* quads : {"split", "reject"}) {
    const auto r =
        run_korvane(p.args("n.exr", 8, {"--cache-dir", cache.string(), "--quads", quads}));
    ASSERT_EQ(r.exit_code, 0) << r.err;
  }
  EXPECT_EQ(cache_files(cache).size(), 8u);  // two entries for each input
}

TEST(BakeRun, RasterMaterialsComeFromTheObjAlsoOnACacheHit) {
  Planes p;
  // Left half of the tile in material "left", right half in "right".
  write_text_file(p.low,
                  "mtllib planes.mtl\n"
                  "v 0 0 0\nv 0.5 0 0\nv 0.5 1 0\nv 0 1 0\nv 1 0 0\nv 1 1 0\n"
                  "vt 0 0\nvt 0.5 0\nvt 0.5 1\nvt 0 1\nvt 1 0\nvt 1 1\nvn 0 0 1\n"
                  "usemtl left\nf 1/1/1 2/2/1 3/3/1 4/4/1\n"
                  "usemtl right\nf 2/2/1 5/5/1 6/6/1 3/3/1\n");
  const auto cache = p.dir / "cache";
  const auto args =
      p.args("n.exr", 16, {"--raster-material", "right", "--cache-dir", cache.string()});
  for (int run = 0; run < 2; ++run) {  // a fresh read, then a cache hit
    const auto r = run_korvane(args);
    ASSERT_EQ(r.exit_code, 0) << r.err;
    const Json summary = Json::parse(r.out);
    EXPECT_EQ(summary["texels_covered"], 16 * 8) << run;
    EXPECT_EQ(summary["raster_filter"]["materials"], Json::array({"right"}));
    EXPECT_EQ(summary["raster_filter"]["uv_tile"], 0);
  }
  EXPECT_EQ(cache_files(cache).size(), 4u);
}

TEST(BakeRun, KvmAndObjInputsAndThreadCountsGiveIdenticalMaps) {
  ScratchDir dir;
  const auto examples = std::filesystem::path(KV_SOURCE_DIR) / "examples";
  const std::string obj_low = (examples / "sphere_low.obj").string();
  const std::string obj_high = (examples / "sphere_high.obj").string();
  write_kvm(dir / "low.kvm", read_obj(obj_low, {}).mesh, kKvmUvDouble | kKvmNormalsAsIs);
  write_kvm(dir / "high.kvm", read_obj(obj_high, {}).mesh, kKvmUvDouble | kKvmNormalsAsIs);
  // Both maps of one bake, byte for byte.
  auto bake = [&](const std::string& low, const std::string& high, const std::string& threads) {
    const auto r = run_korvane({"--low", low, "--high", high, "--size", "96", "--aa", "2",
                                "--out-normal", (dir / "n.exr").string(), "--out-opacity",
                                (dir / "o.exr").string(), "--threads", threads});
    EXPECT_EQ(r.exit_code, 0) << r.err;
    const std::string maps = read_text_file(dir / "n.exr") + read_text_file(dir / "o.exr");
    std::filesystem::remove(dir / "n.exr");
    std::filesystem::remove(dir / "o.exr");
    return maps;
  };
  const std::string obj_one = bake(obj_low, obj_high, "1");
  const std::string obj_two = bake(obj_low, obj_high, "2");
  const std::string kvm_two = bake((dir / "low.kvm").string(), (dir / "high.kvm").string(), "2");
  ASSERT_GT(obj_one.size(), 96u * 96u * 16u);
  EXPECT_TRUE(obj_one == obj_two) << "1 and 2 threads differ";
  EXPECT_TRUE(obj_two == kvm_two) << "OBJ and .kvm inputs differ";
}

}  // namespace
}  // namespace kv
