#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "core/error.h"
#include "run/bake_options.h"

namespace kv::pipeline {
namespace {

using Args = std::vector<std::string>;

// A command line with the four required options and then the extra ones.
Args command(const Args& extra = {}) {
  Args args{"korvane",      "--low", "l.obj",  "--high", "h.obj",
            "--out-normal", "n.exr", "--size", "1024"};
  args.insert(args.end(), extra.begin(), extra.end());
  return args;
}

NormalBakeSettings parsed(const Args& extra) {
  return parseBakeOptions(command(extra));
}

// The UsageError text of a failing parse, or "" when it passes; settings
// mode reads a settings list instead of a command line.
std::string failure(const Args& args, bool settings = false) {
  try {
    settings ? parseBakeSettings(args) : parseBakeOptions(args);
  } catch (const UsageError& e) {
    return e.what();
  }
  return "";
}

// Every value of the option fails with the same message.
void refused(const std::string& option, const Args& values, const std::string& message) {
  for (const auto& value : values) {
    EXPECT_EQ(failure(command({option, value})), message) << value;
  }
}

TEST(BakeOptions, DefaultsAndRequiredOptions) {
  const NormalBakeSettings s = parseBakeOptions(command());
  EXPECT_EQ(std::tuple(s.udim, s.aa, s.front, s.band_samples, s.dilation, s.padding),
            std::tuple(1001, 1, 0.01f, 1048576u, 32, PaddingMode::ring));
  EXPECT_TRUE(s.relative_scale && s.average_normals && s.ignore_backface);
  EXPECT_EQ(std::tuple(s.backend, s.gpu_precision, s.gpu_band_ms),
            std::tuple("cpu", "fp32-resolve", 8.0));

  const std::string required = "--low, --high, --size and --out-normal are required";
  EXPECT_EQ(failure({"korvane"}), required);
  EXPECT_EQ(failure({"korvane", "--low", "l", "--high", "h", "--out-normal", "n"}), required);
  EXPECT_EQ(failure({"korvane", "--high", "h", "--out-normal", "n", "--size", "4"}), required);
  EXPECT_EQ(failure({"korvane", "--low", "l", "--high", "h", "--size", "4"}), required);
}

TEST(BakeOptions, ElementRulesAndTheirOrder) {
  EXPECT_EQ(failure({"korvane", "low.obj"}), "unexpected argument 'low.obj'");
  EXPECT_EQ(failure({"korvane", "-x", "1"}), "unexpected argument '-x'");
  EXPECT_EQ(failure({"korvane", "-", "1"}), "unexpected argument '-'");
  EXPECT_EQ(failure(command({"--aa"})), "missing value for --aa");
  // A missing value is found before the option is looked up.
  EXPECT_EQ(failure(command({"--nonsense"})), "missing value for --nonsense");
  EXPECT_EQ(failure(command({"--nonsense", "1"})), "unknown option --nonsense");
  EXPECT_EQ(failure(command({"--size=4", "1"})), "unknown option --size=4");
  EXPECT_EQ(failure(command({"--siz", "4"})), "unknown option --siz");
  // The first bad element wins.
  EXPECT_EQ(failure(command({"--aa", "x", "--nonsense", "1"})), "invalid value for --aa: 'x'");
  EXPECT_EQ(failure({"korvane", "--size", "x", "--help"}), "invalid value for --size: 'x'");
  // A value may itself begin with two hyphens.
  EXPECT_EQ(parseBakeOptions(command({"--low-suffix", "--x"})).low_suffix, "--x");
  // Repeated options keep the last value; --raster-material appends.
  const auto s = parseBakeOptions(
      command({"--aa", "2", "--aa", "4", "--raster-material", "a", "--raster-material", "b"}));
  EXPECT_EQ(s.aa, 4);
  EXPECT_EQ(s.raster_materials, (std::vector<std::string>{"a", "b"}));
}

// The number forms themselves are pinned where they are parsed.
TEST(BakeOptions, ValueForms) {
  EXPECT_EQ(failure(command({"--threads", "4x"})), "invalid value for --threads: '4x'");
  EXPECT_EQ(parsed({"--front", "+1.5e-1"}).front, 0.15f);
  EXPECT_EQ(failure(command({"--rear", "0.5mm"})), "invalid value for --rear: '0.5mm'");
  EXPECT_TRUE(parsed({"--average-normals", "on"}).average_normals);
  EXPECT_FALSE(parsed({"--average-normals", "off"}).average_normals);
  EXPECT_FALSE(parsed({"--relative-scale", "0"}).relative_scale);
  EXPECT_TRUE(parsed({"--progress", "true"}).progress);
  refused("--average-normals", {"yes"}, "--average-normals takes 0 or 1, not 'yes'");
  refused("--progress", {"True"}, "--progress takes 0 or 1, not 'True'");
  EXPECT_EQ(failure(command({"--low", "a\xFF.obj"})), "a path is not valid UTF-8");
  EXPECT_EQ(parsed({"--low", "\xC3\xA9.obj"}).low.string(), "\xC3\xA9.obj");
}

TEST(BakeOptions, WordOptionsRefuseOtherSpellings) {
  const std::vector<std::pair<std::string, std::string>> refusals = {
      {"--padding", "--padding takes ring, passthrough, infinite, transparent, color or diffusion"},
      {"--normal-format", "--normal-format takes opengl or directx"},
      {"--tangent-space", "--tangent-space takes per-fragment or per-vertex"},
      {"--match", "--match takes always, name or objects"},
      {"--quads", "--quads takes split or reject"},
      {"--backend", "--backend takes auto, gpu or cpu"},
      {"--gpu-pipeline", "--gpu-pipeline takes batched or resident"},
      {"--gpu-precision", "--gpu-precision takes exact, fp32-resolve or fp32"},
      {"--uv-snap-unit", "--uv-snap-unit takes sample or texel"},
  };
  for (const auto& [option, message] : refusals) {
    refused(option, {"OPENGL", ""}, message);
  }
  const auto s =
      parsed({"--padding", "diffusion", "--normal-format", "directx", "--tangent-space",
              "per-vertex", "--quads", "reject", "--uv-snap-unit", "texel", "--backend", "auto"});
  EXPECT_EQ(std::tuple(s.padding, s.normal_format, s.tangent_space, s.quads, s.uv_snap_texel),
            std::tuple(PaddingMode::diffusion, 1u, 1u, 1u, true));
  EXPECT_EQ(s.backend, "auto");
  const auto always = parsed({"--match", "always"});
  const auto name = parsed({"--match", "name"});
  const auto objects = parsed({"--match", "objects"});
  EXPECT_FALSE(always.match_by_name || always.match_objects);
  EXPECT_TRUE(name.match_by_name && !name.match_objects);
  EXPECT_TRUE(objects.match_by_name && objects.match_objects);
}

TEST(BakeOptions, RangeChecksWhileReading) {
  refused("--dilation", {"257", "-1"}, "--dilation takes 0 to 256");
  EXPECT_EQ(parsed({"--dilation", "256"}).dilation, 256);
  EXPECT_EQ(parsed({"--dilation", "0"}).dilation, 0);
  EXPECT_EQ(parsed({"--uv-snap-bits", "off"}).uv_snap_bits, -1);
  EXPECT_EQ(parsed({"--uv-snap-bits", "16"}).uv_snap_bits, 16);
  refused("--uv-snap-bits", {"17", "-1"}, "--uv-snap-bits takes 0 to 16 or off");
  refused("--uv-snap-bits", {"OFF"}, "invalid value for --uv-snap-bits: 'OFF'");
  refused("--uv-tile", {"1000", "2000"}, "--uv-tile takes 1001 to 1999");
  refused("--threads", {"-1"}, "--threads takes 0 or more");
  refused("--memory-budget-mb", {"-5"}, "--memory-budget-mb takes 0 (automatic) or more");
  EXPECT_TRUE(parsed({"--memory-budget-mb", "0"}).memory_budget_given);
  refused("--preview-size", {"0", "16385"}, "--preview-size takes 1 to 16384");
  EXPECT_EQ(parsed({"--preview-size", "16384"}).preview_size, 16384);
  refused("--gpu-band-growth", {"2.5", "65", "nan"},
          "--gpu-band-growth takes a whole number 0 to 64");
  EXPECT_EQ(parsed({"--gpu-band-growth", "64"}).gpu_band_growth, 64);
  EXPECT_EQ(parsed({"--gpu-band-growth", "1e1"}).gpu_band_growth, 10);
  refused("--gpu-band-ms", {"0.4", "nan"}, "--gpu-band-ms takes 0.5 to 1000");
  EXPECT_EQ(parsed({"--gpu-band-ms", "1000"}).gpu_band_ms, 1000.0);
  refused("--gpu-band-pause-ms", {"-0.1", "NaN"}, "--gpu-band-pause-ms takes 0 to 100");
  EXPECT_EQ(parsed({"--gpu-band-pause-ms", "100"}).gpu_band_pause_ms, 100.0);
  // Not range-checked while reading: the bake checks these when it starts.
  const auto wide =
      parsed({"--size", "0", "--aa", "3", "--udim", "5", "--front", "-1", "--rear", "inf"});
  EXPECT_EQ(wide.width, 0);
  EXPECT_EQ(wide.aa, 3);
}

TEST(BakeOptions, PaddingColorPieces) {
  auto color = [](const std::string& value) {
    return parsed({"--padding-color", value}).padding_color;
  };
  EXPECT_EQ(color("0"), (std::array<double, 3>{0.0, 32768.0, 65535.0}));
  EXPECT_EQ(color("1,+2,3.5"), (std::array<double, 3>{1.0, 2.0, 3.5}));
  EXPECT_EQ(color("-7,70000"), (std::array<double, 3>{-7.0, 70000.0, 65535.0}));
  // The fourth piece is refused before it is read.
  refused("--padding-color", {"1,2,3,x"}, "--padding-color takes at most 3 values");
  refused("--padding-color", {"1,,3", "1,2,"}, "invalid value for --padding-color: ''");
  refused("--padding-color", {"1,2x"}, "invalid value for --padding-color: '2x'");
  refused("--padding-color", {"+"}, "invalid value for --padding-color: '+'");
}

TEST(BakeOptions, FinalRules) {
  EXPECT_EQ(parsed({"--height", "512"}).width, 1024);
  Args height_first{"korvane", "--height",     "512", "--low",  "l",   "--high",
                    "h",       "--out-normal", "n",   "--size", "1024"};
  EXPECT_EQ(parseBakeOptions(height_first).height, 512);
  EXPECT_EQ(parseBakeOptions(height_first).width, 1024);
  EXPECT_EQ(parsed({"--uv-tile", "1002"}).udim, 1002);
  EXPECT_EQ(parsed({"--uv-tile", "1002", "--udim", "1002"}).udim, 1002);
  EXPECT_EQ(parsed({"--udim", "1003"}).udim, 1003);

  const std::string tiles = "--uv-tile and --udim name different tiles";
  const std::string pipeline = "--gpu-pipeline resident needs --backend gpu or auto";
  const std::string precision =
      "--gpu-precision fp32-resolve and fp32 need --gpu-pipeline resident";
  const std::pair<Args, std::string> cases[] = {
      {{"--uv-tile", "1002", "--udim", "1001"}, tiles},
      {{"--gpu-pipeline", "resident"}, pipeline},
      {{"--gpu-pipeline", "resident", "--backend", "cpu"}, pipeline},
      {{"--backend", "auto", "--gpu-pipeline", "resident"}, ""},
      {{"--backend", "cpu"}, ""},
      {{"--gpu-pipeline", "batched", "--gpu-precision", "fp32"}, precision},
      {{"--gpu-pipeline", "batched", "--gpu-precision", "fp32-resolve"}, precision},
      {{"--gpu-pipeline", "batched", "--gpu-precision", "exact"}, ""},
      {{"--gpu-precision", "fp32"}, ""},
      // The pipeline rule comes before the precision rule.
      {{"--gpu-pipeline", "resident", "--gpu-precision", "fp32"}, pipeline},
      // Final rules run after every element was read.
      {{"--uv-tile", "1002", "--udim", "1001", "--aa", "x"}, "invalid value for --aa: 'x'"},
  };
  for (const auto& [extra, message] : cases) {
    EXPECT_EQ(failure(command(extra)), message) << extra[0] << " " << extra[1];
  }
}

TEST(BakeOptions, SettingsMode) {
  const auto s = parseBakeSettings({"--size", "256", "--aa", "2"});
  EXPECT_EQ(s.width, 256);
  EXPECT_EQ(s.height, 256);
  EXPECT_EQ(s.aa, 2);
  EXPECT_EQ(failure({"--aa", "2"}, true), "settings need --size");
  EXPECT_EQ(failure({}, true), "settings need --size");
  for (const char* option :
       {"--low", "--high", "--out-normal", "--out-opacity", "--report", "--progress", "--preview",
        "--preview-size", "--quads", "--cache-dir", "--help", "-h"}) {
    EXPECT_EQ(failure({"--size", "4", option, "1"}, true),
              std::string(option) + " is not a setting");
  }
  // Reading starts at element 0, so a leading program name is an argument.
  EXPECT_EQ(failure({"korvane", "--size", "4"}, true), "unexpected argument 'korvane'");
  EXPECT_EQ(parseBakeSettings({"--size", "4", "--uv-tile", "1005"}).udim, 1005);
}

}  // namespace
}  // namespace kv::pipeline
