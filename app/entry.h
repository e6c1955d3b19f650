#pragma once

namespace sensorlay {

// The whole program: scan, version, validation, preparation, mode. Yields the
// process status, 0 or 1.
int runEntry(int argc, char** argv);

}  // namespace sensorlay
