// /formatconvert on a fuzzed device file. The first byte chooses the layout
// generation to write; the rest is the file.

#include <cstdint>

#include "fuzz/input_file.h"
#include "tools/tools.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const sensorlay::fuzz::InputFile file("device.json");
  if (size == 0) return 0;
  file.write(data + 1, size - 1);
  // Output and complaints go to the streams, which the fuzzer closes.
  sensorlay::convertDeviceFile(file.path(), data[0] % 3);
  return 0;
}
