#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <new>
#include <random>
#include <string>

#include "common/random_draws.h"
#include "common/rotation.h"
#include "quality/nearest_directions.h"
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

// Bytes a sample takes while the set is made: the record and its place in
// the grid, with about one cell.
constexpr double kBytesPerSample = sizeof(OrientationSample) + kNearestDirectionBytes;

double physicalMemoryBytes() {
  const long pages = sysconf(_SC_PHYS_PAGES), pageSize = sysconf(_SC_PAGESIZE);
  return pages > 0 && pageSize > 0 ? static_cast<double>(pages) * static_cast<double>(pageSize) : 0.0;
}

// `limit` says why the memory cannot be had.
Status tooManySamples(int32_t count, const std::string& limit) {
  char need[64];
  std::snprintf(need, sizeof need, "%.1f GB", count * kBytesPerSample / 1e9);
  return Status::failure("Too many orientations: " + std::to_string(count) + " samples need " + need + " of memory, " +
                         limit);
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

Result<std::vector<OrientationSample>> sampleOrientations(int32_t count, const QualityMap& map,
                                                          std::optional<double>& normalization, NearestSearch search) {
  normalization.reset();
  const size_t capacity = count > 0 ? static_cast<size_t>(count) : 0;
  // A count that cannot be held is refused before any work, rather than left
  // to the system, which may grant the memory and then end the process.
  const double available = physicalMemoryBytes();
  if (available > 0.0 && capacity * kBytesPerSample > available) {
    char has[64];
    std::snprintf(has, sizeof has, "%.1f GB", available / 1e9);
    return tooManySamples(count, std::string("and this machine has ") + has);
  }
  std::vector<OrientationSample> samples;
  std::optional<NearestDirections> grid;
  try {
    samples.reserve(capacity);
    if (search == NearestSearch::Grid) grid.emplace(capacity);
  } catch (const std::bad_alloc&) {
    return tooManySamples(count, "more than this process may have");
  }
  // A fixed seed, and a generator shared with nothing: every run judges
  // placements against the same set, and a smaller set is a prefix of a larger.
  std::mt19937 generator(5489u);
  double total = 0.0;
  // The azimuth of the last direction, as drawn; the pole's is any, and 0
  // files it.
  double azimuth = 0.0;

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
      double bestAzimuth = azimuth;
      double bestDistance = 0.0;
      for (int candidate = 0; candidate < kCandidates; ++candidate) {
        const double z = drawUnitDouble(generator) * 2.0 - 1.0;
        const double s = std::sqrt(1.0 - z * z);
        const double phi = drawUnitDouble(generator) * 6.283185307179586 - 3.141592653589793;
        const double x = std::cos(phi) * s;
        const double y = std::sin(phi) * s;
        double d = 9999.0;
        if (grid) {
          const double c[3] = {x, y, z};
          d = grid->nearest(c, phi, bestDistance);
        } else {
          for (const OrientationSample& other : samples) {
            const double dx = x - other.direction[0];
            const double dy = y - other.direction[1];
            const double dz = z - other.direction[2];
            const double distance = dx * dx + dy * dy + dz * dz;
            if (distance < d) d = distance;
          }
        }
        if (d > bestDistance) {
          bestDistance = d;
          best[0] = x;
          best[1] = y;
          best[2] = z;
          bestAzimuth = phi;
        }
      }
      sample.direction[0] = best[0];
      sample.direction[1] = best[1];
      sample.direction[2] = best[2];
      azimuth = bestAzimuth;
    }
    if (grid) grid->add(sample.direction, azimuth);
    rotationOntoZ(sample.direction, sample.quaternion);
    quaternionToRotationVector(sample.quaternion, sample.rotationVector);

    const double x = sample.direction[0], y = sample.direction[1], z = sample.direction[2];
    sample.latitude = std::atan2(y, std::sqrt(z * z + x * x));
    sample.longitude = std::atan2(x, z);
    sample.weight = map.empty() ? 1.0 : static_cast<double>(map.at(sample.latitude, sample.longitude));

    total += sample.weight;
    samples.push_back(sample);
  }

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
