// /formatconvert on a fuzzed device file, into each of the three layout
// generations. The first byte chooses the generation and the order of the
// conversions; the rest is the file.

#include <cstdint>
#include <string>

#include "common/json_io.h"
#include "device/device_config.h"
#include "fuzz/input_file.h"
#include "tools/tools.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace sensorlay;
  static const fuzz::InputFile file("device.json");
  if (size == 0) return 0;
  const int first = data[0] % 3;
  file.write(data + 1, size - 1);
  // The tool itself, output and complaints included (the fuzzer closes the
  // streams).
  convertDeviceFile(file.path(), first);

  // The record in memory, written in every generation.
  DeviceConfig config;
  std::string errorText;
  if (!parseDeviceConfig(config, errorText, std::string(reinterpret_cast<const char*>(data + 1), size - 1))) return 0;
  for (int k = 0; k < 3; ++k) {
    config.jsonFormat = (first + k) % 3;
    writeStyledJson(writeDeviceRecord(config));
  }
  return 0;
}
