#include <cstdio>

#include "common/files.h"
#include "common/json_io.h"
#include "common/output_file.h"
#include "device/device_config.h"
#include "tools/tools.h"

namespace sensorlay {

int convertDeviceFile(const std::string& path, int format) {
  const std::string text = readTextFile(path);
  if (text.empty()) {
    // A missing file is reported but not failed, unlike a file that is there
    // and wrong.
    std::fprintf(stderr, "couldn't read %s: file is empty or does not exist\n", printablePath(path).c_str());
    return 0;
  }
  DeviceConfig config;
  std::string errorText;
  if (!parseDeviceConfig(config, errorText, text)) {
    std::fprintf(stderr, "couldn't read %s: %s\n", printablePath(path).c_str(), errorText.c_str());
    return 1;
  }
  // The writer leaves an empty list out, and a model section without one of
  // its lists reads back as no model: sensors given without channels (or the
  // like) would be gone after a second conversion.
  const Constellation& model = config.constellation;
  const bool partlyEmpty = model.channelMap.empty() || model.modelPoints.empty() || model.modelNormals.empty();
  if (model.valid && partlyEmpty &&
      !(model.channelMap.empty() && model.modelPoints.empty() && model.modelNormals.empty())) {
    std::fprintf(stderr,
                 "couldn't convert %s: its beaconet_config lists %zu channels, %zu modelPoints and %zu modelNormals, "
                 "and a section with an empty list would be lost on the next reading\n",
                 printablePath(path).c_str(), model.channelMap.size(), model.modelPoints.size(),
                 model.modelNormals.size());
    return 1;
  }
  config.jsonFormat = format;
  std::fputs(writeStyledJson(writeDeviceRecord(config)).c_str(), stdout);
  std::fputs("\n", stdout);
  const Status written = flushStandardOutput("the conversion of " + printablePath(path));
  if (!written) {
    std::fprintf(stderr, "%s\n", written.message().c_str());
    return 1;
  }
  return 0;
}

}  // namespace sensorlay
