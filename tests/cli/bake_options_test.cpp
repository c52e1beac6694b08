#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "cli/bake_options.h"
#include "core/error.h"

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

// The UsageError text of a failing parse, or "" when it passes.
std::string failure(const Args& args) {
  try {
    parseBakeOptions(args);
  } catch (const UsageError& e) {
    return e.what();
  }
  return "";
}

std::string settings_failure(const Args& list) {
  try {
    parseBakeSettings(list);
  } catch (const UsageError& e) {
    return e.what();
  }
  return "";
}

TEST(BakeOptions, DefaultsAndRequiredOptions) {
  const NormalBakeSettings s = parseBakeOptions(command());
  EXPECT_EQ(s.low, "l.obj");
  EXPECT_EQ(s.width, 1024);
  EXPECT_EQ(s.height, 1024);
  EXPECT_EQ(s.udim, 1001);
  EXPECT_EQ(s.aa, 1);
  EXPECT_EQ(s.front, 0.01f);
  EXPECT_TRUE(s.relative_scale && s.average_normals && s.ignore_backface);
  EXPECT_EQ(s.uv_snap_bits, 8);
  EXPECT_EQ(s.band_samples, 1048576u);
  EXPECT_EQ(s.dilation, 32);
  EXPECT_EQ(s.padding, PaddingMode::ring);
  EXPECT_EQ(s.backend, "cpu");
  EXPECT_EQ(s.gpu_pipeline, "resident");
  EXPECT_EQ(s.gpu_precision, "fp32-resolve");
  EXPECT_EQ(s.gpu_band_ms, 8.0);
  EXPECT_EQ(s.padding_color[2], 65535.0);
  EXPECT_FALSE(s.help);

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
  // A value may itself begin with two hyphens.
  EXPECT_EQ(parseBakeOptions(command({"--low-suffix", "--x"})).low_suffix, "--x");
  // Repeated options keep the last value; --raster-material appends.
  const auto s = parseBakeOptions(
      command({"--aa", "2", "--aa", "4", "--raster-material", "a", "--raster-material", "b"}));
  EXPECT_EQ(s.aa, 4);
  EXPECT_EQ(s.raster_materials, (std::vector<std::string>{"a", "b"}));
}

TEST(BakeOptions, HelpStopsReadingAtOnce) {
  EXPECT_TRUE(parseBakeOptions({"korvane", "--help"}).help);
  EXPECT_TRUE(parseBakeOptions({"korvane", "-h"}).help);
  EXPECT_TRUE(parseBakeOptions({"korvane", "--size", "5", "--help", "--nonsense"}).help);
  EXPECT_EQ(failure({"korvane", "--nonsense", "--help"}), "unknown option --nonsense");
  EXPECT_EQ(failure({"korvane", "--size", "x", "--help"}), "invalid value for --size: 'x'");
}

TEST(BakeOptions, ValueForms) {
  EXPECT_EQ(parseBakeOptions(command({"--threads", "+4"})).threads, 4);
  EXPECT_EQ(failure(command({"--threads", "4x"})), "invalid value for --threads: '4x'");
  EXPECT_EQ(failure(command({"--size", ""})), "invalid value for --size: ''");
  EXPECT_EQ(failure(command({"--size", "2147483648"})), "invalid value for --size: '2147483648'");
  EXPECT_EQ(parseBakeOptions(command({"--front", "+1.5e-1"})).front, 0.15f);
  EXPECT_EQ(failure(command({"--rear", "1e39"})), "invalid value for --rear: '1e39'");
  EXPECT_EQ(failure(command({"--rear", "0.5mm"})), "invalid value for --rear: '0.5mm'");
  EXPECT_TRUE(parseBakeOptions(command({"--average-normals", "on"})).average_normals);
  EXPECT_FALSE(parseBakeOptions(command({"--average-normals", "off"})).average_normals);
  EXPECT_FALSE(parseBakeOptions(command({"--relative-scale", "0"})).relative_scale);
  EXPECT_TRUE(parseBakeOptions(command({"--progress", "true"})).progress);
  EXPECT_EQ(failure(command({"--average-normals", "yes"})),
            "--average-normals takes 0 or 1, not 'yes'");
  EXPECT_EQ(failure(command({"--progress", "True"})), "--progress takes 0 or 1, not 'True'");
  EXPECT_EQ(failure(command({"--low", "a\xFF.obj"})), "a path is not valid UTF-8");
  EXPECT_EQ(parseBakeOptions(command({"--low", "\xC3\xA9.obj"})).low.string(), "\xC3\xA9.obj");
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
    EXPECT_EQ(failure(command({option, "OPENGL"})), message) << option;
    EXPECT_EQ(failure(command({option, ""})), message) << option;
  }
  const auto s = parseBakeOptions(
      command({"--padding", "diffusion", "--normal-format", "directx", "--tangent-space",
               "per-vertex", "--quads", "reject", "--uv-snap-unit", "texel", "--backend", "auto"}));
  EXPECT_EQ(s.padding, PaddingMode::diffusion);
  EXPECT_EQ(s.normal_format, 1u);
  EXPECT_EQ(s.tangent_space, 1u);
  EXPECT_EQ(s.quads, 1u);
  EXPECT_TRUE(s.uv_snap_texel);
  EXPECT_EQ(s.backend, "auto");
  const auto always = parseBakeOptions(command({"--match", "always"}));
  const auto name = parseBakeOptions(command({"--match", "name"}));
  const auto objects = parseBakeOptions(command({"--match", "objects"}));
  EXPECT_FALSE(always.match_by_name || always.match_objects);
  EXPECT_TRUE(name.match_by_name && !name.match_objects);
  EXPECT_TRUE(objects.match_by_name && objects.match_objects);
}

