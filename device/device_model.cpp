#include <cstdio>

#include "device/device_config.h"
#include "model/model_file.h"

namespace sensorlay {

// A model file that is a whole device file: the sensors sit under
// "beaconet_config", and the rest of the device must still be a readable
// device record.
bool readDeviceFormModel(const std::string& path, const std::string& text, Constellation& constellation) {
  DeviceConfig config;
  std::string errorText;
  if (!parseDeviceConfig(config, errorText, text)) {
    std::fprintf(stderr, "couldn't read %s: %s\n", path.c_str(), errorText.c_str());
    return false;
  }
  constellation.valid = config.constellation.valid;
  constellation.modelCad = config.constellation.modelCad;
  constellation.channelMap = config.constellation.channelMap;
  constellation.modelPoints = config.constellation.modelPoints;
  constellation.modelNormals = config.constellation.modelNormals;
  return true;
}

}  // namespace sensorlay
