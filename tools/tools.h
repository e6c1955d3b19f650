#pragma once
// Small tools behind one switch each. They are entry points of their own:
// they print their output and complaints and yield the process status.

#include <string>

namespace sensorlay {

// Prints "Version:  <internal name>  <version>" or the error lines on the
// standard output stream; true when the version line was printed.
bool printVersion();

// /trackref_from_imu without a file: prints the sample input with
// instructions (0), or complains that it could not (1).
int writeImuTemplate();
// /trackref_from_imu with a file: prints the transform (0), or complains (1).
int runImuTransform(const std::string& path);

// /formatconvert: rewrites a device file in layout generation `format` on the
// standard output stream; 1 when the file is there but rejected.
int convertDeviceFile(const std::string& path, int format);

}  // namespace sensorlay
