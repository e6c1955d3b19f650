#include <cstdio>

#include "tools/tools.h"

namespace sensorlay {

bool printVersion() {
  std::printf("Version:  %s  %s\n", SENSORLAY_INTERNAL_NAME, SENSORLAY_FILE_VERSION);
  return true;
}

}  // namespace sensorlay
