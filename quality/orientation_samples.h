#pragma once
// The orientations a placement is judged over: directions spread evenly over
// the sphere, each with the rotation that turns it onto the station's line of
// sight and the weight the quality map gives it.

#include <cstdint>
#include <optional>
#include <vector>

#include "common/result.h"
#include "quality/quality_map.h"

namespace sensorlay {

// Thirteen 64-bit floats; see sampleOrientations and buildReportGrid.
struct OrientationSample {
  double latitude = 0.0;
  double longitude = 0.0;
  double rotationVector[3] = {0.0, 0.0, 0.0};
  double quaternion[4] = {1.0, 0.0, 0.0, 0.0};  // w, x, y, z
  double direction[3] = {0.0, 0.0, 1.0};
  double weight = 1.0;
};

// How a candidate's nearest earlier sample is found: among its neighbours in
// a grid over the sphere, in time growing with the count, or by comparing it
// with every earlier sample, in time growing with its square. Both give the
// same samples, bit for bit; the second is kept to check the first.
enum class NearestSearch { Grid, Exhaustive };

// `count` samples from a fixed seed, the first straight along +Z, each later
// one the best of 10 candidates (the farthest from all before it), weighted by
// `map` and rescaled to a mean weight of 1. `normalization` gets the factor of
// that rescaling, or nothing when the weights add up to nothing. Fails, before
// any work, when the samples cannot be held in this machine's memory.
Result<std::vector<OrientationSample>> sampleOrientations(int32_t count, const QualityMap& map,
                                                          std::optional<double>& normalization,
                                                          NearestSearch search = NearestSearch::Grid);

// The rotation vector of a unit quaternion w, x, y, z, the angle taken the
// short way round.
void quaternionToRotationVector(const double q[4], double v[3]);

}  // namespace sensorlay
