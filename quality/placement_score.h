#pragma once
// The placement score: how well the pose of the device can be solved from the
// sensors the station sees, averaged over the orientation samples and scaled
// to 0 (perfect) .. 1000 (nothing ever seen).

#include <Eigen/Core>

#include <cmath>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "observation/sweep_model.h"
#include "quality/orientation_samples.h"
#include "quality/quality_map.h"

namespace sensorlay {

struct ScoreScratch;  // quality/score_scratch.h

// The noise of the sweep angles: each angle has its own, and each kind of
// angle (all first, or all second angles) shares one more term across all
// sensors; first and second angles are independent of each other.
constexpr double kAngleVariance = 2.2206609902451057e-9;        // (15 pi 1e-6 rad)^2, s2
constexpr double kSharedAngleVariance = 1.579136704174297e-10;  // (4 pi 1e-6 rad)^2, t2
// g = t2 / (s2 + 32 t2): the top-left block of any size of the information
// matrix is (I - g (e e^T + o o^T)) / s2, with e and o the indicators of the
// even and the odd rows.
constexpr double kSharedAngleShare = kSharedAngleVariance / (kAngleVariance + kMaxSensors * kSharedAngleVariance);

// The inverse of the covariance of the kMaxObservationRows angle rows (row 2k
// a sensor's first angle, 2k + 1 its second), as a general dense inverse.
Eigen::MatrixXd angleNoiseInformation();

// The saturating curve of the pose uncertainty x (metres plus radians): close
// to 0 for excellent tracking, rising steeply in the middle of its range,
// levelling off just below 2.
struct QualityCurve {
  double base = 0.9640275800758169;
  double gain = 100.0;
  double bias = -2.0;

  // The curve whose argument runs from -1.81845 at x = low to +1.81845 at
  // x = high, and whose value at x = 0 stays 0.
  static QualityCurve forRange(double low, double high);
  double operator()(double x) const { return std::tanh(gain * x + bias) + base; }
};

// The value of a sample with no usable answer: no visible sensor, a pose
// uncertainty that is not a number, or more sensors than the noise model has
// rows for. Just above the curve's ceiling of 1 + tanh(2).
constexpr double kNoAnswer = 2.0;

// What a sample that sees no sensor costs. Flat: the no-answer value whatever
// the sample's weight, so that with a quality map whose weighted area is small
// a placement that sees none of it can score best. Weighted: the no-answer
// value times the weight, as every other sample is counted.
enum class UnseenCost { Flat, Weighted };

class PlacementScore {
 public:
  // Forms the noise information, once: it is a constant of the design.
  PlacementScore();
  ~PlacementScore();
  PlacementScore(const PlacementScore&) = delete;
  PlacementScore& operator=(const PlacementScore&) = delete;

  // Lays `count` orientation samples weighted by `map`, and the scale that
  // makes their average 0 .. 1000. Yields the normalisation factor of the
  // weights, or nothing when they add up to nothing. A count that cannot be
  // held fails and leaves no samples.
  Result<std::optional<double>> sampleOrientations(int32_t count, const QualityMap& map);

  // The score of the sensors of `set` with the device at `position` in the
  // station's frame, turned by each sample in turn. Leaves visibleNow as the
  // last sample set it and marks every sensor seen in everVisible. Allocates
  // nothing after the first call.
  double evaluate(SweepObservationSet& set, const Eigen::Vector3d& position);

  // The unweighted value of one sample whose `rows` Jacobian rows stand in
  // scratch.jacobian: A = J^T W J with W the top-left block of the noise
  // information, A inverted by LU with partial pivoting, the pose uncertainty
  // from the inverse's diagonal, and the curve.
  double sampleValue(ScoreScratch& scratch, int32_t rows) const;
  // The value of a sample from the diagonal of its covariance.
  double valueOf(const double covarianceDiagonal[6]) const {
    const double* c = covarianceDiagonal;
    // Position and rotation uncertainty added as plain numbers: 1 mm weighs
    // as much as 1 mrad. Infinite or not-a-number variances of a singular A
    // end here.
    const double x = std::sqrt(c[0] + c[1] + c[2]) + std::sqrt(c[3] + c[4] + c[5]);
    return std::isnan(x) ? kNoAnswer : curve(x);
  }

  // The term of a sample of `weight` that sees no sensor.
  double unseenTerm(double weight) const { return unseenCost == UnseenCost::Weighted ? kNoAnswer * weight : kNoAnswer; }

  Eigen::MatrixXd measurementInformation;  // kMaxObservationRows square
  QualityCurve curve;
  UnseenCost unseenCost = UnseenCost::Flat;
  std::vector<OrientationSample> samples;
  double scoreScale = 1.0;

 private:
  // Reused from sample to sample and from call to call.
  std::unique_ptr<ScoreScratch> scratch_;
};

}  // namespace sensorlay
