#include <gtest/gtest.h>
#include <stb_image_write.h>

#include <cmath>
#include <string>
#include <vector>

#include "quality/coverage_evaluator.h"
#include "tests/support/run_binary.h"

namespace sensorlay {
namespace {

constexpr double kPi = 3.141592653589793;

std::string pgm(int width, int height, const std::vector<unsigned char>& pixels) {
  return "P5\n" + std::to_string(width) + " " + std::to_string(height) + "\n255\n" +
         std::string(pixels.begin(), pixels.end());
}

float unit(int b) { return static_cast<float>(b) * 0.003921569f; }

TEST(QualityMap, NearestPixelOfGreyImages) {
  testing::TempDir dir;
  std::vector<unsigned char> pixels;  // 5 x 3, distinct; the top row is latitude +pi/2
  for (int i = 0; i < 15; ++i) pixels.push_back(static_cast<unsigned char>(i == 14 ? 255 : i * 17));
  testing::writeFile(dir.file("map.pgm"), pgm(5, 3, pixels));
  ASSERT_EQ(stbi_write_png(dir.file("map.png").c_str(), 5, 3, 1, pixels.data(), 5), 1);

  for (const char* name : {"map.pgm", "map.png"}) {
    CoverageEvaluator evaluator;
    evaluator.loadQualityMap(dir.file(name));
    ASSERT_EQ(evaluator.qualityMap.width, 5);
    ASSERT_EQ(evaluator.qualityMap.height, 3);
    for (size_t i = 0; i < 15; ++i) EXPECT_EQ(evaluator.qualityMap.pixels[i], unit(pixels[i])) << name << " " << i;
    EXPECT_EQ(evaluator.qualityMap.at(kPi / 2, -kPi), unit(pixels[0]));  // the seam's sides are separate columns
    EXPECT_EQ(evaluator.qualityMap.at(kPi / 2, kPi), unit(pixels[4]));
    EXPECT_EQ(evaluator.qualityMap.at(-kPi / 2, kPi), unit(pixels[14]));
    EXPECT_EQ(evaluator.qualityMap.at(0.0, 0.0), unit(pixels[7]));                   // +Z at the centre
    EXPECT_EQ(evaluator.qualityMap.at(0.0, -kPi + 0.4 * kPi / 2), unit(pixels[5]));  // column 0.4 rounds to 0
    EXPECT_EQ(evaluator.qualityMap.at(0.0, -kPi + 0.6 * kPi / 2), unit(pixels[6]));  // 0.6 to 1
    EXPECT_EQ(evaluator.qualityMap.at(4.0, 9.0), unit(pixels[4]));                   // clamped beyond the edges
    EXPECT_EQ(evaluator.qualityMap.at(std::nan(""), std::nan("")), unit(pixels[0]));
  }

  // A single column: its factor is 0 and every longitude reads it.
  CoverageEvaluator evaluator;
  testing::writeFile(dir.file("column.pgm"), pgm(1, 4, {10, 20, 30, 40}));
  evaluator.loadQualityMap(dir.file("column.pgm"));
  EXPECT_EQ(evaluator.qualityMap.at(-kPi / 2, kPi), unit(40));
}

TEST(QualityMap, ColourImageStepsByItsChannelCount) {
  // 6 x 2 RGB of grey pixels: the walk takes every third pixel for the first
  // third of the entries; the rest would lie beyond the buffer and are black.
  testing::TempDir dir;
  std::vector<unsigned char> rgb;
  for (int i = 0; i < 36; ++i) rgb.push_back(static_cast<unsigned char>(20 * (i / 3) + 5));
  ASSERT_EQ(stbi_write_png(dir.file("rgb.png").c_str(), 6, 2, 3, rgb.data(), 18), 1);
  CoverageEvaluator evaluator;
  evaluator.loadQualityMap(dir.file("rgb.png"));
  ASSERT_EQ(evaluator.qualityMap.pixels.size(), 12u);
  for (size_t i = 0; i < 12; ++i)
    EXPECT_EQ(evaluator.qualityMap.pixels[i], i < 4 ? unit(60 * static_cast<int>(i) + 5) : 0.0f);
}

TEST(QualityMap, UnreadableFilesLeaveNoMap) {
  testing::TempDir dir;
  std::vector<unsigned char> pixels(64 * 64, 200);
  ASSERT_EQ(stbi_write_png(dir.file("whole.png").c_str(), 64, 64, 1, pixels.data(), 64), 1);
  const std::string png = testing::readFile(dir.file("whole.png"));
  testing::writeFile(dir.file("truncated.png"), png.substr(0, png.size() / 2));
  testing::writeFile(dir.file("empty.png"), "");
  testing::writeFile(dir.file("garbage.png"), std::string(5000, '\x7f'));
  testing::writeFile(dir.file("huge.pgm"), "P5\n2000000000 2000000000\n255\n\x01\x02");
  testing::writeFile(dir.file("good.pgm"), pgm(2, 2, {1, 2, 3, 4}));

  for (const char* name : {"missing.png", "empty.png", "garbage.png", "truncated.png", "huge.pgm"}) {
    CoverageEvaluator evaluator;
    evaluator.loadQualityMap(dir.file("good.pgm"));
    // Replaces the earlier map with none.
    const std::string err = evaluator.loadQualityMap(dir.file(name)).message();
    const std::string prefix = "Error loading quality map image '" + dir.file(name) + "' : ";
    // A reason follows the name, on the same line.
    EXPECT_TRUE(err.rfind(prefix, 0) == 0 && err.size() > prefix.size() && err.find('\n') == std::string::npos) << err;
    if (std::string(name) == "missing.png") {
      EXPECT_EQ(err, prefix + "can't fopen");
    }
    EXPECT_TRUE(evaluator.qualityMap.pixels.empty());
    EXPECT_EQ(evaluator.qualityMap.width + evaluator.qualityMap.height, 0);
  }
}

}  // namespace
}  // namespace sensorlay
