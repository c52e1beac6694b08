#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "core/error.h"
#include "image/png.h"
#include "meshmaps/sample_directions.h"
#include "support/message_of.h"
#include "support/test_support.h"

namespace kv::meshmaps {
namespace {

double dot(const Vec3f& a, const Vec3f& b) {
  return static_cast<double>(a[0]) * b[0] + static_cast<double>(a[1]) * b[1] +
         static_cast<double>(a[2]) * b[2];
}

TEST(MeshMapsDirections, PointSetIsStratifiedAndSpread) {
  const auto points = point_set(64);
  ASSERT_EQ(points.size(), 64u);
  std::set<double> second;
  for (std::size_t i = 0; i < points.size(); ++i) {
    EXPECT_DOUBLE_EQ(points[i][0], (static_cast<double>(i) + 0.5) / 64.0);
    EXPECT_GE(points[i][1], 0.0);
    EXPECT_LT(points[i][1], 1.0);
    second.insert(points[i][1]);
  }
  EXPECT_EQ(second.size(), 64u);  // a radical inverse repeats no value
}

TEST(MeshMapsDirections, ConesAndDistributionsHoldTheirMeans) {
  Vec3f normal = {0.3f, -0.5f, 0.8f};
  normalize_in_place(normal);
  std::vector<Vec3f> d;
  std::vector<double> cosines;
  // Cosine-weighted over the hemisphere: E[cos] = 2/3; uniform: 1/2.
  for (const auto& [distribution, mean] :
       {std::pair{Distribution::cosine, 2.0 / 3.0}, std::pair{Distribution::uniform, 0.5}}) {
    const DirectionSet set = direction_set(1024, 180.0f, distribution);
    hemisphere_directions(set, {0.37, 0.81}, normal, d, cosines);
    double sum = 0.0;
    for (std::size_t i = 0; i < d.size(); ++i) {
      EXPECT_NEAR(dot(d[i], d[i]), 1.0, 1e-6);
      EXPECT_NEAR(dot(d[i], normal), cosines[i], 1e-5);
      EXPECT_GE(cosines[i], 0.0);
      sum += cosines[i];
    }
    EXPECT_NEAR(sum / static_cast<double>(d.size()), mean, 0.005);
  }
  // A 60 degree cone stays within 30 degrees of the normal.
  hemisphere_directions(direction_set(256, 60.0f, Distribution::uniform), {0.9, 0.1}, normal, d,
                        cosines);
  for (const Vec3f& v : d) {
    EXPECT_GE(dot(v, normal), std::cos(30.0 * 3.141592653589793 / 180.0) - 1e-6);
  }
}

TEST(MeshMapsDirections, RotationsDependOnlyOnTexelSampleAndMap) {
  const auto a = sample_rotation(5, 7, 0, 1, nullptr);
  EXPECT_EQ(a, sample_rotation(5, 7, 0, 1, nullptr));
  EXPECT_NE(a, sample_rotation(5, 7, 1, 1, nullptr));
  EXPECT_NE(a, sample_rotation(7, 5, 0, 1, nullptr));
  EXPECT_NE(a, sample_rotation(5, 7, 0, 2, nullptr));
  for (const double v : a) {
    EXPECT_GE(v, 0.0);
    EXPECT_LT(v, 1.0);
  }

  std::vector<std::uint8_t> codes(65536);
  for (std::size_t i = 0; i < codes.size(); ++i) {
    codes[i] = static_cast<std::uint8_t>(i * 37u);
  }
  const NoiseTable noise = NoiseTable::from_codes(codes);
  // The table repeats every 256 texels, and its values turn the set.
  EXPECT_EQ(noise.at(3, 4), noise.at(259, 516));
  EXPECT_DOUBLE_EQ(noise.at(1, 0)[0], 37.0 / 256.0);
  EXPECT_EQ(sample_rotation(3, 4, 2, 1, &noise), sample_rotation(259, 4, 2, 1, &noise));
  EXPECT_NE(sample_rotation(3, 4, 2, 1, &noise), sample_rotation(3, 4, 3, 1, &noise));

  EXPECT_EQ(test::message_of([] { NoiseTable(std::vector<float>(256 * 256 * 3)); }),
            "meshmaps: the noise table must hold 256 x 256 x 4 values");
  EXPECT_EQ(test::message_of([] {
              const std::vector<std::uint8_t> short_codes(1000);
              NoiseTable::from_codes(short_codes);
            }),
            "meshmaps: the .x noise must hold 256 x 256 byte codes");
}

TEST(MeshMapsDirections, NoiseFromA16BitPng) {
  test::ScratchDir dir;
  TexelImage image;
  image.width = image.height = 256;
  image.channels = 2;
  image.type = ComponentType::kU16;
  image.data.resize(256 * 256 * 2 * 2);
  for (std::size_t i = 0; i < 256 * 256 * 2; ++i) {
    const auto v = static_cast<std::uint16_t>(i * 977u);
    std::memcpy(image.data.data() + i * 2, &v, 2);
  }
  const std::vector<unsigned char> png = encodePng(image);
  test::write_text_file(dir / "noise.png", std::string(png.begin(), png.end()));
  const NoiseTable noise = NoiseTable::read_png(dir / "noise.png");
  // Texel 1, channel 1: sample 3 of the image.
  EXPECT_FLOAT_EQ(noise.at(1, 0)[1], static_cast<float>((3u * 977u % 65536u) / 65536.0));
  for (const float v : noise.at(200, 100)) {
    EXPECT_GE(v, 0.0f);
    EXPECT_LT(v, 1.0f);
  }
  image.width = 128;
  image.data.resize(128 * 256 * 2 * 2);
  const std::vector<unsigned char> small = encodePng(image);
  test::write_text_file(dir / "small.png", std::string(small.begin(), small.end()));
  EXPECT_EQ(test::message_of([&] { NoiseTable::read_png(dir / "small.png"); }),
            "--noise needs an 8- or 16-bit 256 x 256 PNG");
}

}  // namespace
}  // namespace kv::meshmaps
