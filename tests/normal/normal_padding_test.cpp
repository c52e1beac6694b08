// The padding a Normal bake asks for, applied to a Normal map.
#include <gtest/gtest.h>

#include <cstdint>
#include <span>
#include <vector>

#include "normal/normal_padding.h"
#include "padding/padding.h"

namespace kv {
namespace {

TEST(NormalPadding, RingByDefaultAndTheFlatNormalAsColour) {
  // Two texels of three UNORM16 codes; the first holds a Normal of codes 0.
  std::vector<std::uint16_t> codes(6, 0);
  const ImageView normal{2, 1, 3, ComponentType::kU16, std::as_writable_bytes(std::span(codes))};
  const std::vector<std::uint8_t> valid{1, 0};
  codes[3] = 9;  // the empty texel's old value, overwritten by either mode

  // A bake pads by ring by default; its default colour is the flat Normal.
  pad_image(normal, valid, padding_settings_of(NormalBakeSettings{}), 1);
  EXPECT_EQ(codes[3], 0);  // one valid texel of code 0 fills it
  NormalBakeSettings bake;
  bake.padding = PaddingMode::color;
  bake.dilation = 0;
  pad_image(normal, valid, padding_settings_of(bake), 1);
  EXPECT_EQ((std::vector<std::uint16_t>(codes.begin() + 3, codes.end())),
            (std::vector<std::uint16_t>{32768, 32768, 65535}));
}

}  // namespace
}  // namespace kv
