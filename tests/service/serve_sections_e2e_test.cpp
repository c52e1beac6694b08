// A bake's outputs in shared-memory sections and its live preview section,
// against the command line's files of the same bake.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>

#include "image/exr_reader.h"
#include "image/kvt_file.h"
#include "image/png.h"
#include "image/unorm16.h"
#include "service/raw_mesh.h"
#include "service/service_client.h"
#include "support/test_support.h"

namespace kv::test {
namespace {

const std::string kLow = std::string(KV_SOURCE_DIR) + "/examples/sphere_low.obj";
const std::string kHigh = std::string(KV_SOURCE_DIR) + "/examples/sphere_high.obj";

// The .kvt image of a 96 x 64 map: the header and two bytes per code.
constexpr std::uint64_t kNormalBytes = 32 + 96 * 64 * 3 * 2;
constexpr std::uint64_t kOpacityBytes = 32 + 96 * 64 * 2;

std::vector<unsigned char> filled(std::uint64_t bytes, unsigned char value) {
  return std::vector<unsigned char>(bytes, value);
}

// The section's bytes as the client sees them.
std::vector<unsigned char> section_bytes(const TestSection& section, std::uint64_t size) {
  int error = 0;
  std::uint64_t real = 0;
  auto mapping = platform::SharedSection::open(section.name(), size, false, &error, &real);
  EXPECT_TRUE(mapping.has_value()) << error;
  if (!mapping) {
    return {};
  }
  return std::vector<unsigned char>(mapping->data(), mapping->data() + size);
}

std::vector<std::uint16_t> codes_of(const TexelImage& image) {
  std::vector<std::uint16_t> codes(image.data.size() / 2);
  std::memcpy(codes.data(), image.data.data(), codes.size() * 2);
  return codes;
}

// The codes an EXR of the program holds: float32 values on the UNORM16 grid.
std::vector<std::uint16_t> exr_codes(const std::filesystem::path& path) {
  const TexelImage image = read_exr(path);
  EXPECT_EQ(image.type, ComponentType::kF32);
  std::vector<float> values(image.data.size() / 4);
  std::memcpy(values.data(), image.data.data(), values.size() * 4);
  std::vector<std::uint16_t> codes;
  for (const float value : values) {
    codes.push_back(encode_unorm16(value));
  }
  return codes;
}

Json load_file(std::int64_t id, const std::string& key, const std::string& path) {
  Json request = make_request(id, "mesh.load_file");
  request["key"] = key;
  request["path"] = path;
  return request;
}

void load_samples(ServiceClient& client) {
  ASSERT_EQ(client.request(load_file(1, "low", kLow))["ok"], true);
  ASSERT_EQ(client.request(load_file(2, "high", kHigh))["ok"], true);
}

Json section_output(const TestSection& section, std::uint64_t size) {
  return Json::object({{"section", section.name()}, {"size", size}});
}

Json bake_request(std::int64_t id, const std::vector<std::string>& settings, const Json& normal) {
  Json request = make_request(id, "bake");
  request["low"] = "low";
  request["high"] = "high";
  request["settings"] = settings;
  request["outputs"] = Json::object({{"normal", normal}});
  return request;
}

const std::vector<std::string> kSettings = {"--size", "96",        "--height", "64",        "--aa",
                                            "2",      "--padding", "ring",     "--threads", "2"};

TEST(ServeSections, MapsInSectionsHoldTheCommandLineCodes) {
  ScratchDir dir;
  const platform::ProcessResult cli =
      run_korvane({"--low", kLow, "--high", kHigh, "--size", "96", "--height", "64", "--aa", "2",
                   "--padding", "ring", "--threads", "1", "--out-normal",
                   (dir / "cli.exr").string(), "--out-opacity", (dir / "cli.png").string()});
  ASSERT_EQ(cli.exit_code, 0) << cli.err;

  const TestSection normal("normal", filled(kNormalBytes, 0xAB));
  const TestSection opacity("opacity", filled(kOpacityBytes, 0xAB));
  ServiceClient client;
  load_samples(client);
  // The Normal map in a section only; the Opacity map in a file and a section.
  Json bake = bake_request(3, kSettings, section_output(normal, kNormalBytes));
  Json both = section_output(opacity, kOpacityBytes);
  both["path"] = (dir / "svc.png").string();
  bake["outputs"]["opacity"] = both;
  const Json reply = client.request(bake);
  ASSERT_EQ(reply["ok"], true) << reply.dump();
  EXPECT_EQ(reply["summary"]["out_normal"], "");

  const std::vector<unsigned char> normal_bytes = section_bytes(normal, kNormalBytes);
  const TexelImage normal_image = parse_kvt(normal_bytes);
  EXPECT_EQ(normal_image.width, 96);
  EXPECT_EQ(normal_image.height, 64);
  EXPECT_EQ(normal_image.channels, 3);
  EXPECT_EQ(normal_image.type, ComponentType::kU16);
  EXPECT_EQ(codes_of(normal_image), exr_codes(dir / "cli.exr"));

  const TexelImage opacity_image = parse_kvt(section_bytes(opacity, kOpacityBytes));
  EXPECT_EQ(opacity_image.channels, 1);
  const TexelImage cli_opacity = readPng(dir / "cli.png");
  EXPECT_EQ(opacity_image.data, cli_opacity.data);
  EXPECT_EQ(read_text_file(dir / "svc.png"), read_text_file(dir / "cli.png"));

  // A bake that fails writing its file (its folder is a file) leaves its
  // section as it was.
  const TestSection kept("kept", filled(kNormalBytes, 0x5C));
  write_text_file(dir / "plain", "x");
  Json failing = section_output(kept, kNormalBytes);
  failing["path"] = (dir / "plain" / "n.exr").string();
  const Json failed = client.request(bake_request(4, kSettings, failing));
  EXPECT_EQ(failed["ok"], false);
  EXPECT_EQ(section_bytes(kept, kNormalBytes), filled(kNormalBytes, 0x5C));
  EXPECT_EQ(client.finish(), 0);
}

TEST(ServeSections, WrongSectionsAreRefusedBeforeTheBake) {
  ScratchDir dir;
  const TestSection small("small", filled(64, 0));
  const TestSection preview("preview", filled(64, 0));
  ServiceClient client;
  const std::string path = (dir / "n.exr").string();
  const auto refusal = [&](const Json& normal, const Json& preview_field = nullptr) {
    Json bake = bake_request(5, kSettings, normal);
    if (!preview_field.is_null()) {
      bake["preview"] = preview_field;
    }
    const Json reply = client.request(bake);
    EXPECT_EQ(reply["ok"], false);
    return reply["error"].get<std::string>();
  };
  Json wrong = section_output(small, kNormalBytes - 2);
  wrong["path"] = path;
  EXPECT_EQ(refusal(wrong), "bake: outputs.normal: .kvt: the destination must hold exactly " +
                                std::to_string(kNormalBytes) + " bytes, not " +
                                std::to_string(kNormalBytes - 2));
  EXPECT_EQ(refusal(section_output(small, kNormalBytes)),
            "bake: outputs.normal: the shared-memory section " + small.name() +
                " holds 64 bytes, fewer than " + std::to_string(kNormalBytes));
  const std::string none = "kv-test-svcout-none-" + std::to_string(platform::process_id());
  EXPECT_EQ(refusal(Json{{"section", none}, {"size", kNormalBytes}}),
            "bake: outputs.normal: cannot open the shared-memory section " + none +
                ": No such file or directory");
  EXPECT_EQ(refusal(Json{{"section", none}}), "bake: outputs.normal: needs a section and its size");
  EXPECT_EQ(refusal(Json{{"path", path}, {"size", 8}}),
            "bake: outputs.normal: needs a section and its size");
  EXPECT_EQ(refusal(Json{{"section", none}, {"size", 0}}),
            "bake: outputs.normal: size: must be positive");
  EXPECT_EQ(refusal(Json{{"section", none}, {"size", -1}}),
            "bake: outputs.normal: size: expected a non-negative integer, got a negative integer");

  const auto preview_refusal = [&](const Json& field) { return refusal(path, field); };
  const Json good = {{"section", preview.name()}, {"size", 64}, {"width", 4}, {"height", 4}};
  for (const char* side : {"width", "height"}) {
    for (const std::int64_t value : {0LL, 65537LL}) {
      Json field = good;
      field[side] = value;
      EXPECT_EQ(preview_refusal(field), "bake: preview: size and height must be 1 to 65536");
    }
  }
  Json field = good;
  field["height"] = 5;
  EXPECT_EQ(preview_refusal(field),
            "bake: preview: the section must hold at least 80 bytes, not 64");
  field = good;
  field.erase("size");
  EXPECT_EQ(preview_refusal(field), "bake: preview: needs a section and its size");
  field = good;
  field["size"] = 65;
  EXPECT_EQ(preview_refusal(field), "bake: preview: the shared-memory section " + preview.name() +
                                        " holds 64 bytes, fewer than 65");
  field = good;
  field["extra"] = 1;
  EXPECT_EQ(preview_refusal(field), "bake: preview: unknown field \"extra\"");
  EXPECT_EQ(preview_refusal(Json("p")), "bake: preview: expected an object, got string");
  EXPECT_FALSE(std::filesystem::exists(path));
  // The refusals touched no section.
  EXPECT_EQ(section_bytes(small, 64), filled(64, 0));
  EXPECT_EQ(client.finish(), 0);
}

TEST(ServeSections, PreviewSectionEqualsThePreviewFile) {
  ScratchDir dir;
  ServiceClient client;
  load_samples(client);
  // Fewer preview columns than texels, and more.
  for (const int columns : {40, 150}) {
    const std::string name = std::to_string(columns);
    const platform::ProcessResult cli = run_korvane(
        {"--low", kLow, "--high", kHigh, "--size", "96", "--height", "64", "--aa", "2", "--threads",
         "1", "--out-normal", (dir / ("cli" + name + ".exr")).string(), "--preview",
         (dir / ("cli" + name + ".rgba")).string(), "--preview-size", name});
    ASSERT_EQ(cli.exit_code, 0) << cli.err;
    const int rows = 64 * columns / 96;
    const std::uint64_t bytes = static_cast<std::uint64_t>(columns) * rows * 4;
    // Bytes past the preview's stay as the client left them.
    const TestSection preview("preview" + name, filled(bytes + 8, 0xEE));
    Json bake = bake_request(10 + columns, kSettings, (dir / ("svc" + name + ".exr")).string());
    bake["preview"] = {
        {"section", preview.name()}, {"size", bytes + 8}, {"width", columns}, {"height", rows}};
    std::vector<Json> lines;
    const Json reply = client.request(bake, &lines);
    ASSERT_EQ(reply["ok"], true) << reply.dump();
    std::vector<unsigned char> expected(bytes + 8, 0xEE);
    const std::string file = read_text_file(dir / ("cli" + name + ".rgba"));
    ASSERT_EQ(file.size(), bytes);
    std::memcpy(expected.data(), file.data(), file.size());
    EXPECT_EQ(section_bytes(preview, bytes + 8), expected);

    // One preview event naming the section, before the bake traces.
    std::vector<Json> previews;
    bool traced_before = false;
    for (const Json& line : lines) {
      if (line.contains("event") && line["event"] == "preview") {
        previews.push_back(line);
      }
      traced_before =
          traced_before || (line.contains("event") && line["event"] == "bake" && previews.empty());
    }
    ASSERT_EQ(previews.size(), 1u);
    EXPECT_EQ(previews[0], (Json{{"event", "preview"},
                                 {"job", 10 + columns},
                                 {"section", preview.name()},
                                 {"width", columns},
                                 {"height", rows}}));
    EXPECT_FALSE(traced_before);
  }
  EXPECT_EQ(client.finish(), 0);
}

TEST(ServeSections, CancelLeavesSectionsUnwritten) {
  ScratchDir dir;
  constexpr std::uint64_t kBytes = 32 + 4096ULL * 4096 * 2;
  const TestSection opacity("cancel", filled(kBytes, 0x77));
  const TestSection preview("cancelpreview", filled(64, 0xEE));
  ServiceClient client({"--threads", "1"});
  load_samples(client);
  Json bake = bake_request(20, {"--size", "4096", "--aa", "4"}, (dir / "n.exr").string());
  bake["outputs"]["opacity"] = section_output(opacity, kBytes);
  bake["preview"] = {{"section", preview.name()}, {"size", 64}, {"width", 4}, {"height", 4}};
  client.send_json(bake);
  client.event(20, "region");  // the bake runs
  Json cancel = make_request(21, "cancel");
  cancel["job"] = 20;
  EXPECT_EQ(client.request(cancel)["cancelling"], true);
  EXPECT_EQ(client.reply(20)["code"], "cancelled");
  EXPECT_FALSE(std::filesystem::exists(dir / "n.exr"));
  EXPECT_EQ(section_bytes(opacity, kBytes), filled(kBytes, 0x77));
  // The live preview was zeroed when the bake started, then shows what was
  // finished: every alpha is 0 or 255.
  const std::vector<unsigned char> shown = section_bytes(preview, 64);
  for (std::size_t alpha = 3; alpha < shown.size(); alpha += 4) {
    EXPECT_TRUE(shown[alpha] == 0 || shown[alpha] == 255) << alpha;
  }
  EXPECT_EQ(client.finish(), 0);
}

}  // namespace
}  // namespace kv::test
