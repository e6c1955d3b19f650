#include "quality/map_image.h"

#include <png.h>

#include <csetjmp>
#include <cstdio>
#include <cstring>
#include <new>

namespace sensorlay {

namespace {

Status refuse(const std::string& reason) { return Status::failure(reason); }

// The brightness of a colour, in the integer weights the maps have always
// been read with; the same formula serves 8 and 16-bit samples.
unsigned luminance(unsigned r, unsigned g, unsigned b) { return (r * 77 + g * 150 + b * 29) >> 8; }

std::string sizeText(uint64_t width, uint64_t height) { return std::to_string(width) + " x " + std::to_string(height); }

Status tooLarge(uint64_t width, uint64_t height) {
  return refuse("the image declares " + sizeText(width, height) + " pixels, more than the " +
                std::to_string(kMaxMapPixels) + " a quality map may have");
}

// ---- PGM and PPM -----------------------------------------------------------

bool isPnmSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r'; }

// The header's reader: white space and '#' comments between the numbers; each
// number ends at its first non-digit, which is consumed with it, so that the
// pixels begin right after the one character that ends the maximum value.
class PnmHeader {
 public:
  explicit PnmHeader(const std::string& bytes) : bytes_(bytes), at_(2) {}

  // Skips to the next number and reads it; more digits than any limit here
  // needs count as too large.
  uint64_t number() {
    for (;;) {
      while (at_ < bytes_.size() && isPnmSpace(bytes_[at_])) ++at_;
      if (at_ >= bytes_.size() || bytes_[at_] != '#') break;
      while (at_ < bytes_.size() && bytes_[at_] != '\n' && bytes_[at_] != '\r') ++at_;
    }
    uint64_t value = 0;
    while (at_ < bytes_.size() && bytes_[at_] >= '0' && bytes_[at_] <= '9') {
      value = value * 10 + static_cast<uint64_t>(bytes_[at_] - '0');
      if (value > kTooLarge) value = kTooLarge;
      ++at_;
    }
    ++at_;  // the character that ended the number
    return value;
  }
  size_t end() const { return at_ < bytes_.size() ? at_ : bytes_.size(); }

  static constexpr uint64_t kTooLarge = uint64_t{1} << 40;

