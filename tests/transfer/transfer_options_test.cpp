// The command line of the transfer: option syntax and order, defaults, and
// every settings check with its message.
#include <gtest/gtest.h>

#include "support/message_of.h"
#include "transfer/texture_io.h"
#include "transfer/transfer_settings.h"

namespace kv::transfer {
namespace {

using test::message_of;

std::vector<std::string> command(std::vector<std::string> extra) {
  std::vector<std::string> args = {"korvane", "transfer", "--mode",   "m2m",    "--target",
                                   "low.obj", "--high",   "high.obj", "--size", "64"};
  args.insert(args.end(), extra.begin(), extra.end());
  return args;
}

std::string usage_error(std::vector<std::string> args) {
  return message_of<pipeline::UsageError>([&] { parse_transfer_options(args); });
}

std::string settings_error(std::vector<std::string> extra) {
  return message_of([&] { check_transfer_settings(parse_transfer_options(command(extra))); });
}

TEST(TransferOptions, GroupsTexturesWithTheirBindingsAndOutputs) {
  const TransferSettings s = parse_transfer_options(command({"--texture",
                                                             "a.kvt",
                                                             "--bind",
                                                             "x,y",
                                                             "--bind-object",
                                                             "z,w",
                                                             "--bind-material",
                                                             "m",
                                                             "--source-tile",
                                                             "1002=t.png",
                                                             "--texture",
                                                             "b.png",
                                                             "--bind",
                                                             "q",
                                                             "--out",
                                                             "o.kvt",
                                                             "--out-mask",
                                                             "mask.png",
                                                             "--out-srgb",
                                                             "1",
                                                             "--out-padding-color",
                                                             "1,2,3,4",
                                                             "--texture",
                                                             "c.kvt",
                                                             "--out",
                                                             "shm:sec:96",
                                                             "--snap",
                                                             "off"}));
  ASSERT_EQ(s.outputs.size(), 2u);
  const OutputRequest& first = s.outputs[0];
  ASSERT_EQ(first.textures.size(), 2u);
  EXPECT_EQ(first.textures[0].bind_objects, (std::vector<std::string>{"x", "y", "z,w"}));
  EXPECT_EQ(first.textures[0].bind_materials, std::vector<std::string>{"m"});
  ASSERT_EQ(first.textures[0].tiles.size(), 1u);
  EXPECT_EQ(first.textures[0].tiles[0].tile, 1002);
  EXPECT_EQ(first.textures[0].tiles[0].where, "t.png");
  EXPECT_EQ(first.mask, "mask.png");
  EXPECT_TRUE(first.srgb);
  EXPECT_EQ(*first.padding_color, (std::vector<double>{1, 2, 3, 4}));
  EXPECT_FALSE(s.outputs[1].srgb);
  EXPECT_FALSE(s.outputs[1].padding_color.has_value());
  EXPECT_EQ(s.height, 64);
  EXPECT_EQ(s.snap_bits, -1);
  // The defaults.
  const TransferSettings d = parse_transfer_options(command({"--texture", "a", "--out", "o"}));
  EXPECT_EQ(d.aa, 1);
  EXPECT_EQ(d.filter, SampleFilter::bilinear);
  EXPECT_EQ(d.address, AddressMode::repeat);
  EXPECT_EQ(d.weights, BilinearWeights::gpu8);
  EXPECT_EQ(d.snap_bits, 8);
  EXPECT_EQ(d.dilation, 32);
  EXPECT_EQ(d.udim, 1001);
  EXPECT_EQ(d.backend, "auto");
  EXPECT_EQ(d.front, 0.01f);
  EXPECT_EQ(d.match, MatchMode::always);
  // --help needs nothing else, even after other options.
  EXPECT_TRUE(parse_transfer_options({"korvane", "transfer", "--size", "64", "--help"}).help);
}

TEST(TransferOptions, MalformedCommandLinesAreUsageErrors) {
  EXPECT_EQ(usage_error({"korvane", "transfer"}),
            "transfer needs --mode, --target, --size and at least one --texture and --out");
  EXPECT_EQ(usage_error(command({"--bind", "a", "--texture", "t", "--out", "o"})),
            "--bind needs a --texture before it");
  EXPECT_EQ(usage_error(command({"--out", "o"})), "--out needs at least one --texture before it");
  EXPECT_EQ(usage_error(command({"--texture", "t"})), "every --texture needs an --out after it");
  EXPECT_EQ(usage_error(command({"--texture", "t", "--out-mask", "m", "--out", "o"})),
            "--out-mask needs an --out right after its textures");
  EXPECT_EQ(usage_error(command({"--mode", "copy"})), "--mode takes uv2uv or m2m");
  EXPECT_EQ(usage_error(command({"--texture", "t", "--source-tile", "1002", "--out", "o"})),
            "--source-tile takes tile=path, not '1002'");
  EXPECT_EQ(usage_error(command({"--padding-color", "1,2,3,4,5"})),
            "--padding-color takes at most 4 values");
  EXPECT_EQ(usage_error(command({"--filter", "cubic"})), "--filter takes nearest or bilinear");
  EXPECT_EQ(usage_error(command({"--address", "mirror"})),
            "--address takes repeat, clamp or window");
  EXPECT_EQ(usage_error(command({"--weights", "gpu"})), "--weights takes gpu8 or exact");
  EXPECT_EQ(usage_error(command({"--aa", "two"})), "invalid value for --aa: 'two'");
  EXPECT_EQ(usage_error(command({"--out-srgb", "2"})), "--out-srgb takes 0 or 1, not '2'");
  EXPECT_EQ(usage_error(command({"--texture", "shm:a:0", "--out", "o"})),
            "a shared-memory texture is shm:<section>:<size>");
  EXPECT_EQ(usage_error(command({"--texture", "t", "--out", "shm::12"})),
            "a shared-memory texture is shm:<section>:<size>");
  EXPECT_EQ(usage_error(command({"--texture", "t", "--out", "o", "--shiny", "1"})),
            "unknown option --shiny");
  EXPECT_EQ(usage_error(command({"--texture", "t", "--out", "o", "--aa"})),
            "missing value for --aa");
  EXPECT_EQ(usage_error(command({"--texture", "t", "--out", "o", "--source-uvs", "s"})),
            "--source-uvs is for --mode uv2uv; m2m reads --high");
  EXPECT_EQ(usage_error({"korvane", "transfer", "--mode", "uv2uv", "--target", "t", "--size", "4",
                         "--texture", "a", "--out", "o"}),
            "--mode uv2uv needs --source-uvs");
  EXPECT_EQ(usage_error({"korvane", "transfer", "--mode", "uv2uv", "--target", "t", "--source-uvs",
                         "t", "--size", "4", "--texture", "a", "--out", "o", "--dump-hits", "h"}),
            "--dump-hits is for --mode m2m");
  EXPECT_EQ(usage_error(command({"--dilation", "257"})), "--dilation takes 0 to 256");
  EXPECT_TRUE(parse_transfer_options({"korvane", "transfer", "--help"}).help);
}

TEST(TransferOptions, SettingsChecksInOrder) {
  const std::vector<std::string> out = {"--texture", "t", "--out", "o"};
  const auto with = [&](std::vector<std::string> extra) {
    extra.insert(extra.end(), out.begin(), out.end());
    return settings_error(extra);
  };
  EXPECT_EQ(with({"--size", "0"}), "transfer: the output size must be 1 to 16384 texels per side");
  EXPECT_EQ(with({"--height", "16385"}),
            "transfer: the output size must be 1 to 16384 texels per side");
  EXPECT_EQ(with({"--aa", "3", "--snap", "17"}), "transfer: anti-aliasing must be 1, 2, 4 or 8");
  EXPECT_EQ(with({"--snap", "17"}), "transfer: snap bits must be off (-1) or 0 to 16");
  EXPECT_EQ(with({"--snap", "-2"}), "transfer: snap bits must be off (-1) or 0 to 16");
  EXPECT_EQ(with({"--snap", "-1"}), "(no error)");
  EXPECT_EQ(settings_error({"--texture", "t", "--source-tile", "1000=x", "--out", "o"}),
            "transfer: a source tile must be 1001 to 1999");
  EXPECT_EQ(settings_error({"--texture", "t", "--source-tile", "1005=x", "--source-tile", "1005=y",
                            "--out", "o"}),
            "transfer: source tile 1005 is given twice");
  EXPECT_EQ(with({"--front", "-0.5"}), "transfer: ray distances must be finite and not negative");
  EXPECT_EQ(with({"--rear", "nan"}), "transfer: ray distances must be finite and not negative");
  EXPECT_EQ(with({"--udim", "2000"}), "transfer: the UDIM tile must be 1001 to 1999");
}

TEST(TransferOptions, SharedMemoryPlacesAndPngPlaces) {
  const auto form = parse_shm_form("shm:korvane_tex:4128");
  ASSERT_TRUE(form.has_value());
  EXPECT_EQ(form->section, "korvane_tex");
  EXPECT_EQ(form->size, 4128u);
  EXPECT_FALSE(parse_shm_form("textures/shm.kvt").has_value());
  for (const char* bad :
       {"shm:", "shm:name", "shm:name:", "shm:name:-3", "shm::5", "shm:a/b:5", "shm:name:12x"}) {
    EXPECT_EQ(message_of<pipeline::UsageError>([&] { parse_shm_form(bad); }),
              "a shared-memory texture is shm:<section>:<size>")
        << bad;
  }
  EXPECT_TRUE(is_png_place("a/b.PNG"));
  EXPECT_FALSE(is_png_place("a/b.png.kvt"));
  EXPECT_FALSE(is_png_place("png"));
}

// The service's lists: settings and output groups apart, read into the
// same settings as the command line that holds them both.
TEST(TransferOptions, SettingsAndOutputListsReadAsTheCommandLine) {
  const std::vector<std::string> settings = {"--mode",     "m2m", "--size",  "64",
                                             "--height",   "32",  "--aa",    "4",
                                             "--dilation", "3",   "--match", "name"};
  const std::vector<std::string> outputs = {"--texture", "a.kvt", "--bind",     "x,y",
                                            "--out",     "o.kvt", "--out-srgb", "true",
                                            "--texture", "b.png", "--out",      "p.png"};
  bool outputs_failed = true;
  const TransferSettings s = parse_transfer_settings(settings, outputs, &outputs_failed);
  EXPECT_FALSE(outputs_failed);
  std::vector<std::string> args = {"korvane", "transfer", "--target", "t.obj", "--high", "h.obj"};
  args.insert(args.end(), settings.begin(), settings.end());
  args.insert(args.end(), outputs.begin(), outputs.end());
  const TransferSettings c = parse_transfer_options(args);
  EXPECT_EQ(s.width, c.width);
  EXPECT_EQ(s.height, 32);
  EXPECT_EQ(s.aa, c.aa);
  EXPECT_EQ(s.dilation, 3);
  EXPECT_EQ(s.match, MatchMode::name);
  ASSERT_EQ(s.outputs.size(), 2u);
  EXPECT_EQ(s.outputs[0].where, "o.kvt");
  EXPECT_EQ(s.outputs[0].textures[0].bind_objects, (std::vector<std::string>{"x", "y"}));
  EXPECT_TRUE(s.outputs[0].srgb);
  EXPECT_EQ(s.outputs[1].textures[0].where, "b.png");
  EXPECT_EQ(
      parse_transfer_settings({"--mode", "uv2uv", "--size", "8"}, outputs, &outputs_failed).height,
      8);

  const auto error = [](const std::vector<std::string>& set, const std::vector<std::string>& out,
                        bool in_outputs) {
    bool failed = !in_outputs;
    const std::string text =
        message_of<pipeline::UsageError>([&] { parse_transfer_settings(set, out, &failed); });
    EXPECT_EQ(failed, in_outputs) << text;
    return text;
  };
  EXPECT_EQ(error({"--mode", "m2m", "--size", "8", "--high", "h.obj"}, outputs, false),
            "--high is not a setting");
  EXPECT_EQ(error({"--mode", "m2m", "--size", "8", "--out", "o.kvt"}, outputs, false),
            "--out belongs in outputs");
  EXPECT_EQ(error({"--mode", "m2m"}, outputs, false), "settings need --mode and --size");
  EXPECT_EQ(error({"--mode", "uv2uv", "--size", "8", "--dump-hits", "h.bin"}, outputs, false),
            "--dump-hits is for --mode m2m");
  EXPECT_EQ(error({"--mode", "m2m", "--size", "8"}, {"--help", "x"}, true),
            "--help is not a setting");
  EXPECT_EQ(error({"--mode", "m2m", "--size", "8"}, {"--texture", "a.kvt", "--size", "9"}, true),
            "--size belongs in settings");
  EXPECT_EQ(error({"--mode", "m2m", "--size", "8"}, {"--texture", "a.kvt", "--out"}, true),
            "missing value for --out");
  EXPECT_EQ(error({"--mode", "m2m", "--size", "8"}, {"--out-mask", "m.png"}, true),
            "--out-mask needs an --out right after its textures");
}

}  // namespace
}  // namespace kv::transfer
