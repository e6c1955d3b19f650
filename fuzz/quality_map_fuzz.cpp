// The quality map decoded from any bytes: a map of at most the pixel limit
// with weights from 0 to 1, or one line that names the image and the reason.

#include <cstdint>
#include <cstdlib>
#include <string>

#include "quality/map_image.h"
#include "quality/quality_map.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace sensorlay;
  const Result<QualityMap> map = QualityMap::decode("fuzz.png", std::string(reinterpret_cast<const char*>(data), size));
  if (!map) {
    const std::string& message = map.message();
    if (message.rfind("Error loading quality map image 'fuzz.png' : ", 0) != 0) std::abort();
    if (message.find('\n') != std::string::npos) std::abort();
    return 0;
  }
  const uint64_t pixels = static_cast<uint64_t>(map->width) * static_cast<uint64_t>(map->height);
  if (map->width < 1 || map->height < 1 || pixels > kMaxMapPixels || map->pixels.size() != pixels) std::abort();
  for (float p : map->pixels)
    if (!(p >= 0.0f && p <= 1.0f)) std::abort();
  map->at(0.3, -1.2);
  return 0;
}
