// /trackref_from_imu on a fuzzed input file.

#include <cstdint>

#include "fuzz/input_file.h"
#include "tools/tools.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const sensorlay::fuzz::InputFile file("imu.json");
  file.write(data, size);
  sensorlay::runImuTransform(file.path());
  return 0;
}
