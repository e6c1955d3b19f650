#pragma once
// Decoding of the images a quality map is drawn in: PNG (through libpng) and
// binary PGM or PPM (P5, P6). A map is a weight painted over the sphere, so
// it needs a lossless format; the others an image library offers are refused
// rather than decoded by code that a crafted file can mislead.

#include <cstdint>
#include <string>
#include <vector>

#include "common/result.h"

namespace sensorlay {

// More pixels than a map of 4096 x 4096 are refused before decoding: a design
// samples a few thousand directions, and a small file can declare millions.
constexpr uint64_t kMaxMapPixels = uint64_t{1} << 24;

struct GreyImage {
  int32_t width = 0;
  int32_t height = 0;
  // The channel count of the file itself: 1 grey, 2 grey and alpha, 3 colour,
  // 4 colour and alpha; a transparency chunk of a PNG adds an alpha channel,
  // and a palette counts as colour.
  int32_t channels = 0;
  // One byte a pixel, row by row from the top. Colour is made grey as
  // (77 r + 150 g + 29 b) / 256; 16-bit samples keep their high byte, and
  // samples of 1, 2 or 4 bits are stretched to 0..255. Alpha is dropped.
  std::vector<unsigned char> grey;
};

// The image in `bytes`; on failure the reason alone, without the file's name.
Result<GreyImage> decodeMapImage(const std::string& bytes);

}  // namespace sensorlay
