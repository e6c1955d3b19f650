#pragma once
// Small tools behind one switch each.

#include <string>

namespace sensorlay {

// Prints "Version:  <internal name>  <version>" or the error lines on the
// standard output stream; true when the version line was printed.
bool printVersion();

// /trackref_from_imu without a file: prints the sample input with instructions.
void writeImuTemplate();
// /trackref_from_imu with a file: prints the transform, or ends with status 1.
void runImuTransform(const std::string& path);

// /formatconvert: rewrites a device file in layout generation `format` on the
// standard output stream; ends with status 1 when the file is rejected.
void convertDeviceFile(const std::string& path, int format);

}  // namespace sensorlay
