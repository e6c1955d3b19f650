#pragma once
// Reading sensor model files: standalone JSON, or a device file that holds the
// model section under "beaconet_config".

#include <memory>
#include <string>

#include "model/constellation.h"

namespace sensorlay {

// False when nothing usable was read; the complaint has been printed and the
// record is left as it was. True does not promise `valid`.
bool readModelFile(const std::string& path, Constellation& constellation);

// The device-file branch of readModelFile (device/).
bool readDeviceFormModel(const std::string& path, const std::string& text, Constellation& constellation);

// The model of a file with the identity transform, or null after a complaint.
std::unique_ptr<SensorModel> loadSensorModel(const std::string& path);

// The whole file with CR LF collapsed to LF; empty on any failure.
std::string readTextFile(const std::string& path);
std::string readResourceFile(const std::string& relativePath);
std::string joinPath(const std::string& a, const std::string& b, char separator = '/');
std::string findResourceRoot();

}  // namespace sensorlay
