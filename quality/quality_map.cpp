#include "quality/quality_map.h"

#include <cmath>
#include <cstddef>
#include <cstring>
#include <new>

#include "common/files.h"
#include "quality/map_image.h"

namespace sensorlay {

namespace {

// The 32-bit float nearest to 1/255.
constexpr float kByteToUnit = 0.003921569f;

// Far more than the largest map the pixel limit lets through in any format.
constexpr uint64_t kMaxMapFileBytes = uint64_t{256} << 20;

// roundf of `value`, held to 0 .. last. Clamping before the conversion keeps
// out-of-range and not-a-number coordinates defined; they land on an edge
// (not-a-number on index 0).
int32_t nearestIndex(float value, int32_t last) {
  const float rounded = std::roundf(value);
  if (!(rounded > 0.0f)) return 0;
  if (rounded >= static_cast<float>(last)) return last;
  return static_cast<int32_t>(rounded);
}

Status loadError(const std::string& path, const std::string& reason) {
  return Status::failure("Error loading quality map image '" + printablePath(path) + "' : " + reason);
}

}  // namespace

Result<QualityMap> QualityMap::load(const std::string& path) {
  if (path.empty()) return QualityMap();
  const WholeFile file = readRegularFile(path, kMaxMapFileBytes);
  switch (file.problem) {
    case WholeFile::Problem::None:
      return decode(path, file.bytes);
    case WholeFile::Problem::CannotOpen:
      return loadError(path, "can't fopen");
    case WholeFile::Problem::NotRegularFile:
      return loadError(path, "not a regular file");
    case WholeFile::Problem::TooLarge:
      return loadError(path, "the file is larger than " + std::to_string(kMaxMapFileBytes >> 20) + " MB");
    case WholeFile::Problem::ReadFailed:
      break;
  }
  return loadError(path, std::string("read failed: ") + std::strerror(file.error));
}

Result<QualityMap> QualityMap::decode(const std::string& path, const std::string& bytes) {
  Result<GreyImage> image = decodeMapImage(bytes);
  if (!image) return loadError(path, image.message());

  // The walk steps by the file's own channel count, as the maps have always
  // been read: a grey image is read pixel by pixel, while an image of c
  // channels yields every c-th pixel for the first 1/c of the entries, and
  // the entries whose step would fall beyond the pixels are black.
  const std::vector<unsigned char>& grey = image->grey;
  const size_t pixelCount = grey.size();
  const size_t step = image->channels > 0 ? static_cast<size_t>(image->channels) : 1u;
  QualityMap map;
  try {
    map.pixels.reserve(pixelCount);
    for (size_t i = 0; i < pixelCount; ++i) {
      const size_t offset = i * step;
      const unsigned char b = offset < pixelCount ? grey[offset] : 0;
      map.pixels.push_back(static_cast<float>(b) * kByteToUnit);
    }
  } catch (const std::bad_alloc&) {
    return loadError(path, "out of memory");
  }
  map.width = image->width;
  map.height = image->height;
  return map;
}

float QualityMap::at(double latitude, double longitude) const {
  // Without a map every direction weighs the same.
  if (pixels.empty() || width < 1 || height < 1) return 1.0f;

  // Nearest pixel: the left edge is longitude -pi, the right +pi; the top row
  // is latitude +pi/2. No interpolation and no wrap at the seam.
  const float a = static_cast<float>(longitude * 0.15915494309189535 + 0.5);
  const int32_t column = nearestIndex(a * static_cast<float>(width - 1), width - 1);
  const float e = static_cast<float>(latitude * 0.3183098861837907 + 0.5);
  const int32_t row = nearestIndex((1.0f - e) * static_cast<float>(height - 1), height - 1);
  const size_t index = static_cast<size_t>(row) * static_cast<size_t>(width) + static_cast<size_t>(column);
  // The size fields are public; a table that does not match them reads as black.
  return index < pixels.size() ? pixels[index] : 0.0f;
}

}  // namespace sensorlay
