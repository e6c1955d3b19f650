#pragma once
// The placements of the surface-fit preview (/verifycoverage).

#include <cstdint>

#include "model/constellation.h"

namespace sensorlay {

class TrackedSurface;

// More placements than this would take minutes and hundreds of megabytes of
// script, far beyond what a CAD viewer shows; such a count is refused.
constexpr int32_t kMaxVerifyPlacements = 1000000;

// `count` placements from randomPlacement, on the channels 0 to count - 1;
// none for a count below 1.
Constellation drawFittingPlacements(TrackedSurface& surface, int32_t count);

}  // namespace sensorlay
