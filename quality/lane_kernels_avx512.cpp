// The lane kernels for AVX512 processors (CMakeLists.txt sets the flags).
#define SENSORLAY_LANES lanesAvx512
#include "quality/lane_kernels.h"
