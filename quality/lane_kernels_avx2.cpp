// The lane kernels for AVX2 processors (CMakeLists.txt sets the flags).
#define SENSORLAY_LANES lanesAvx2
#include "quality/lane_kernels.h"