TEST(BakeOptions, RangeChecksWhileReading) {
  EXPECT_EQ(failure(command({"--dilation", "257"})), "--dilation takes 0 to 256");
  EXPECT_EQ(failure(command({"--dilation", "-1"})), "--dilation takes 0 to 256");
  EXPECT_EQ(parseBakeOptions(command({"--dilation", "256"})).dilation, 256);
  EXPECT_EQ(parseBakeOptions(command({"--dilation", "0"})).dilation, 0);
  EXPECT_EQ(parseBakeOptions(command({"--uv-snap-bits", "off"})).uv_snap_bits, -1);
  EXPECT_EQ(parseBakeOptions(command({"--uv-snap-bits", "16"})).uv_snap_bits, 16);
  EXPECT_EQ(failure(command({"--uv-snap-bits", "17"})), "--uv-snap-bits takes 0 to 16 or off");
  EXPECT_EQ(failure(command({"--uv-snap-bits", "-1"})), "--uv-snap-bits takes 0 to 16 or off");
  EXPECT_EQ(failure(command({"--uv-snap-bits", "OFF"})), "invalid value for --uv-snap-bits: 'OFF'");
  EXPECT_EQ(failure(command({"--uv-tile", "1000"})), "--uv-tile takes 1001 to 1999");
  EXPECT_EQ(failure(command({"--uv-tile", "2000"})), "--uv-tile takes 1001 to 1999");
  EXPECT_EQ(failure(command({"--threads", "-1"})), "--threads takes 0 or more");
  EXPECT_EQ(failure(command({"--memory-budget-mb", "-5"})),
            "--memory-budget-mb takes 0 (automatic) or more");
  const auto budget = parseBakeOptions(command({"--memory-budget-mb", "0"}));
  EXPECT_TRUE(budget.memory_budget_given);
  EXPECT_EQ(failure(command({"--preview-size", "0"})), "--preview-size takes 1 to 16384");
  EXPECT_EQ(failure(command({"--preview-size", "16385"})), "--preview-size takes 1 to 16384");
  EXPECT_EQ(parseBakeOptions(command({"--preview-size", "16384"})).preview_size, 16384);

  const std::string growth = "--gpu-band-growth takes a whole number 0 to 64";
  EXPECT_EQ(failure(command({"--gpu-band-growth", "2.5"})), growth);
  EXPECT_EQ(failure(command({"--gpu-band-growth", "65"})), growth);
  EXPECT_EQ(failure(command({"--gpu-band-growth", "nan"})), growth);
  EXPECT_EQ(parseBakeOptions(command({"--gpu-band-growth", "64"})).gpu_band_growth, 64);
  EXPECT_EQ(parseBakeOptions(command({"--gpu-band-growth", "1e1"})).gpu_band_growth, 10);
  EXPECT_EQ(failure(command({"--gpu-band-ms", "0.4"})), "--gpu-band-ms takes 0.5 to 1000");
  EXPECT_EQ(failure(command({"--gpu-band-ms", "nan"})), "--gpu-band-ms takes 0.5 to 1000");
  EXPECT_EQ(parseBakeOptions(command({"--gpu-band-ms", "1000"})).gpu_band_ms, 1000.0);
  EXPECT_EQ(failure(command({"--gpu-band-pause-ms", "-0.1"})),
            "--gpu-band-pause-ms takes 0 to 100");
  EXPECT_EQ(failure(command({"--gpu-band-pause-ms", "NaN"})), "--gpu-band-pause-ms takes 0 to 100");
  EXPECT_EQ(parseBakeOptions(command({"--gpu-band-pause-ms", "100"})).gpu_band_pause_ms, 100.0);
  // Not range-checked while reading: the bake checks these when it starts.
  const auto wide = parseBakeOptions(
      command({"--size", "0", "--aa", "3", "--udim", "5", "--front", "-1", "--rear", "inf"}));
  EXPECT_EQ(wide.width, 0);
  EXPECT_EQ(wide.aa, 3);
}

