// The lane kernels for processors without wider vectors (CMakeLists.txt sets the flags).
#define SENSORLAY_LANES lanesBase
#include "quality/lane_kernels.h"
