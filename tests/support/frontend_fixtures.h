#pragma once
// Model files for tests of the command line and the model reader. Header-only,
// so that the support library needs none of the product's libraries.

#include <string>

#include "model/constellation.h"
#include "tests/support/run_binary.h"

namespace sensorlay::testing {

// Three sensors on channels 0, 1 and -1, with a CAD name.
inline Constellation threeSensorConstellation() {
  Constellation c;
  c.valid = true;
  c.modelCad = "probe.step";
  c.channelMap = {0, 1, -1};
  c.modelPoints = {{0.05f, 0.0f, 0.02f}, {0.06f, 0.01f, 0.02f}, {-0.03f, 0.04f, 0.0f}};
  c.modelNormals = {{0.0f, 0.0f, 1.0f}, {0.707106769f, 0.0f, 0.707106769f}, {0.0f, 1.0f, 0.0f}};
  return c;
}

// Writes the standalone form as the design run does: an optional leading
// comment line, then the styled JSON.
inline void writeModelFile(const std::string& path, const Constellation& constellation,
                           const std::string& comment = "") {
  const std::string head = comment.empty() ? std::string() : "// " + comment + "\n";
  writeFile(path, head + writeStyledJson(constellationToJson(constellation)));
}

}  // namespace sensorlay::testing