TEST(BakeOptions, PaddingColorPieces) {
  auto color = [](const std::string& value) {
    return parseBakeOptions(command({"--padding-color", value})).padding_color;
  };
  EXPECT_EQ(color("0"), (std::array<double, 3>{0.0, 32768.0, 65535.0}));
  EXPECT_EQ(color("1,+2,3.5"), (std::array<double, 3>{1.0, 2.0, 3.5}));
  EXPECT_EQ(color("-7,70000"), (std::array<double, 3>{-7.0, 70000.0, 65535.0}));
  EXPECT_EQ(failure(command({"--padding-color", "1,2,3,4"})),
            "--padding-color takes at most 3 values");
  // The fourth piece is refused before it is read.
  EXPECT_EQ(failure(command({"--padding-color", "1,2,3,x"})),
            "--padding-color takes at most 3 values");
  EXPECT_EQ(failure(command({"--padding-color", "1,,3"})), "invalid value for --padding-color: ''");
  EXPECT_EQ(failure(command({"--padding-color", "1,2,"})), "invalid value for --padding-color: ''");
  EXPECT_EQ(failure(command({"--padding-color", "1,2x"})),
            "invalid value for --padding-color: '2x'");
  EXPECT_EQ(failure(command({"--padding-color", "+"})), "invalid value for --padding-color: '+'");
}

TEST(BakeOptions, FinalRules) {
  const auto s = parseBakeOptions(command({"--height", "512"}));
  EXPECT_EQ(s.width, 1024);
  EXPECT_EQ(s.height, 512);
  Args height_first{"korvane", "--height",     "512", "--low",  "l",   "--high",
                    "h",       "--out-normal", "n",   "--size", "1024"};
  EXPECT_EQ(parseBakeOptions(height_first).height, 512);
  EXPECT_EQ(parseBakeOptions(height_first).width, 1024);

  EXPECT_EQ(parseBakeOptions(command({"--uv-tile", "1002"})).udim, 1002);
  EXPECT_EQ(parseBakeOptions(command({"--uv-tile", "1002", "--udim", "1002"})).udim, 1002);
  EXPECT_EQ(failure(command({"--uv-tile", "1002", "--udim", "1001"})),
            "--uv-tile and --udim name different tiles");
  EXPECT_EQ(parseBakeOptions(command({"--udim", "1003"})).udim, 1003);

  EXPECT_EQ(failure(command({"--gpu-pipeline", "resident"})),
            "--gpu-pipeline resident needs --backend gpu or auto");
  EXPECT_EQ(failure(command({"--gpu-pipeline", "resident", "--backend", "cpu"})),
            "--gpu-pipeline resident needs --backend gpu or auto");
  EXPECT_EQ(failure(command({"--backend", "auto", "--gpu-pipeline", "resident"})), "");
  EXPECT_EQ(failure(command({"--backend", "cpu"})), "");
  EXPECT_EQ(failure(command({"--gpu-pipeline", "batched", "--gpu-precision", "fp32"})),
            "--gpu-precision fp32-resolve and fp32 need --gpu-pipeline resident");
  EXPECT_EQ(failure(command({"--gpu-pipeline", "batched", "--gpu-precision", "fp32-resolve"})),
            "--gpu-precision fp32-resolve and fp32 need --gpu-pipeline resident");
  EXPECT_EQ(failure(command({"--gpu-pipeline", "batched", "--gpu-precision", "exact"})), "");
  EXPECT_EQ(failure(command({"--gpu-precision", "fp32"})), "");
  // The pipeline rule comes before the precision rule.
  EXPECT_EQ(failure(command({"--gpu-pipeline", "resident", "--gpu-precision", "fp32"})),
            "--gpu-pipeline resident needs --backend gpu or auto");
  // Final rules run after every element was read.
  EXPECT_EQ(failure(command({"--uv-tile", "1002", "--udim", "1001", "--aa", "x"})),
            "invalid value for --aa: 'x'");
}

TEST(BakeOptions, SettingsMode) {
  const auto s = parseBakeSettings({"--size", "256", "--aa", "2"});
  EXPECT_EQ(s.width, 256);
  EXPECT_EQ(s.height, 256);
  EXPECT_EQ(s.aa, 2);
  EXPECT_TRUE(s.low.empty());
  EXPECT_EQ(settings_failure({"--aa", "2"}), "settings need --size");
  EXPECT_EQ(settings_failure({}), "settings need --size");
  for (const char* option :
       {"--low", "--high", "--out-normal", "--out-opacity", "--report", "--progress", "--preview",
        "--preview-size", "--quads", "--cache-dir", "--help", "-h"}) {
    EXPECT_EQ(settings_failure({"--size", "4", option, "1"}),
              std::string(option) + " is not a setting");
  }
  // Reading starts at element 0, so a leading program name is an argument.
  EXPECT_EQ(settings_failure({"korvane", "--size", "4"}), "unexpected argument 'korvane'");
  EXPECT_EQ(settings_failure({"--size", "4", "--uv-tile", "1005"}), "");
  EXPECT_EQ(parseBakeSettings({"--size", "4", "--uv-tile", "1005"}).udim, 1005);
}

}  // namespace
}  // namespace kv::pipeline
