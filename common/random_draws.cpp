#include "common/random_draws.h"

#include <unistd.h>

#include <ctime>

namespace sensorlay {

uint32_t clockSeed() { return static_cast<uint32_t>(std::time(nullptr)) + static_cast<uint32_t>(getpid()); }

}  // namespace sensorlay
