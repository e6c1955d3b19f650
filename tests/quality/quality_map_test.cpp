#include <gtest/gtest.h>
#include <stb_image_write.h>

#include <cmath>
#include <string>
#include <vector>

#include "surface/coverage_evaluator.h"
#include "tests/support/run_binary.h"

namespace sensorlay {
namespace {

using testing::TempDir;
using testing::writeFile;

constexpr double kPi = 3.141592653589793;

// A binary grey PGM, written by hand.
void writePgm(const std::string& path, int width, int height, const std::vector<unsigned char>& pixels) {
  std::string text = "P5\n" + std::to_string(width) + " " + std::to_string(height) + "\n255\n";
  text.append(pixels.begin(), pixels.end());
  writeFile(path, text);
}

float unit(unsigned char b) { return static_cast<float>(b) * 0.003921569f; }

TEST(QualityMap, GreyImageIsReadPixelByPixel) {
  TempDir dir;
  // 5 x 3, every pixel distinct; the top row is latitude +pi/2.
  std::vector<unsigned char> pixels;
  for (int i = 0; i < 15; ++i) pixels.push_back(static_cast<unsigned char>(i * 17));
  pixels[14] = 255;
  writePgm(dir.file("map.pgm"), 5, 3, pixels);
  ASSERT_EQ(stbi_write_png(dir.file("map.png").c_str(), 5, 3, 1, pixels.data(), 5), 1);

  for (const char* name : {"map.pgm", "map.png"}) {
    CoverageEvaluator evaluator;
    evaluator.loadQualityMap(dir.file(name));
    ASSERT_EQ(evaluator.qualityMapWidth, 5) << name;
    ASSERT_EQ(evaluator.qualityMapHeight, 3) << name;
    ASSERT_EQ(evaluator.qualityMapPixels.size(), 15u);
    for (size_t i = 0; i < 15; ++i) EXPECT_EQ(evaluator.qualityMapPixels[i], unit(pixels[i])) << name << " " << i;
    EXPECT_NEAR(evaluator.qualityMapPixels[14], 1.0f, 1e-6f);

    // Nearest pixel; the seam's two sides are separate columns.
    EXPECT_EQ(evaluator.qualityAt(kPi / 2, -kPi), unit(pixels[0]));
    EXPECT_EQ(evaluator.qualityAt(kPi / 2, kPi), unit(pixels[4]));
    EXPECT_EQ(evaluator.qualityAt(-kPi / 2, -kPi), unit(pixels[10]));
    EXPECT_EQ(evaluator.qualityAt(-kPi / 2, kPi), unit(pixels[14]));
    EXPECT_EQ(evaluator.qualityAt(0.0, 0.0), unit(pixels[7]));  // +Z at the centre
    // Column 0.4 of 4 rounds to 0, 0.6 to 1 (quarter turn = one column here).
    EXPECT_EQ(evaluator.qualityAt(0.0, -kPi + 0.4 * kPi / 2), unit(pixels[5]));
    EXPECT_EQ(evaluator.qualityAt(0.0, -kPi + 0.6 * kPi / 2), unit(pixels[6]));
    // Beyond the edges the lookup is clamped, and not-a-number lands on index 0.
    EXPECT_EQ(evaluator.qualityAt(4.0, 9.0), unit(pixels[4]));
    EXPECT_EQ(evaluator.qualityAt(-4.0, -9.0), unit(pixels[10]));
    EXPECT_EQ(evaluator.qualityAt(std::nan(""), std::nan("")), unit(pixels[0]));
  }
}

TEST(QualityMap, SingleRowAndSingleColumn) {
  TempDir dir;
  writePgm(dir.file("row.pgm"), 4, 1, {10, 20, 30, 40});
  writePgm(dir.file("column.pgm"), 1, 4, {10, 20, 30, 40});

  CoverageEvaluator evaluator;
  evaluator.loadQualityMap(dir.file("row.pgm"));
  EXPECT_EQ(evaluator.qualityAt(kPi / 2, kPi), unit(40));
  EXPECT_EQ(evaluator.qualityAt(-kPi / 2, -kPi), unit(10));
  evaluator.loadQualityMap(dir.file("column.pgm"));
  EXPECT_EQ(evaluator.qualityMapWidth, 1);
  EXPECT_EQ(evaluator.qualityAt(kPi / 2, kPi), unit(10));
  EXPECT_EQ(evaluator.qualityAt(-kPi / 2, -kPi), unit(40));
}

TEST(QualityMap, ColourImageStepsByItsChannelCount) {
  TempDir dir;
  // 6 x 2 RGB, grey pixels of distinct brightness: the walk takes every
  // third grey byte for the first third of the entries; the rest would lie
  // beyond the buffer and are black.
  std::vector<unsigned char> rgb;
  for (int i = 0; i < 12; ++i)
    for (int c = 0; c < 3; ++c) rgb.push_back(static_cast<unsigned char>(20 * i + 5));
  ASSERT_EQ(stbi_write_png(dir.file("rgb.png").c_str(), 6, 2, 3, rgb.data(), 18), 1);

  CoverageEvaluator evaluator;
  evaluator.loadQualityMap(dir.file("rgb.png"));
  ASSERT_EQ(evaluator.qualityMapPixels.size(), 12u);
  for (size_t i = 0; i < 4; ++i) EXPECT_EQ(evaluator.qualityMapPixels[i], unit(static_cast<unsigned char>(60 * i + 5)));
  for (size_t i = 4; i < 12; ++i) EXPECT_EQ(evaluator.qualityMapPixels[i], 0.0f) << i;
}

TEST(QualityMap, UnreadableFilesLeaveNoMap) {
  TempDir dir;
  writeFile(dir.file("empty.png"), "");
  writeFile(dir.file("garbage.png"), std::string(5000, '\x7f'));
  std::string png;
  {
    std::vector<unsigned char> pixels(64 * 64, 200);
    ASSERT_EQ(stbi_write_png(dir.file("whole.png").c_str(), 64, 64, 1, pixels.data(), 64), 1);
    png = testing::readFile(dir.file("whole.png"));
  }
  writeFile(dir.file("truncated.png"), png.substr(0, png.size() / 2));
  writeFile(dir.file("huge.pgm"), "P5\n2000000000 2000000000\n255\n\x01\x02");

  for (const char* name : {"missing.png", "empty.png", "garbage.png", "truncated.png", "huge.pgm"}) {
    CoverageEvaluator evaluator;
    writePgm(dir.file("good.pgm"), 2, 2, {1, 2, 3, 4});
    evaluator.loadQualityMap(dir.file("good.pgm"));
    ASSERT_EQ(evaluator.qualityMapPixels.size(), 4u);

    // A failed load replaces the earlier map with none.
    ::testing::internal::CaptureStderr();
    evaluator.loadQualityMap(dir.file(name));
    const std::string err = ::testing::internal::GetCapturedStderr();
    const std::string prefix = "Error loading quality map image '" + dir.file(name) + "' : ";
    EXPECT_EQ(err.substr(0, prefix.size()), prefix) << name;
    EXPECT_EQ(err.back(), '\n');
    EXPECT_GT(err.size(), prefix.size() + 1) << "no reason given for " << name;
    EXPECT_TRUE(evaluator.qualityMapPixels.empty());
    EXPECT_EQ(evaluator.qualityMapWidth, 0);
    EXPECT_EQ(evaluator.qualityMapHeight, 0);
  }

  // The missing file names the library's reason.
  CoverageEvaluator evaluator;
  ::testing::internal::CaptureStderr();
  evaluator.loadQualityMap(dir.file("missing.png"));
  EXPECT_EQ(::testing::internal::GetCapturedStderr(),
            "Error loading quality map image '" + dir.file("missing.png") + "' : can't fopen\n");

  // An empty path means no map and says nothing.
  ::testing::internal::CaptureStderr();
  evaluator.loadQualityMap("");
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(evaluator.qualityAt(0.0, 0.0), 1.0f);
}

}  // namespace
}  // namespace sensorlay
