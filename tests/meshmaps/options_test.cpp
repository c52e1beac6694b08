#include <gtest/gtest.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "core/error.h"
#include "meshmaps/meshmaps_options.h"
#include "support/message_of.h"

namespace kv::meshmaps {
namespace {

using pipeline::UsageError;
using test::message_of;

std::vector<std::string> command(std::vector<std::string> extra) {
  std::vector<std::string> args = {"korvane", "meshmaps", "--low", "l.obj",    "--high",
                                   "h.obj",   "--size",   "64",    "--out-ao", "ao.exr"};
  args.insert(args.end(), extra.begin(), extra.end());
  return args;
}

std::string usage_message(std::vector<std::string> extra) {
  return message_of<UsageError>([&] { parse_meshmaps_options(command(std::move(extra))); });
}

std::string check_message(std::vector<std::string> extra) {
  return message_of<Error>(
      [&] { check_meshmaps_settings(parse_meshmaps_options(command(std::move(extra)))); });
}

TEST(MeshMapsOptions, DefaultsAsDocumented) {
  const MeshMapsSettings s = parse_meshmaps_options(command({}));
  EXPECT_EQ(s.bake.width, 64);
  EXPECT_EQ(s.bake.height, 64);
  EXPECT_EQ(s.bake.aa, 1);
  EXPECT_EQ(s.bake.dilation, 0);
  EXPECT_FLOAT_EQ(s.bake.front, 0.01f);
  EXPECT_TRUE(s.bake.relative_scale);
  EXPECT_EQ(s.ao.rays, 64);
  EXPECT_FLOAT_EQ(s.ao.min, 1e-5f);
  EXPECT_FLOAT_EQ(s.ao.max, 1.0f);
  EXPECT_EQ(s.ao.distribution, Distribution::cosine);
  EXPECT_EQ(s.ao_attenuation, Attenuation::linear);
  EXPECT_FLOAT_EQ(s.thickness.max, 0.1f);
  EXPECT_EQ(s.thickness_range, ThicknessRange::minmax);
  EXPECT_EQ(s.curvature.rays, 32);
  EXPECT_FLOAT_EQ(s.curvature.max, 0.001f);
  EXPECT_FLOAT_EQ(s.curvature_multiplier, 0.5f);
  EXPECT_EQ(s.height_range, HeightRange::lowmesh);
  EXPECT_EQ(s.id_source, IdSource::material);
  EXPECT_EQ(s.id_generator, IdGenerator::hue);
  EXPECT_EQ(s.world_normal_up, 2);
  EXPECT_EQ(s.bake.backend, "cpu");
  EXPECT_EQ(s.gpu_wait_limit_ms, 600000);
  EXPECT_NO_THROW(check_meshmaps_settings(s));
}

TEST(MeshMapsOptions, SwitchesTakeNoValueAndOutputsKeepTheirOrder) {
  const MeshMapsSettings s = parse_meshmaps_options({"korvane",
                                                     "meshmaps",
                                                     "--out-id",
                                                     "id.png",
                                                     "--low",
                                                     "l.obj",
                                                     "--low-as-high",
                                                     "--absolute-distances",
                                                     "--no-average-normals",
                                                     "--keep-backface",
                                                     "--ao-absolute",
                                                     "--size",
                                                     "32",
                                                     "--height-px",
                                                     "16",
                                                     "--out-height",
                                                     "h.exr",
                                                     "--out-id",
                                                     "id2.png",
                                                     "--gpu-exact",
                                                     "--antialias",
                                                     "8"});
  EXPECT_TRUE(s.low_as_high);
  EXPECT_FALSE(s.bake.relative_scale);
  EXPECT_FALSE(s.bake.average_normals);
  EXPECT_FALSE(s.bake.ignore_backface);
  EXPECT_TRUE(s.ao.absolute);
  EXPECT_TRUE(s.gpu_exact);
  EXPECT_EQ(s.bake.width, 32);
  EXPECT_EQ(s.bake.height, 16);
  EXPECT_EQ(s.bake.aa, 8);
  EXPECT_EQ(s.out.id, "id2.png");  // the last value counts, the first place stays
  EXPECT_EQ(s.map_order, (std::vector<std::string>{"id", "height"}));

  const MeshMapsSettings a = parse_meshmaps_options(
      command({"--id-source", "vertex", "--world-normal-up", "y", "--match", "objects"}));
  EXPECT_EQ(a.id_source, IdSource::vertex_color);
  EXPECT_EQ(a.world_normal_up, 1);
  EXPECT_TRUE(a.bake.match_by_name && a.bake.match_objects);
  EXPECT_EQ(parse_meshmaps_options(command({"--id-source", "mesh-id"})).id_source,
            IdSource::polygroup);
  EXPECT_TRUE(parse_meshmaps_options(command({"--help"})).help);
}

TEST(MeshMapsOptions, UsageMessagesNameTheOptionAndTheRule) {
  EXPECT_EQ(message_of<UsageError>([] {
              parse_meshmaps_options(
                  {"korvane", "meshmaps", "--low", "a.obj", "--high", "b.obj", "--size", "512"});
            }),
            "meshmaps needs at least one output");
  EXPECT_EQ(message_of<UsageError>([] {
              parse_meshmaps_options(
                  {"korvane", "meshmaps", "--high", "b.obj", "--size", "8", "--out-ao", "a.exr"});
            }),
            "meshmaps needs --low, --high (or --low-as-high) and --size");
  const std::map<std::vector<std::string>, std::string> cases = {
      {{"--ao-distribution", "gaussian"}, "--ao-distribution takes uniform or cosine"},
      {{"--bent-self-occlusion", "never"}, "--bent-self-occlusion takes always or same-name"},
      {{"--ao-ground-plane", "1"}, "--ao-ground-plane takes on or off"},
      {{"--ao-attenuation", "x"}, "--ao-attenuation takes none, smooth or linear"},
      {{"--thickness-range", "x"}, "--thickness-range takes ray, minmax or none"},
      {{"--height-range", "x"}, "--height-range takes ray, lowmesh, minmax or manual"},
      {{"--id-source", "x"},
       "--id-source takes object, polygroup, material, mesh-island or vertex-color"},
      {{"--backend", "auto"}, "--backend takes cpu or gpu"},
      {{"--gpu-failure-policy", "x"},
       "--gpu-failure-policy takes fallback, fail-fast or retry-then-fail"},
      {{"--antialias", "3"}, "--antialias takes 1, 2, 4 or 8"},
      {{"--ao-min", "near"}, "--ao-min needs a number"},
      {{"--curvature-radius", "inf"}, "--curvature-radius needs a number"},
      {{"--ao-rays", "6.5"}, "--ao-rays needs an integer"},
      {{"--id-seed", "-1"}, "--id-seed needs an integer"},
      {{"--thickness-max"}, "--thickness-max needs a value"},
      {{"--ao-spread", "181"}, "--ao-spread takes 0 to 180"},
      {{"--gpu-batch-ms", "0.25"}, "--gpu-batch-ms takes 0.5 to 1000"},
      {{"--dilation", "257"}, "--dilation takes 0 to 256"},
      {{"--uv-tile", "1000"}, "--uv-tile takes 1001 to 1999"},
      {{"--out-normal", "n.exr"}, "unknown option --out-normal"},
      {{"stray"}, "unexpected argument 'stray'"},
      {{"--low-as-high"}, "--low-as-high bakes without --high"},
  };
  for (const auto& [extra, message] : cases) {
    EXPECT_EQ(usage_message(extra), message) << extra[0];
  }
}

TEST(MeshMapsOptions, SettingsChecksNameTheMap) {
  const std::map<std::vector<std::string>, std::string> cases = {
      {{"--ao-rays", "0"}, "meshmaps: the ambient occlusion ray count must be 1 to 1000"},
      {{"--bent-rays", "1001"}, "meshmaps: the bent normals ray count must be 1 to 1000"},
      {{"--thickness-rays", "0"}, "meshmaps: the thickness ray count must be 1 to 1000"},
      {{"--curvature-rays", "1001"}, "meshmaps: the curvature ray count must be 1 to 1000"},
      {{"--ao-max", "0"}, "meshmaps: the occlusion distance must be positive"},
      {{"--bent-max", "-1"}, "meshmaps: the bent normals distance must be positive"},
      {{"--thickness-min", "-0.5"}, "meshmaps: the thickness distance must be positive"},
      {{"--curvature-radius", "0"}, "meshmaps: the curvature radius must be positive"},
      {{"--size", "65537"}, "meshmaps: at most 65536 texels per side"},
      {{"--height-px", "70000"}, "meshmaps: at most 65536 texels per side"},
  };
  for (const auto& [extra, message] : cases) {
    EXPECT_EQ(check_message(extra), message) << extra[0];
  }
  // The limits themselves pass.
  EXPECT_EQ(check_message({"--ao-rays", "1000", "--bent-rays", "1", "--curvature-rays", "1000"}),
            "(no error)");
}

TEST(MeshMapsOptions, SettingsModeLeavesMeshesAndOutputsToTheCaller) {
  MeshMapsSettings s = parse_meshmaps_settings(
      {"--size", "32", "--height-px", "16", "--ao-rays", "9", "--gpu-exact"});
  EXPECT_EQ(s.bake.width, 32);
  EXPECT_EQ(s.bake.height, 16);
  EXPECT_EQ(s.ao.rays, 9);
  EXPECT_TRUE(s.gpu_exact);
  EXPECT_TRUE(s.map_order.empty());
  EXPECT_EQ(parse_meshmaps_settings({"--size", "24"}).bake.height, 24);
  // Maps come in the order asked for; a repeat keeps its place.
  EXPECT_TRUE(set_map_output(s, "height", "h.png"));
  EXPECT_TRUE(set_map_output(s, "ao", "a.png"));
  EXPECT_TRUE(set_map_output(s, "height", "h2.png"));
  EXPECT_EQ(s.map_order, (std::vector<std::string>{"height", "ao"}));
  EXPECT_EQ(s.out.height, "h2.png");
  EXPECT_FALSE(set_map_output(s, "raw", "r.exr"));
  EXPECT_FALSE(set_map_output(s, "normal", "n.png"));
  EXPECT_TRUE(s.out.raw.empty());

  const auto message = [](std::vector<std::string> list) {
    return message_of<UsageError>([&] { parse_meshmaps_settings(list); });
  };
  for (const char* option : {"--low", "--high", "--out-ao", "--out-raw", "--report", "--cache-dir",
                             "--help", "--low-as-high"}) {
    EXPECT_EQ(message({"--size", "8", option, "x"}), std::string(option) + " is not a setting");
  }
  EXPECT_EQ(message({"--ao-rays", "4"}), "settings need --size");
  EXPECT_EQ(message({"--size", "8", "--bogus", "1"}), "unknown option --bogus");
}

TEST(MeshMapsOptions, EnvironmentVariablesAndTheirRefusals) {
  auto env_of = [](std::map<std::string, std::string> vars) {
    return [vars](const char* name) -> std::optional<std::string> {
      const auto it = vars.find(name);
      return it == vars.end() ? std::nullopt : std::optional<std::string>(it->second);
    };
  };
  const MeshMapsEnvironment none = read_meshmaps_environment(env_of({}));
  EXPECT_EQ(none.budget_policy, 1);
  EXPECT_FALSE(none.embree_compact);
  EXPECT_EQ(none.gpu_group, 64);

  const MeshMapsEnvironment all =
      read_meshmaps_environment(env_of({{"KV_MESHMAPS_BUDGET_POLICY", "2"},
                                        {"KV_EMBREE_BUILD", "compact+threads"},
                                        {"KV_MESHMAPS_GPU_GROUP", "128"},
                                        {"KV_EXP_LAH", "weighted"}}));
  EXPECT_EQ(all.budget_policy, 2);
  EXPECT_TRUE(all.embree_compact && all.embree_threads);
  EXPECT_EQ(all.gpu_group, 128);
  EXPECT_EQ(all.low_as_high_experiment, "weighted");
  const MeshMapsEnvironment threads =
      read_meshmaps_environment(env_of({{"KV_EMBREE_BUILD", "+threads"}}));
  EXPECT_TRUE(!threads.embree_compact && threads.embree_threads);

  const std::map<std::pair<std::string, std::string>, std::string> refusals = {
      {{"KV_MESHMAPS_BUDGET_POLICY", "3"}, "KV_MESHMAPS_BUDGET_POLICY must be 1 or 2"},
      {{"KV_MESHMAPS_BUDGET_POLICY", ""}, "KV_MESHMAPS_BUDGET_POLICY must be 1 or 2"},
      {{"KV_EMBREE_BUILD", "fast"}, "cannot read KV_EMBREE_BUILD"},
      {{"KV_EMBREE_BUILD", "threads+compact"}, "cannot read KV_EMBREE_BUILD"},
      {{"KV_MESHMAPS_GPU_GROUP", "48"}, "KV_MESHMAPS_GPU_GROUP must be 32, 64 or 128"},
      {{"KV_EXP_LAH", "on"}, "KV_EXP_LAH must be perturbed or weighted"},
  };
  for (const auto& [var, message] : refusals) {
    EXPECT_EQ(message_of<Error>([&] {
                read_meshmaps_environment(env_of({{var.first, var.second}}));
              }),
              message)
        << var.first << "=" << var.second;
  }
}

}  // namespace
}  // namespace kv::meshmaps
