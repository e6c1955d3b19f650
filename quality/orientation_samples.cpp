#include <cmath>
#include <random>

#include "common/random_draws.h"
#include "common/rotation.h"
#include "quality/orientation_samples.h"

namespace sensorlay {

namespace {

constexpr int kCandidates = 10;

// The shortest rotation that takes `d` (unit) onto +Z, as a quaternion
// w, x, y, z with w not below 0. Straight along +Z the formula divides 0 by 0,
// and the result is not-a-number; that sample is never seen by any sensor.
void rotationOntoZ(const double d[3], double q[4]) {
  const double x = d[0], y = d[1], z = d[2];
  const double k = (1.0 - z) / (x * x + y * y);
  const double m00 = 1.0 - k * (x * x), m01 = -k * x * y, m02 = -x;
  const double m10 = -k * x * y, m11 = 1.0 - k * (y * y), m12 = -y;
  const double m20 = x, m21 = y, m22 = 1.0 - k * (x * x + y * y);

  Eigen::Matrix3d m;
  m << m00, m01, m02,  //
      m10, m11, m12,   //
      m20, m21, m22;
  quaternionFromRotationMatrix(m, q);
}

}  // namespace

void quaternionToRotationVector(const double q[4], double v[3]) {
  const double w = q[0], a = q[1], b = q[2], c = q[3];
  const double s2 = a * a + b * b + c * c;
  if (!(s2 > 0.0)) {
    v[0] = a * 2.0;
    v[1] = b * 2.0;
    v[2] = c * 2.0;
    return;
  }
  const double n = std::sqrt(s2);
  // For w below 0 the angle is taken the short way round.
  const double angle = w < 0.0 ? std::atan2(-n, -w) : std::atan2(n, w);
  v[0] = a * 2.0 * angle / n;
  v[1] = b * 2.0 * angle / n;
  v[2] = c * 2.0 * angle / n;
}

std::vector<OrientationSample> sampleOrientations(int32_t count, const QualityMap& map,
                                                  std::optional<double>& normalization) {
  std::vector<OrientationSample> samples;
  // A fixed seed, and a generator shared with nothing: every run judges
  // placements against the same set, and a smaller set is a prefix of a larger.
  std::mt19937 generator(5489u);
  double total = 0.0;

  for (int32_t i = 0; i < count; ++i) {
    OrientationSample sample;
    if (i == 0) {
      sample.direction[0] = 0.0;
      sample.direction[1] = 0.0;
      sample.direction[2] = 1.0;
    } else {
      // Best of several candidates: the one farthest from all directions so
      // far, which spreads the set evenly over the sphere.
      const OrientationSample& previous = samples.back();
      double best[3] = {previous.direction[0], previous.direction[1], previous.direction[2]};
      double bestDistance = 0.0;
      for (int candidate = 0; candidate < kCandidates; ++candidate) {
        const double z = drawUnitDouble(generator) * 2.0 - 1.0;
        const double s = std::sqrt(1.0 - z * z);
        const double phi = drawUnitDouble(generator) * 6.283185307179586 - 3.141592653589793;
        const double x = std::cos(phi) * s;
        const double y = std::sin(phi) * s;
        double d = 9999.0;
        for (const OrientationSample& other : samples) {
          const double dx = x - other.direction[0];
          const double dy = y - other.direction[1];
          const double dz = z - other.direction[2];
          const double distance = dx * dx + dy * dy + dz * dz;
          if (distance < d) d = distance;
        }
        if (d > bestDistance) {
          bestDistance = d;
          best[0] = x;
          best[1] = y;
          best[2] = z;
        }
      }
      sample.direction[0] = best[0];
      sample.direction[1] = best[1];
      sample.direction[2] = best[2];
    }

    rotationOntoZ(sample.direction, sample.quaternion);
    quaternionToRotationVector(sample.quaternion, sample.rotationVector);

    const double x = sample.direction[0], y = sample.direction[1], z = sample.direction[2];
    sample.latitude = std::atan2(y, std::sqrt(z * z + x * x));
    sample.longitude = std::atan2(x, z);
    sample.weight = map.empty() ? 1.0 : static_cast<double>(map.at(sample.latitude, sample.longitude));

    total += sample.weight;
    samples.push_back(sample);
  }

  normalization.reset();
  if (total > 0.0) {
    // Mean weight 1 over the set, so the score's scale does not depend on how
    // bright the map is.
    const double factor = static_cast<double>(samples.size()) / total;
    for (OrientationSample& sample : samples) sample.weight *= factor;
    normalization = factor;
  }
  return samples;
}

}  // namespace sensorlay
