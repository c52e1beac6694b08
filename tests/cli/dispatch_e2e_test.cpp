// Runs the built binary and checks stdout, stderr and the exit code.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "core/json_line.h"
#include "support/test_support.h"

namespace kv {
namespace {

using test::run_korvane;

void expect_usage_error(const std::vector<std::string>& args, const std::string& message) {
  const auto r = run_korvane(args);
  EXPECT_EQ(r.exit_code, 2) << message;
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "korvane: " + message + "\nRun korvane --help for the options.\n");
}

TEST(Dispatch, VersionPrintsThreeLines) {
  const auto r = run_korvane({"--version"});
  EXPECT_EQ(r.exit_code, 0);
  EXPECT_EQ(r.err, "");
  // The version is the one project() in CMakeLists.txt sets.
  const std::string head = "Korvane Engine (korvane) " KV_PROJECT_VERSION "\ncommit: ";
  const std::string tail = "\nplatform: linux-x64\n";
  ASSERT_EQ(r.out.size(), head.size() + 12 + tail.size()) << r.out;
  EXPECT_EQ(r.out.substr(0, head.size()), head);
  EXPECT_EQ(r.out.substr(head.size() + 12), tail);
  const std::string commit = r.out.substr(head.size(), 12);
  EXPECT_EQ(commit.find_first_not_of("0123456789abcdef"), std::string::npos) << commit;
  expect_usage_error({"--version", "--help"}, "--version takes no other option");
  // Only recognised as the first argument: elsewhere it is a bake option.
  expect_usage_error({"--low", "a.obj", "--version"}, "missing value for --version");
  expect_usage_error({"--low", "a.obj", "--version", "1"}, "unknown option --version");
}

TEST(Dispatch, UsageErrorIsTwoLines) {
  expect_usage_error({}, "--low, --high, --size and --out-normal are required");
  expect_usage_error({"--low", "bad\xFF.obj", "--high", "h", "--out-normal", "n", "--size", "4"},
                     "a path is not valid UTF-8");
}

TEST(Dispatch, HelpPrintsTheUsageAndReadsNoFile) {
  for (const std::vector<std::string>& args : {std::vector<std::string>{"--help"},
                                               {"-h"},
                                               {"--size", "5", "--help", "--nonsense"},
                                               {"--low", "/no/such/file.obj", "--help"}}) {
    const auto r = run_korvane(args);
    EXPECT_EQ(r.exit_code, 0);
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(r.out.rfind("korvane " KV_PROJECT_VERSION ": ", 0), 0u) << r.out.substr(0, 80);
    // One banner line, then a blank line, then the usage lines.
    const std::size_t banner_end = r.out.find('\n');
    EXPECT_NE(r.out.substr(0, banner_end).find("reference painting application's baker"),
              std::string::npos);
    const std::string usage =
        "\n\nUsage: korvane --low <low.obj|.kvm> --high <high.obj|.kvm|.gltf|.glb|.fbx> --size <W> "
        "--out-normal <normal.exr|.png> [options]\n"
        "       korvane serve --parent-pid <pid> [--threads <n>] [--cache-dir <dir>]\n"
        "       korvane transfer --mode uv2uv|m2m ...  (Texture Transfer; korvane transfer "
        "--help)\n";
    EXPECT_EQ(r.out.substr(banner_end, usage.size()), usage);
    const std::string last =
        "stdout ends with one JSON summary line; errors go to stderr with a nonzero exit code.\n";
    ASSERT_GE(r.out.size(), last.size());
    EXPECT_EQ(r.out.substr(r.out.size() - last.size()), last);
  }
  expect_usage_error({"--nonsense", "--help"}, "unknown option --nonsense");
}

TEST(Dispatch, HelpListsEveryOptionInTableOrder) {
  const std::string help = run_korvane({"--help"}).out;
  std::string listed;  // the first word of every option line, in order
  for (std::size_t at = help.find("\n  --"); at != std::string::npos;
       at = help.find("\n  --", at + 1)) {
    listed += help.substr(at + 3, help.find_first_of(" ,", at + 3) - at - 3) + " ";
  }
  EXPECT_EQ(listed,
            "--low --high --out-normal --out-opacity --report --cache-dir --preview --size "
            "--height --udim --aa --front --rear --relative-scale --average-normals "
            "--ignore-backface --dilation --padding --padding-color --normal-format "
            "--tangent-space --match --low-suffix --high-suffix --raster-material --uv-tile "
            "--quads --threads --backend --gpu-pipeline --gpu-precision --gpu-band-pause-ms "
            "--gpu-band-growth --gpu-band-ms --uv-snap-bits --uv-snap-unit --memory-budget-mb "
            "--progress --preview-size --gpu-info --help --version --parent-pid --threads "
            "--load-threads --cache-dir --cache-max-mb --memory-budget-mb ");
  const std::size_t throttling = help.find("KORVANE_POWER_THROTTLING=os");
  EXPECT_GT(throttling, help.find("\n  --cache-max-mb "));
  EXPECT_NE(help.find("UNORM16", throttling), std::string::npos);
}

TEST(Dispatch, GpuInfo) {
  const auto r = run_korvane({"--gpu-info"});
  EXPECT_EQ(r.exit_code, 1);  // no usable GPU in this build
  EXPECT_EQ(r.err, "");
  ASSERT_FALSE(r.out.empty());
  EXPECT_EQ(r.out.find('\n'), r.out.size() - 1);  // exactly one line
  const Json report = Json::parse(r.out);
  ASSERT_EQ(report.size(), 1u);
  const Json& gpu = report.at("gpu");
  std::string keys;
  for (const auto& item : gpu.items()) {
    keys += item.key() + " ";
  }
  EXPECT_EQ(keys,
            "available device driver api_version ray_query acceleration_structure "
            "buffer_device_address float64 int64 denorm_preserve_32 denorm_preserve_64 rte_32 "
            "rte_64 signed_zero_inf_nan_32 signed_zero_inf_nan_64 subgroup_size "
            "timestamp_period_ns vram_budget vram_usage ");
  EXPECT_EQ(gpu["available"], false);
  EXPECT_EQ(gpu["device"], "");
  EXPECT_EQ(gpu["api_version"], "0.0.0");
  EXPECT_EQ(gpu["vram_budget"], 0);

  expect_usage_error({"--gpu-info", "--threads", "2"}, "--gpu-info takes no other option");
  expect_usage_error({"--low", "x", "--gpu-info"}, "--gpu-info takes no other option");
  // Found anywhere in the list, even as a value.
  expect_usage_error({"--low", "--gpu-info"}, "--gpu-info takes no other option");
}

TEST(Dispatch, OtherCommandsOnlyAsFirstArgument) {
  expect_usage_error({"serve"}, "korvane serve needs --parent-pid <pid>");
  expect_usage_error(
      {"transfer"}, "transfer needs --mode, --target, --size and at least one --texture and --out");
  expect_usage_error({"--size", "4", "transfer"}, "unexpected argument 'transfer'");
  expect_usage_error({"meshmaps"}, "meshmaps needs --low, --high (or --low-as-high) and --size");
  expect_usage_error({"--low", "a", "meshmaps", "1"}, "unexpected argument 'meshmaps'");
  expect_usage_error({"--low", "a", "--size", "serve"}, "invalid value for --size: 'serve'");
}

// The boundaries of each start check are pinned where the checks live; here,
// that a failing check exits with one before any input is read.
TEST(Dispatch, BakeStartChecksExitWithOne) {
  const std::string size = "output size must be 1 to 16384 texels per side";
  const std::pair<std::vector<std::string>, std::string> cases[] = {
      {{"--size", "0"}, size},
      {{"--size", "64", "--height", "0"}, size},
      {{"--size", "64", "--aa", "3"}, "antialiasing must be 1, 2, 4 or 8 sub-samples per side"}};
  for (const auto& [extra, message] : cases) {
    std::vector<std::string> args = {"--low", "l.obj", "--high", "h.obj", "--out-normal", "n.exr"};
    args.insert(args.end(), extra.begin(), extra.end());
    const auto r = run_korvane(args);
    EXPECT_EQ(r.exit_code, 1) << message;
    EXPECT_EQ(r.err, "korvane: " + message + "\n");
    EXPECT_EQ(r.out, "");
  }
}

TEST(Dispatch, PowerThrottlingVariableNeverChangesTheOutcome) {
  for (const char* value : {"os", "OS", "os ", "1", ""}) {
    const auto r =
        run_korvane({"--version"}, {}, {std::string("KORVANE_POWER_THROTTLING=") + value});
    EXPECT_EQ(r.exit_code, 0) << value;
    EXPECT_EQ(r.err, "");
  }
}

}  // namespace
}  // namespace kv
