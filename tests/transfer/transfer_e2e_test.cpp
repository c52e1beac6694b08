// The transfer command through the built binary: help, exit codes and
// messages of each kind of failure, the summary line and the report file.
#include <gtest/gtest.h>

#include <sstream>

#include "support/test_support.h"
#include "transfer_test_util.h"

namespace kv {
namespace {

using test::run_korvane;

constexpr const char* kHint = "\nRun korvane --help for the options.\n";

TEST(TransferCommand, HelpUsageErrorsAndErrorsExitAsTheRestOfTheProgram) {
  const platform::ProcessResult help = run_korvane({"transfer", "--help"});
  EXPECT_EQ(help.exit_code, 0);
  EXPECT_EQ(help.out.rfind("korvane 0.4.0 transfer: ", 0), 0u);
  // Every option of the command is listed.
  const std::string options =
      "--mode --target --source-uvs --high --size --height --texture --bind --bind-object "
      "--bind-material --source-tile --out --out-mask --out-srgb --out-padding-color --aa "
      "--filter --address --weights --snap --dilation --padding --padding-color --udim --threads "
      "--backend --front --rear --relative-scale --average-normals --ignore-backface --match "
      "--raster-material --raster-object --low-suffix --high-suffix --dump-hits --report --help";
  std::istringstream words(options);
  for (std::string option; words >> option;) {
    // Its own entry ("\n  --x <value>", "\n  --x, -h") or the second of a pair ("--y, --x <d>").
    bool listed = false;
    for (const std::string before : {"\n  ", ", "}) {
      for (const char after : {' ', ','}) {
        listed = listed || help.out.find(before + option + after) != std::string::npos;
      }
    }
    EXPECT_TRUE(listed) << option;
  }
  EXPECT_EQ(help.err, "");

  const platform::ProcessResult usage = run_korvane({"transfer", "--mode", "copy"});
  EXPECT_EQ(usage.exit_code, 2);
  EXPECT_EQ(usage.err, std::string("korvane: --mode takes uv2uv or m2m") + kHint);
  EXPECT_EQ(usage.out, "");

  const test::ScratchDir dir;
  const auto plane = test::write_obj(dir, "plane.obj", {test::Quad{}});
  test::write_text_file(dir / "short.kvt", std::string(31, 'K'));
  const std::vector<std::string> base = {"transfer",     "--mode", "m2m",          "--target",
                                         plane.string(), "--high", plane.string(), "--size"};
  auto args = base;
  args.insert(args.end(), {"0", "--texture", "t.kvt", "--out", "o.kvt"});
  const platform::ProcessResult size = run_korvane(args);
  EXPECT_EQ(size.exit_code, 1);
  EXPECT_EQ(size.err, "korvane: transfer: the output size must be 1 to 16384 texels per side\n");

  args = base;
  args.insert(args.end(),
              {"4", "--texture", (dir / "short.kvt").string(), "--out", (dir / "o.kvt").string()});
  const platform::ProcessResult bad_file = run_korvane(args);
  EXPECT_EQ(bad_file.exit_code, 1);
  EXPECT_EQ(bad_file.err, "korvane: .kvt: not a korvane texel file\n");

  args.insert(args.end(), {"--dump-hits", (dir / "h.bin").string(), "--backend", "gpu"});
  const platform::ProcessResult gpu = run_korvane(args);
  EXPECT_EQ(gpu.exit_code, 1);
  EXPECT_EQ(gpu.err, "korvane: transfer: keeping hits needs the CPU path\n");
  EXPECT_FALSE(std::filesystem::exists(dir / "o.kvt"));
  EXPECT_FALSE(std::filesystem::exists(dir / "h.bin"));
}

TEST(TransferCommand, SummaryLineEndsStdoutAndGoesToTheReport) {
  const test::ScratchDir dir;
  const auto plane = test::write_obj(dir, "plane.obj", {test::Quad{}});
  write_kvt(dir / "in.kvt", test::pattern_image(4, 4, 3, ComponentType::kU16));
  const platform::ProcessResult run = run_korvane(
      {"transfer", "--mode", "uv2uv", "--target", plane.string(), "--source-uvs", plane.string(),
       "--size", "4", "--texture", (dir / "in.kvt").string(), "--out", (dir / "o.kvt").string(),
       "--report", (dir / "report.json").string(), "--threads", "2"});
  ASSERT_EQ(run.exit_code, 0) << run.err;
  EXPECT_EQ(run.err, "");
  ASSERT_FALSE(run.out.empty());
  EXPECT_EQ(run.out.back(), '\n');
  EXPECT_EQ(test::read_text_file(dir / "report.json"), run.out);
  const Json summary = Json::parse(run.out);
  std::vector<std::string> keys;
  for (const auto& item : summary.items()) {
    keys.push_back(item.key());
  }
  const std::vector<std::string> first = {"korvane", "mode",     "target",  "size",   "aa",
                                          "outputs", "coverage", "backend", "seconds"};
  ASSERT_GE(keys.size(), first.size());
  EXPECT_EQ(std::vector<std::string>(keys.begin(), keys.begin() + 9), first);
  EXPECT_EQ(summary["mode"], "uv2uv");
  EXPECT_EQ(summary["size"], Json::array({4, 4}));
  EXPECT_EQ(summary["outputs"][0]["path"], (dir / "o.kvt").string());
  EXPECT_EQ(summary["outputs"][0]["channels"], 3);
  EXPECT_EQ(summary["outputs"][0]["type"], "u16");
  EXPECT_EQ(summary["outputs"][0]["texels_valid"], 16);
  EXPECT_EQ(summary["outputs"][0]["texels_padded"], 0);
  EXPECT_EQ(summary["coverage"], Json::parse(R"({"texels":16,"hits":16,"missed":0})"));
  EXPECT_EQ(summary["backend"], "cpu");
  EXPECT_TRUE(summary["seconds"].contains("total"));
  EXPECT_FALSE(summary["gpu_unavailable"].get<std::string>().empty());  // auto says why
}

}  // namespace
}  // namespace kv
