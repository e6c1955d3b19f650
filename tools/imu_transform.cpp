#include <cstdio>
#include <cstdlib>

#include "tools/tools.h"

namespace sensorlay {

void writeImuTemplate() {
  std::fprintf(stderr, "/trackref_from_imu is not built yet\n");
  std::exit(1);
}

void runImuTransform(const std::string&) {
  std::fprintf(stderr, "/trackref_from_imu is not built yet\n");
  std::exit(1);
}

}  // namespace sensorlay
