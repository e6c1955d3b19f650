#pragma once
// Loading a sensor model from either form of model file: a standalone model,
// or a whole device file that holds one under "beaconet_config".

#include <memory>
#include <string>

#include "common/result.h"
#include "model/constellation.h"
#include "model/model_file.h"

namespace sensorlay {

// The model section of a file as it stands, sensors on negative channels
// included. A position that is not finite in single precision fails the file.
Result<Constellation> readModelFile(const std::string& path);

// The device-file branch of readModelFile: the rest of the device must still
// be a readable device record.
Result<Constellation> readDeviceFormModel(const ModelText& model);

// The run-time model of a file, with the identity transform.
Result<std::unique_ptr<SensorModel>> loadSensorModel(const std::string& path);

}  // namespace sensorlay
