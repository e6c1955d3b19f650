#pragma once
// The weight of every direction around the device, read from an image in
// latitude/longitude layout: the left edge is longitude -pi, the right +pi,
// the centre the device's +Z, the top row latitude +pi/2. White weighs fully,
// black not at all.

#include <cstdint>
#include <string>
#include <vector>

#include "common/result.h"

namespace sensorlay {

struct QualityMap {
  // A PNG, PGM or PPM image (quality/map_image.h), taken as grey. An empty
  // path gives no map. A failure's message is one line,
  // "Error loading quality map image '<path>' : <reason>".
  static Result<QualityMap> load(const std::string& path);
  // The same from the file's bytes; `path` only names them in messages.
  static Result<QualityMap> decode(const std::string& path, const std::string& bytes);

  bool empty() const { return pixels.empty(); }
  // The nearest pixel's weight, 0 to 1; 1 everywhere without a map.
  float at(double latitude, double longitude) const;

  std::vector<float> pixels;  // row by row from the top, 0 to 1
  int32_t width = 0;
  int32_t height = 0;
};

}  // namespace sensorlay
