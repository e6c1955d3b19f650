#include "quality/quality_map.h"

#include <gtest/gtest.h>
#include <png.h>
#include <stb_image.h>
#include <stb_image_write.h>

#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "quality/coverage_evaluator.h"
#include "tests/support/png_images.h"
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

// The map as stb_image made it, which read the maps before: grey bytes from
// stbi_load with one channel, walked by the file's own channel count.
std::vector<float> stbMap(const std::string& bytes, int& width, int& height) {
  int channels = 0;
  unsigned char* data = stbi_load_from_memory(reinterpret_cast<const unsigned char*>(bytes.data()),
                                              static_cast<int>(bytes.size()), &width, &height, &channels, 1);
  std::vector<float> pixels;
  if (data == nullptr) return pixels;
  const size_t count = static_cast<size_t>(width) * height;
  for (size_t i = 0; i < count; ++i) pixels.push_back(i * channels < count ? unit(data[i * channels]) : 0.0f);
  stbi_image_free(data);
  return pixels;
}

// Every PNG layout and the 8-bit PGM and PPM give the pixels stb_image gave.
TEST(QualityMap, DecodersGiveThePixelsOfTheEarlierReader) {
  std::mt19937 generator(11);
  struct Layout {
    int colourType, depth;
    bool interlaced = false;
    bool transparent = false;
  };
  const std::vector<Layout> layouts = {
      {PNG_COLOR_TYPE_GRAY, 1},
      {PNG_COLOR_TYPE_GRAY, 2},
      {PNG_COLOR_TYPE_GRAY, 4},
      {PNG_COLOR_TYPE_GRAY, 8},
      {PNG_COLOR_TYPE_GRAY, 16},
      {PNG_COLOR_TYPE_GRAY, 8, true},
      {PNG_COLOR_TYPE_GRAY, 8, false, true},
      {PNG_COLOR_TYPE_GRAY, 16, false, true},
      {PNG_COLOR_TYPE_GRAY, 2, true, true},
      {PNG_COLOR_TYPE_GRAY_ALPHA, 8},
      {PNG_COLOR_TYPE_GRAY_ALPHA, 16},
      {PNG_COLOR_TYPE_RGB, 8},
      {PNG_COLOR_TYPE_RGB, 16},
      {PNG_COLOR_TYPE_RGB, 8, true},
      {PNG_COLOR_TYPE_RGB, 8, false, true},
      {PNG_COLOR_TYPE_RGB, 16, true, true},
      {PNG_COLOR_TYPE_RGB_ALPHA, 8},
      {PNG_COLOR_TYPE_RGB_ALPHA, 16, true},
      {PNG_COLOR_TYPE_PALETTE, 1},
      {PNG_COLOR_TYPE_PALETTE, 2},
      {PNG_COLOR_TYPE_PALETTE, 4, true},
      {PNG_COLOR_TYPE_PALETTE, 8},
      {PNG_COLOR_TYPE_PALETTE, 8, false, true},
  };
  std::vector<std::pair<std::string, std::string>> images;
  for (const Layout& layout : layouts) {
    const testing::PngImage png =
        testing::noisePng(13, 7, layout.colourType, layout.depth, layout.interlaced, layout.transparent, generator);
    images.emplace_back("PNG type " + std::to_string(layout.colourType) + ", " + std::to_string(layout.depth) +
                            " bits" + (layout.interlaced ? ", interlaced" : "") + (layout.transparent ? ", tRNS" : ""),
                        testing::pngBytes(png));
  }
  std::string bytes;
  for (int i = 0; i < 3 * 13 * 7; ++i) bytes += static_cast<char>(generator());
  images.emplace_back("PGM with a comment", "P5\n# painted by hand\n13 7\r255\n" + bytes.substr(0, 91));
  images.emplace_back("PGM of maximum 15", "P5 13 7 15 " + bytes.substr(0, 91));
  images.emplace_back("PPM", "P6\n13 7\n255\n" + bytes);

  for (const auto& [name, image] : images) {
    int width = 0, height = 0;
    const std::vector<float> expected = stbMap(image, width, height);
    ASSERT_FALSE(expected.empty()) << name;
    const Result<QualityMap> map = QualityMap::decode("m", image);
    ASSERT_TRUE(map.ok()) << name << ": " << map.message();
    EXPECT_EQ(map->width, width) << name;
    EXPECT_EQ(map->height, height) << name;
    EXPECT_EQ(map->pixels, expected) << name;
  }

  // 16-bit PGM samples are most significant byte first, and their high byte
  // is the grey (the earlier reader took the low one).
  const Result<QualityMap> deep = QualityMap::decode("m", std::string("P5 2 1 65535\n\x12\x34\xAB\xCD", 17));
  ASSERT_TRUE(deep.ok()) << deep.message();
  EXPECT_EQ(deep->pixels, (std::vector<float>{unit(0x12), unit(0xAB)}));
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
  testing::writeFile(dir.file("short.pgm"), "P5\n20 20\n255\n" + std::string(399, '\x01'));
  testing::writeFile(dir.file("good.pgm"), pgm(2, 2, {1, 2, 3, 4}));
  // A PNG that declares 4096 x 4096 in a few bytes: within the pixel limit,
  // beyond what the file can hold.
  std::string forged = png;
  const size_t ihdr = forged.find("IHDR") + 4;
  forged.replace(ihdr, 8, std::string("\0\0\x10\0\0\0\x10\0", 8));
  testing::writeFile(dir.file("forged.png"), forged);

  const std::vector<std::pair<std::string, std::string>> cases = {
      {"missing.png", "can't fopen"},
      {"empty.png", "the file is empty"},
      {"garbage.png", "not a PNG, PGM (P5) or PPM (P6) image, the formats a quality map is read from"},
      {"truncated.png", "the file ends inside the image"},
      {"huge.pgm", "the image declares 2000000000 x 2000000000 pixels, more than the 16777216 a quality map may have"},
      {"short.pgm", "the image declares 20 x 20 pixels, which take 400 bytes, but the file holds 399 after its header"},
      {"forged.png",
       "the image declares 4096 x 4096 pixels, more than its " + std::to_string(forged.size()) + " bytes can hold"},
  };
  for (const auto& [name, reason] : cases) {
    CoverageEvaluator evaluator;
    evaluator.loadQualityMap(dir.file("good.pgm"));
    // Replaces the earlier map with none.
    const std::string err = evaluator.loadQualityMap(dir.file(name)).message();
    EXPECT_EQ(err, "Error loading quality map image '" + dir.file(name) + "' : " + reason);
    EXPECT_TRUE(evaluator.qualityMap.pixels.empty());
    EXPECT_EQ(evaluator.qualityMap.width + evaluator.qualityMap.height, 0);
  }
}

}  // namespace
}  // namespace sensorlay
