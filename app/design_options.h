#pragma once
// What the command line asks for. Filled once by the option scan and not
// changed afterwards.

#include <cstdint>
#include <string>
#include <vector>

namespace sensorlay {

struct DesignOptions {
  std::string modelPath;
  std::string sensorsPath;
  std::string qualityMapPath;
  std::vector<std::string> obstaclePaths;
  std::string outModelPath;
  std::string outScadPath;
  double angleResolutionDegrees = 0.5;
  double maxIncidenceAngle = 60.0;
  double distanceBaseMeters = 2.0;
  double maxSurfaceAngle = 0.0;
  bool generate = false;
  bool baseStationSensitivity = false;
  bool withScadNormals = false;
  int32_t verifyCoverage = 0;
  int32_t nSensors = -1;
  int32_t nOrientations = 1250;
  int32_t nIterations = 3;
  double coolingRate = 0.96;
  double qualityRangeLow = -1.0;
  double qualityRangeHigh = -1.0;
  double srbTiltRadians = 0.0;
  double sensorSize = 0.006;
};

}  // namespace sensorlay