 private:
  const std::string& bytes_;
  size_t at_;
};

Result<GreyImage> decodePnm(const std::string& bytes) {
  GreyImage image;
  image.channels = bytes[1] == '6' ? 3 : 1;
  PnmHeader header(bytes);
  const uint64_t width = header.number();
  const uint64_t height = header.number();
  const uint64_t maximum = header.number();
  if (width == 0 || height == 0) return refuse("the image declares " + sizeText(width, height) + " pixels");
  if (maximum > 65535) return refuse("the maximum value " + std::to_string(maximum) + " is above 65535");
  if (width > kMaxMapPixels || height > kMaxMapPixels || width * height > kMaxMapPixels) return tooLarge(width, height);
  // Samples above 255 take two bytes, most significant first.
  const uint64_t sampleBytes = maximum > 255 ? 2 : 1;
  const uint64_t pixels = width * height;
  const uint64_t needed = pixels * static_cast<uint64_t>(image.channels) * sampleBytes;
  const uint64_t held = bytes.size() - header.end();
  if (held < needed)
    return refuse("the image declares " + sizeText(width, height) + " pixels, which take " + std::to_string(needed) +
                  " bytes, but the file holds " + std::to_string(held) + " after its header");

  image.width = static_cast<int32_t>(width);
  image.height = static_cast<int32_t>(height);
  image.grey.resize(pixels);
  const unsigned char* in = reinterpret_cast<const unsigned char*>(bytes.data()) + header.end();
  auto sample = [&](uint64_t i) -> unsigned { return sampleBytes == 2 ? (in[2 * i] << 8 | in[2 * i + 1]) : in[i]; };
  for (uint64_t p = 0; p < pixels; ++p) {
    unsigned value = image.channels == 1 ? sample(p) : luminance(sample(3 * p), sample(3 * p + 1), sample(3 * p + 2));
    if (sampleBytes == 2) value >>= 8;
    image.grey[p] = static_cast<unsigned char>(value);
  }
  return image;
}

// ---- PNG ---------------------------------------------------------------------

// What libpng's callbacks share with the decoder. Plain data only: an error
// leaves libpng by a long jump, which must skip no destructor.
struct PngSource {
  const unsigned char* data;
  size_t size;
  size_t at;
  char error[160];
};

void pngRead(png_structp png, png_bytep out, size_t length) {
  PngSource* source = static_cast<PngSource*>(png_get_io_ptr(png));
  if (length > source->size - source->at) png_error(png, "the file ends inside the image");
  std::memcpy(out, source->data + source->at, length);
  source->at += length;
}

void pngError(png_structp png, png_const_charp message) {
  PngSource* source = static_cast<PngSource*>(png_get_error_ptr(png));
  std::snprintf(source->error, sizeof source->error, "%s", message != nullptr ? message : "PNG error");
  png_longjmp(png, 1);
}

void pngWarning(png_structp, png_const_charp) {}

// Runs `step` with libpng's error jump set; false when libpng gave up, with
// the reason in the source's error text.
template <typename Step>
bool underJump(png_structp png, Step&& step) {
  if (setjmp(png_jmpbuf(png))) return false;
  step();
  return true;
}

// The pixels of one row, `samples` values a pixel in `depth` bits (8 or 16),
// as grey bytes.
void greyRow(const unsigned char* row, int colourType, int depth, png_const_colorp palette, int paletteSize,
             uint32_t width, unsigned char* out) {
  const int bytes = depth == 16 ? 2 : 1;
  auto at = [&](uint32_t i) -> unsigned { return bytes == 2 ? (row[2 * i] << 8 | row[2 * i + 1]) : row[i]; };
  for (uint32_t x = 0; x < width; ++x) {
    unsigned value = 0;
    switch (colourType) {
      case PNG_COLOR_TYPE_GRAY:
        value = at(x);
        break;
      case PNG_COLOR_TYPE_GRAY_ALPHA:
        value = at(2 * x);
        break;
      case PNG_COLOR_TYPE_RGB:
        value = luminance(at(3 * x), at(3 * x + 1), at(3 * x + 2));
        break;
      case PNG_COLOR_TYPE_RGB_ALPHA:
        value = luminance(at(4 * x), at(4 * x + 1), at(4 * x + 2));
        break;
      case PNG_COLOR_TYPE_PALETTE: {
        // An index past the palette's end reads as black.
        const unsigned index = row[x];
        if (static_cast<int>(index) < paletteSize)
          value = luminance(palette[index].red, palette[index].green, palette[index].blue);
        break;
      }
    }
    out[x] = static_cast<unsigned char>(bytes == 2 ? value >> 8 : value);
  }
}

Result<GreyImage> decodePng(const std::string& bytes) {
  PngSource source{reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size(), 0, {0}};
  png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, &source, pngError, pngWarning);
  if (png == nullptr) return refuse("out of memory");
  png_infop info = png_create_info_struct(png);
  if (info == nullptr) {
    png_destroy_read_struct(&png, nullptr, nullptr);
    return refuse("out of memory");
  }
  struct Release {
    png_structp* png;
    png_infop* info;
    ~Release() { png_destroy_read_struct(png, info, nullptr); }
  } release{&png, &info};

