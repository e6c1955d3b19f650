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
// The folder under which bare model names are looked up (cfg/hmd/<name>.json).
std::string findResourceRoot();
// The first of `start` and its ancestors whose last component is `name`,
// compared without regard to case; empty when there is none.
std::string findAncestorNamed(const std::string& start, const std::string& name);
// `name` joined to the first of `start` and its ancestors that holds an entry
// of that name; empty when the walk runs out.
std::string findEntryUpwards(const std::string& start, const std::string& name);

}  // namespace sensorlay
