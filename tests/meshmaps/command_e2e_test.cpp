// The meshmaps command as a user runs it: files, summary line, messages and
// exit codes of the built binary.
#include <gtest/gtest.h>

#include <cstring>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "image/png.h"
#include "support/address_space_limit.h"
#include "support/test_support.h"

namespace kv::meshmaps {
namespace {

using test::read_text_file;
using test::run_korvane;
using test::ScratchDir;

const std::string kLow = std::string(KV_SOURCE_DIR) + "/examples/sphere_low.obj";
const std::string kHigh = std::string(KV_SOURCE_DIR) + "/examples/sphere_high.obj";

std::vector<std::string> base(std::vector<std::string> extra) {
  std::vector<std::string> args = {"meshmaps", "--low", kLow, "--high", kHigh, "--size", "32"};
  args.insert(args.end(), extra.begin(), extra.end());
  return args;
}

nlohmann::ordered_json summary_of(const std::string& out) {
  EXPECT_FALSE(out.empty());
  const std::size_t start = out.rfind('\n', out.size() - 2);
  return nlohmann::ordered_json::parse(out.substr(start == std::string::npos ? 0 : start + 1));
}

void expect_error(const std::vector<std::string>& args, int code, const std::string& err,
                  const std::vector<std::string>& env = {}) {
  const auto r = run_korvane(args, {}, env);
  EXPECT_EQ(r.exit_code, code) << err;
  EXPECT_EQ(r.err, err);
  EXPECT_EQ(r.out, "");
}

TEST(MeshMapsCommand, EveryMapWrittenAndTheSameOnOneOrTwoThreads) {
  ScratchDir dir;
  const std::vector<std::string> maps = {"opacity",   "ao",     "thickness",
                                         "curvature", "height", "world-normal",
                                         "position",  "id",     "bent-normals"};
  std::vector<std::string> outputs[2];
  for (int run = 0; run < 2; ++run) {
    std::vector<std::string> args =
        base({"--threads", run == 0 ? "1" : "2", "--ao-rays", "8", "--bent-rays", "8",
              "--thickness-rays", "8", "--curvature-rays", "8", "--dilation", "2"});
    for (const std::string& map : maps) {
      args.push_back("--out-" + map);
      args.push_back(
          (dir / (map + std::to_string(run) + (map == "id" ? ".png" : ".exr"))).string());
    }
    args.push_back("--out-raw");
    args.push_back((dir / ("raw" + std::to_string(run) + ".exr")).string());
    args.push_back("--report");
    args.push_back((dir / ("report" + std::to_string(run) + ".json")).string());
    const auto r = run_korvane(args);
    ASSERT_EQ(r.exit_code, 0) << r.err;
    EXPECT_EQ(r.err, "");
    const auto summary = summary_of(r.out);
    EXPECT_EQ(summary["korvane"], "0.4.0");
    EXPECT_EQ(summary["maps"].size(), 10u);
    EXPECT_EQ(summary["maps"][5], "world_normal");
    EXPECT_EQ(summary["maps"][9], "raw");
    EXPECT_EQ(summary["width"], 32);
    EXPECT_EQ(summary["height"], 32);
    EXPECT_EQ(summary["aa"], 1);
    EXPECT_EQ(summary["backend"], "cpu");
    EXPECT_GT(summary["coverage"]["hits"].get<int>(), 0);
    EXPECT_TRUE(summary["seconds"].contains("total"));
    EXPECT_EQ(
        read_text_file(dir / ("report" + std::to_string(run) + ".json")),
        r.out.substr(r.out.size() -
                     read_text_file(dir / ("report" + std::to_string(run) + ".json")).size()));
    for (const std::string& map : maps) {
      outputs[run].push_back(
          read_text_file(dir / (map + std::to_string(run) + (map == "id" ? ".png" : ".exr"))));
    }
    outputs[run].push_back(read_text_file(dir / ("raw" + std::to_string(run) + ".exr")));
  }
  for (std::size_t i = 0; i < outputs[0].size(); ++i) {
    EXPECT_FALSE(outputs[0][i].empty());
    EXPECT_EQ(outputs[0][i], outputs[1][i]) << i;
  }
  const TexelImage id = readPng(dir / "id0.png");
  EXPECT_EQ(id.width, 32);
  EXPECT_EQ(id.channels, 3);
  EXPECT_EQ(id.type, ComponentType::kU16);
}

TEST(MeshMapsCommand, LowAsHighNeedsNoHighAndItsHeightIsNeutral) {
  ScratchDir dir;
  const auto r = run_korvane({"meshmaps", "--low", kLow, "--low-as-high", "--size", "16",
                              "--out-height", (dir / "h.png").string()});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(summary_of(r.out)["low_as_high"], true);
  const TexelImage h = readPng(dir / "h.png");
  ASSERT_EQ(h.type, ComponentType::kU16);
  std::size_t neutral = 0;
  for (std::size_t i = 0; i < h.data.size(); i += 2) {
    std::uint16_t code = 0;
    std::memcpy(&code, h.data.data() + i, 2);
    EXPECT_TRUE(code == 0 || code == 32768) << code;
    neutral += code == 32768 ? 1 : 0;
  }
  EXPECT_GT(neutral, 100u);
}

TEST(MeshMapsCommand, MessagesAndExitCodes) {
  const std::string hint = "\nRun korvane --help for the options.\n";
  expect_error({"meshmaps", "--low", "a.obj", "--high", "b.obj", "--size", "512"}, 2,
               "korvane: meshmaps needs at least one output" + hint);
  expect_error(base({"--out-ao", "x.exr", "--ao-distribution", "gaussian"}), 2,
               "korvane: --ao-distribution takes uniform or cosine" + hint);
  expect_error(base({"--out-ao", "x.exr", "--ao-rays", "0"}), 1,
               "korvane: meshmaps: the ambient occlusion ray count must be 1 to 1000\n");
  expect_error(base({"--out-ao", "x.exr"}), 1,
               "korvane: KV_MESHMAPS_GPU_GROUP must be 32, 64 or 128\n",
               {"KV_MESHMAPS_GPU_GROUP=48"});
  expect_error(base({"--out-ao", "x.exr", "--backend", "gpu", "--gpu-failure-policy", "fail-fast"}),
               1,
               "korvane: meshmaps: the GPU backend cannot run: the GPU mesh maps backend is not "
               "available in this build\n");
  ScratchDir dir;
  test::write_text_file(dir / "short.x", std::string(100, 'a'));
  expect_error(base({"--out-ao", "x.exr", "--noise-x", (dir / "short.x").string()}), 1,
               "korvane: --noise-x needs a raw file of exactly 65536 bytes\n");
  expect_error(base({"--out-ao", "x.exr", "--noise", (dir / "short.x").string()}), 1,
               "korvane: --noise needs an 8- or 16-bit 256 x 256 PNG\n");

  expect_error(base({"--out-id", "id.png", "--high", (dir / "h.glb").string()}), 1,
               "korvane: meshmaps: --id-source material needs an OBJ high mesh\n");
  expect_error(base({"--out-raw", "raw.png"}), 2,
               "korvane: --out-raw writes float channels: it needs an .exr path" + hint);

  const auto help = run_korvane({"meshmaps", "--help"});
  EXPECT_EQ(help.exit_code, 0);
  EXPECT_NE(help.out.find("Usage: korvane meshmaps"), std::string::npos);
  EXPECT_NE(help.out.find("--ao-self-occlusion"), std::string::npos);
}

// The sanitizer's allocator reports a failed allocation instead of throwing.
#if !defined(__SANITIZE_ADDRESS__)
TEST(MeshMapsCommand, OutOfMemoryEndsWithItsOwnLine) {
  ScratchDir dir;
  std::vector<std::string> args = {"meshmaps", "--low", kLow, "--high", kHigh, "--size", "16384"};
  for (const char* map : {"--out-ao", "--out-world-normal", "--out-position", "--out-id"}) {
    args.push_back(map);
    args.push_back((dir / (std::string(map + 6) + ".exr")).string());
  }
  platform::ProcessResult r;
  {
    const test::AddressSpaceLimit limit(std::uint64_t{2} << 30);
    ASSERT_TRUE(limit.applied());
    r = run_korvane(args);
  }
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_EQ(r.err,
            "korvane meshmaps: out of memory: the maps of 16384 x 16384 texels do not fit in "
            "memory\n");
  EXPECT_EQ(r.out, "");
  EXPECT_FALSE(std::filesystem::exists(dir / "ao.exr"));
}
#endif

TEST(MeshMapsCommand, GpuFallsBackToTheCpuWithTheReason) {
  ScratchDir dir;
  test::write_text_file(dir / "noise.x", std::string(65536, '\x5a'));
  const auto r = run_korvane(base({"--out-ao", (dir / "ao.exr").string(), "--backend", "gpu",
                                   "--ao-rays", "4", "--noise-x", (dir / "noise.x").string()}));
  ASSERT_EQ(r.exit_code, 0) << r.err;
  const auto summary = summary_of(r.out);
  EXPECT_EQ(summary["backend"], "cpu");
  EXPECT_EQ(summary["gpu_fallback"], "the GPU mesh maps backend is not available in this build");
}

}  // namespace
}  // namespace kv::meshmaps
