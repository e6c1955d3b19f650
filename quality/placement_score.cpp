#include "quality/placement_score.h"

#include <Eigen/LU>

#include <cmath>

#include "quality/score_scratch.h"

namespace sensorlay {

Eigen::MatrixXd angleNoiseInformation() {
  Eigen::MatrixXd covariance = Eigen::MatrixXd::Zero(kMaxObservationRows, kMaxObservationRows);
  for (int i = 0; i < kMaxObservationRows; ++i) covariance(i, i) = kAngleVariance;
  for (int i = 0; i < kMaxObservationRows; ++i)
    for (int j = 0; j < kMaxObservationRows; ++j)
      if ((i % 2) == (j % 2)) covariance(i, j) += kSharedAngleVariance;
  return covariance.inverse();
}

QualityCurve QualityCurve::forRange(double low, double high) {
  QualityCurve curve;
  curve.gain = 3.6369 / (high - low);
  curve.bias = (high * -0.5 - low * 0.5) * curve.gain;
  curve.base = -std::tanh(curve.bias);
  return curve;
}

PlacementScore::PlacementScore()
    : measurementInformation(angleNoiseInformation()), scratch_(std::make_unique<ScoreScratch>()) {}

PlacementScore::~PlacementScore() = default;

Result<std::optional<double>> PlacementScore::sampleOrientations(int32_t count, const QualityMap& map) {
  std::optional<double> normalization;
  samples.clear();
  Result<std::vector<OrientationSample>> made = sensorlay::sampleOrientations(count, map, normalization);
  if (!made) return made.status();
  samples = std::move(*made);
  scoreScale = 500.0 / static_cast<double>(samples.size());
  return normalization;
}

void informationInverse(const Eigen::MatrixXd& measurementInformation, ScoreScratch& scratch, int32_t rows) {
  const ScoreScratch::Jacobian& J = scratch.jacobian;
  // W is the top-left block of the inverse of the full covariance, used in
  // place; it is not the inverse of the covariance's block.
  const auto W = measurementInformation.topLeftCorner(rows, rows);
  scratch.weightedTranspose.noalias() = J.transpose() * W;
  scratch.information.noalias() = scratch.weightedTranspose * J;

  // The steps of Eigen's inverse of a dynamic matrix, done in the kept
  // buffers (its Inverse expression would copy the decomposition each
  // time): LU with partial pivoting, then P I solved against L and U.
  scratch.lu.compute(scratch.information);
  Eigen::MatrixXd& C = scratch.covariance;
  C.setZero();
  const auto& permutation = scratch.lu.permutationP().indices();
  for (int i = 0; i < 6; ++i) C(permutation(i), i) = 1.0;
  scratch.lu.matrixLU().triangularView<Eigen::UnitLower>().solveInPlace(C);
  scratch.lu.matrixLU().triangularView<Eigen::Upper>().solveInPlace(C);
}

double PlacementScore::sampleValue(ScoreScratch& scratch, int32_t rows) const {
  informationInverse(measurementInformation, scratch, rows);
  const Eigen::MatrixXd& C = scratch.covariance;
  // Position and rotation uncertainty added as plain numbers: 1 mm weighs
  // as much as 1 mrad. Infinite or not-a-number variances of a singular A
  // end here.
  const double x = std::sqrt(C(0, 0) + C(1, 1) + C(2, 2)) + std::sqrt(C(3, 3) + C(4, 4) + C(5, 5));
  return std::isnan(x) ? kNoAnswer : curve(x);
}

double PlacementScore::evaluate(SweepObservationSet& set, const Eigen::Vector3d& position) {
  ScoreScratch& scratch = *scratch_;
  StationPose pose = {{position.x(), position.y(), position.z()}, {1.0, 0.0, 0.0, 0.0}};
  PoseParameters parameters = {{position.x(), position.y(), position.z()}, {0.0, 0.0, 0.0}};

  double sum = 0.0;
  for (const OrientationSample& sample : samples) {
    // A sample of weight not-a-number is not skipped; it makes the sum so.
    if (0.0 >= sample.weight) continue;

    for (int i = 0; i < 4; ++i) pose.quaternion[i] = sample.quaternion[i];
    const int32_t rows = 2 * markVisibleSensors(set, pose);

    if (rows < 1) {
      sum += unseenTerm(sample.weight);
      continue;
    }
    if (rows > kMaxObservationRows) {
      // The noise model covers 32 sensors seen at once; beyond that there is
      // no information matrix to weigh the rows with.
      sum += kNoAnswer * sample.weight;
      continue;
    }

    // A failed evaluation writes nothing; a zero J then gives a singular A and
    // the sample ends as not-a-number, that is with the no-answer value.
    for (int i = 0; i < 3; ++i) parameters.rotationVector[i] = sample.rotationVector[i];
    ScoreScratch::Jacobian& J = scratch.jacobian;
    J.setZero(rows, 6);
    differentiateObservations(set, parameters, rows, scratch.angles, J.data());

    sum += sampleValue(scratch, rows) * sample.weight;
  }
  return sum * scoreScale;
}

}  // namespace sensorlay
