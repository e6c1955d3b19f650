#include <cstdio>

#include "model/model_file.h"

namespace sensorlay {

bool readDeviceFormModel(const std::string& path, const std::string&, Constellation&) {
  std::fprintf(stderr, "couldn't read %s: device-form model files are not supported yet\n", path.c_str());
  return false;
}

}  // namespace sensorlay
