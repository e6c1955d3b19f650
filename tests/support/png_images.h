#pragma once
// PNG files of every kind a quality map may come in, written with libpng for
// the map's tests and the fuzz seeds.

#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace sensorlay::testing {

struct PngImage {
  uint32_t width = 1;
  uint32_t height = 1;
  int colourType = 0;  // PNG_COLOR_TYPE_*: 0 grey, 2 colour, 3 palette, 4 grey and alpha, 6 colour and alpha
  int depth = 8;       // bits a sample: 1, 2, 4, 8 or 16
  bool interlaced = false;
  // width x height pixels of the colour type's samples, row by row, each
  // within `depth` bits; palette indices for a palette image.
  std::vector<uint16_t> samples;
  std::vector<uint8_t> palette;       // r, g, b a palette entry
  std::vector<uint16_t> transparent;  // tRNS: palette alphas, or the one transparent grey or colour
};

// The file's bytes; throws std::runtime_error when libpng refuses the image.
std::string pngBytes(const PngImage& image);

// An image of the layout whose samples and palette come from `generator`;
// with `transparent`, a tRNS chunk too (alphas for half the palette, or one
// transparent grey or colour).
PngImage noisePng(uint32_t width, uint32_t height, int colourType, int depth, bool interlaced, bool transparent,
                  std::mt19937& generator);

// Samples a pixel for a colour type: 1 grey, 2 grey and alpha, 3 colour and
// palette (1 index), 4 colour and alpha.
int samplesPerPixel(int colourType);

}  // namespace sensorlay::testing
