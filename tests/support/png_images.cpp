#include "tests/support/png_images.h"

#include <png.h>

#include <csetjmp>
#include <stdexcept>

namespace sensorlay::testing {

int samplesPerPixel(int colourType) {
  switch (colourType) {
    case PNG_COLOR_TYPE_GRAY_ALPHA:
      return 2;
    case PNG_COLOR_TYPE_RGB:
      return 3;
    case PNG_COLOR_TYPE_RGB_ALPHA:
      return 4;
    default:
      return 1;
  }
}

PngImage noisePng(uint32_t width, uint32_t height, int colourType, int depth, bool interlaced, bool transparent,
                  std::mt19937& generator) {
  PngImage png;
  png.width = width;
  png.height = height;
  png.colourType = colourType;
  png.depth = depth;
  png.interlaced = interlaced;
  const uint32_t top = (1u << depth) - 1;
  const size_t count = size_t{width} * height * samplesPerPixel(colourType);
  for (size_t i = 0; i < count; ++i) png.samples.push_back(static_cast<uint16_t>(generator() & top));
  if (colourType == PNG_COLOR_TYPE_PALETTE)
    for (uint32_t i = 0; i < 3 * (top + 1); ++i) png.palette.push_back(static_cast<uint8_t>(generator()));
  if (transparent) {
    const size_t n = colourType == PNG_COLOR_TYPE_PALETTE ? (top + 1) / 2 : colourType == PNG_COLOR_TYPE_RGB ? 3 : 1;
    for (size_t i = 0; i < n; ++i) png.transparent.push_back(static_cast<uint16_t>(generator() & top));
  }
  return png;
}

namespace {

void append(png_structp png, png_bytep data, size_t length) {
  static_cast<std::string*>(png_get_io_ptr(png))->append(reinterpret_cast<const char*>(data), length);
}

void flush(png_structp) {}

// Packs one row of samples into the file's row layout: big-endian 16-bit
// samples, or several samples a byte below 8 bits, the first in the top bits.
std::vector<png_byte> packRow(const PngImage& image, uint32_t y) {
  const uint32_t count = image.width * static_cast<uint32_t>(samplesPerPixel(image.colourType));
  const uint16_t* row = image.samples.data() + static_cast<size_t>(y) * count;
  std::vector<png_byte> packed((static_cast<size_t>(count) * image.depth + 7) / 8, 0);
  for (uint32_t i = 0; i < count; ++i) {
    if (image.depth == 16) {
      packed[2 * i] = static_cast<png_byte>(row[i] >> 8);
      packed[2 * i + 1] = static_cast<png_byte>(row[i]);
    } else {
      const uint32_t bit = i * image.depth;
      packed[bit / 8] |= static_cast<png_byte>(row[i] << (8 - image.depth - bit % 8));
    }
  }
  return packed;
}

}  // namespace

std::string pngBytes(const PngImage& image) {
  if (image.samples.size() != static_cast<size_t>(image.width) * image.height * samplesPerPixel(image.colourType))
    throw std::runtime_error("pngBytes: the samples do not fill the image");
  std::vector<std::vector<png_byte>> rows;
  for (uint32_t y = 0; y < image.height; ++y) rows.push_back(packRow(image, y));
  std::vector<png_bytep> rowPointers;
  for (auto& row : rows) rowPointers.push_back(row.data());
  std::vector<png_color> palette;
  for (size_t i = 0; i + 2 < image.palette.size(); i += 3)
    palette.push_back({image.palette[i], image.palette[i + 1], image.palette[i + 2]});
  std::vector<png_byte> alphas(image.transparent.begin(), image.transparent.end());
  png_color_16 colour{};
  if (!image.transparent.empty() && image.colourType != PNG_COLOR_TYPE_PALETTE) {
    colour.gray = image.transparent[0];
    colour.red = image.transparent[0];
    if (image.transparent.size() == 3) {
      colour.green = image.transparent[1];
      colour.blue = image.transparent[2];
    }
  }

  std::string bytes;
  png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
  png_infop info = png_create_info_struct(png);
  if (setjmp(png_jmpbuf(png))) {
    png_destroy_write_struct(&png, &info);
    throw std::runtime_error("pngBytes: libpng refused the image");
  }
  png_set_write_fn(png, &bytes, append, flush);
  png_set_IHDR(png, info, image.width, image.height, image.depth, image.colourType,
               image.interlaced ? PNG_INTERLACE_ADAM7 : PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT,
               PNG_FILTER_TYPE_DEFAULT);
  if (!palette.empty()) png_set_PLTE(png, info, palette.data(), static_cast<int>(palette.size()));
  if (!image.transparent.empty()) png_set_tRNS(png, info, alphas.data(), static_cast<int>(alphas.size()), &colour);
  png_write_info(png, info);
  png_write_image(png, rowPointers.data());
  png_write_end(png, nullptr);
  png_destroy_write_struct(&png, &info);
  return bytes;
}

}  // namespace sensorlay::testing
