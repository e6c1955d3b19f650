#include <cstdio>
#include <cstdlib>

#include "tools/tools.h"

namespace sensorlay {

bool printVersion() {
  std::printf("Version:  %s  %s\n", SENSORLAY_INTERNAL_NAME, SENSORLAY_FILE_VERSION);
  return true;
}

void writeImuTemplate() {
  std::fprintf(stderr, "/trackref_from_imu is not built yet\n");
  std::exit(1);
}

void runImuTransform(const std::string&) {
  std::fprintf(stderr, "/trackref_from_imu is not built yet\n");
  std::exit(1);
}

void convertDeviceFile(const std::string&, int) {
  std::fprintf(stderr, "/formatconvert is not built yet\n");
  std::exit(1);
}

}  // namespace sensorlay
