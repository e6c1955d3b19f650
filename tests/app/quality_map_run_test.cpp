// The quality map of a design run end to end: images that declare far more
// pixels than they hold, formats a map is not read from, and a map that
// weighs nothing.

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "tests/support/meshes.h"
#include "tests/support/png_images.h"
#include "tests/support/run_binary.h"

namespace sensorlay {
namespace {

using namespace sensorlay::testing;

std::string littleEndian(uint32_t value, int bytes) {
  std::string out;
  for (int i = 0; i < bytes; ++i) out += static_cast<char>((value >> (8 * i)) & 0xFF);
  return out;
}

// A 36-byte uncompressed grey TGA that declares 55552 x 1024 pixels.
std::string tgaBomb() {
  std::string header = std::string("\0\0\3", 3) + std::string(9, '\0') + littleEndian(55552, 2) +
                       littleEndian(1024, 2) + std::string("\x08\0", 2);
  return header + std::string(18, '\x7f');
}

// A 263-byte BMP of 16 x 16,500,000 one-bit pixels, with its palette of two.
std::string bmpBomb() {
  std::string dib = littleEndian(40, 4) + littleEndian(16, 4) + littleEndian(16500000, 4) + littleEndian(1, 2) +
                    littleEndian(1, 2) + littleEndian(0, 4) + littleEndian(0, 4) + std::string(16, '\0');
  std::string file = "BM" + littleEndian(263, 4) + littleEndian(0, 4) + littleEndian(62, 4) + dib +
                     std::string("\0\0\0\0\xFF\xFF\xFF\0", 8);
  return file + std::string(263 - file.size(), '\x55');
}

// A 203-byte Softimage PIC: its magic, a header of 4000 x 4000, and packets.
std::string picBomb() {
  std::string file = std::string("\x53\x80\xF6\x34", 4) + std::string(84, '\0') + "PICT";
  file += std::string("\x0F\xA0\x0F\xA0", 4) + std::string(8, '\0');
  file += std::string("\0\x08\x02\x80\0\x08\x00\x10", 8);
  return file + std::string(203 - file.size(), '\x05');
}

// A valid black PNG of 5000 x 5000 pixels: 25 million, in about 25 kB.
std::string pngBomb() {
  PngImage png;
  png.width = 5000;
  png.height = 5000;
  png.samples.assign(size_t{5000} * 5000, 0);
  return pngBytes(png);
}

struct Design {
  TempDir dir;
  Design() { writeStlBinary(dir.file("cube.stl"), cubeMesh(0.1f, 2)); }
  RunResult run(const std::string& map) const {
    return runSensorlay(
        {"/generate", "/nsensors", "4", "/sensors", "cube.stl", "/outmodel", "d.json", "/norientations", "60",
         "/niterations", "1", "/coolingrate", "0.5", "/angleresolutiondegrees", "45", "/qualitymap", map},
        dir.path());
  }
};

// Each is refused from its first bytes, before any decoding, and the design
// goes on with equal weights.
TEST(QualityMapRun, ImagesThatDeclareHugeSizesLeaveTheDesignWithoutAMap) {
  Design design;
  const std::string notAMap = "not a PNG, PGM (P5) or PPM (P6) image, the formats a quality map is read from";
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"bomb.tga", notAMap},
      {"bomb.bmp", notAMap},
      {"bomb.pic", notAMap},
      {"bomb.png", "the image declares 5000 x 5000 pixels, more than the 16777216 a quality map may have"},
      {"bomb.pgm", "the image declares 60000 x 60000 pixels, more than the 16777216 a quality map may have"},
  };
  writeFile(design.dir.file("bomb.tga"), tgaBomb());
  writeFile(design.dir.file("bomb.bmp"), bmpBomb());
  writeFile(design.dir.file("bomb.pic"), picBomb());
  writeFile(design.dir.file("bomb.png"), pngBomb());
  writeFile(design.dir.file("bomb.pgm"), "P5 60000 60000 255\n" + std::string(100, '\0'));
  for (const auto& [name, reason] : cases) {
    const RunResult r = design.run(name);
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err.rfind("Error loading quality map image '" + name + "' : " + reason +
                              "\nquality map normalization: 1\nanneal duration: ",
                          0),
              0u)
        << r.err;
  }
}

TEST(QualityMapRun, AMapThatWeighsNoDirectionIsRefusedBeforeAnyWork) {
  Design design;
  writeFile(design.dir.file("black.pgm"), "P5 8 4 255\n" + std::string(32, '\0'));
  const RunResult r = design.run("black.pgm");
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err,
            "Quality map image 'black.pgm' gives all 60 sampled directions the weight 0 (black): every placement "
            "would score 0.\n");
  EXPECT_EQ(r.out, "");
  EXPECT_FALSE(fileExists(design.dir.file("d.json")));
}

}  // namespace
}  // namespace sensorlay