  png_uint_32 width = 0, height = 0;
  int depth = 0, colourType = 0, interlace = 0, passes = 1;
  png_colorp palette = nullptr;
  int paletteSize = 0;
  bool transparency = false;
  size_t rowBytes = 0;
  const bool header = underJump(png, [&] {
    png_set_read_fn(png, &source, pngRead);
    // Checksums were never a reason to refuse a map that decodes.
    png_set_crc_action(png, PNG_CRC_QUIET_USE, PNG_CRC_QUIET_USE);
#ifdef PNG_IGNORE_ADLER32
    png_set_option(png, PNG_IGNORE_ADLER32, PNG_OPTION_ON);
#endif
    png_set_user_limits(png, static_cast<png_uint_32>(kMaxMapPixels), static_cast<png_uint_32>(kMaxMapPixels));
    // Only the pixels, the palette and its transparency make a map. Every
    // other chunk is skipped unread: libpng would otherwise allocate a text
    // chunk's declared length (up to 2 GB) before finding that the file ends,
    // and inflate compressed text and profiles.
    png_set_keep_unknown_chunks(png, PNG_HANDLE_CHUNK_NEVER, nullptr, -1);
    png_read_info(png, info);
    png_get_IHDR(png, info, &width, &height, &depth, &colourType, &interlace, nullptr, nullptr);
    transparency = png_get_valid(png, info, PNG_INFO_tRNS) != 0;
    if (colourType == PNG_COLOR_TYPE_PALETTE && png_get_PLTE(png, info, &palette, &paletteSize) == 0) paletteSize = 0;
  });
  if (!header) return refuse(source.error);
  if (static_cast<uint64_t>(width) * height > kMaxMapPixels) return tooLarge(width, height);
  // Deflate packs at most about 1032 bytes into one, so a file too short for
  // its declared rows is cut short or forged; it is refused before the rows
  // are made.
  const uint64_t samples = colourType == PNG_COLOR_TYPE_PALETTE ? 1 : png_get_channels(png, info);
  const uint64_t rawBytes = static_cast<uint64_t>(height) * (1 + (uint64_t{width} * samples * depth + 7) / 8);
  if (rawBytes > 1032 * static_cast<uint64_t>(bytes.size()) + 65536)
    return refuse("the image declares " + sizeText(width, height) + " pixels, more than its " +
                  std::to_string(bytes.size()) + " bytes can hold");

  const bool transformed = underJump(png, [&] {
    // One byte a sample below 8 bits: grey stretched to 0..255, palette
    // indices as they are.
    if (depth < 8) {
      if (colourType == PNG_COLOR_TYPE_GRAY)
        png_set_expand_gray_1_2_4_to_8(png);
      else
        png_set_packing(png);
    }
    passes = png_set_interlace_handling(png);
    png_read_update_info(png, info);
    rowBytes = png_get_rowbytes(png, info);
  });
  if (!transformed) return refuse(source.error);
  const int sampleDepth = depth == 16 ? 16 : 8;

  GreyImage image;
  std::vector<unsigned char> rows;
  std::vector<png_bytep> rowPointers;
  try {
    // Interlaced rows are filled over several passes, so all of them are kept.
    const size_t kept = interlace != PNG_INTERLACE_NONE ? height : 1;
    rows.resize(kept * rowBytes);
    image.grey.resize(static_cast<size_t>(width) * height);
    for (size_t r = 0; r < kept; ++r) rowPointers.push_back(rows.data() + r * rowBytes);
  } catch (const std::bad_alloc&) {
    return refuse("out of memory");
  }
  const bool decoded = underJump(png, [&] {
    if (passes > 1) {
      png_read_image(png, rowPointers.data());
      return;
    }
    for (png_uint_32 y = 0; y < height; ++y) {
      png_read_row(png, rowPointers[0], nullptr);
      greyRow(rowPointers[0], colourType, sampleDepth, palette, paletteSize, width, &image.grey[size_t{y} * width]);
    }
  });
  if (!decoded) return refuse(source.error);
  if (passes > 1)
    for (png_uint_32 y = 0; y < height; ++y)
      greyRow(rowPointers[y], colourType, sampleDepth, palette, paletteSize, width, &image.grey[size_t{y} * width]);

  image.width = static_cast<int32_t>(width);
  image.height = static_cast<int32_t>(height);
  switch (colourType) {
    case PNG_COLOR_TYPE_GRAY_ALPHA:
      image.channels = 2;
      break;
    case PNG_COLOR_TYPE_RGB_ALPHA:
      image.channels = 4;
      break;
    case PNG_COLOR_TYPE_GRAY:
      image.channels = transparency ? 2 : 1;
      break;
    default:  // colour, and palettes, whose entries are colours
      image.channels = transparency ? 4 : 3;
      break;
  }
  return image;
}

}  // namespace

Result<GreyImage> decodeMapImage(const std::string& bytes) {
  static const unsigned char kPngSignature[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
  if (bytes.empty()) return refuse("the file is empty");
  if (bytes.size() >= 8 && std::memcmp(bytes.data(), kPngSignature, 8) == 0) return decodePng(bytes);
  if (bytes.size() >= 2 && bytes[0] == 'P' && (bytes[1] == '5' || bytes[1] == '6')) return decodePnm(bytes);
  return refuse("not a PNG, PGM (P5) or PPM (P6) image, the formats a quality map is read from");
}

}  // namespace sensorlay
