#pragma once
// The bundled sample devices, for the tests and benchmarks that run on them.
// SENSORLAY_SOURCE_DIR comes from the build.

#include <string>

namespace sensorlay::testing {

inline std::string samplePath(const std::string& name) {
  return std::string(SENSORLAY_SOURCE_DIR) + "/samples/" + name;
}

}  // namespace sensorlay::testing
