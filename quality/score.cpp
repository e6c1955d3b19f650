#include <cmath>

#include "observation/sweep_model.h"
#include "quality/coverage_evaluator.h"
#include "quality/score_scratch.h"

namespace sensorlay {

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

double sampleValue(const CoverageEvaluator& evaluator, ScoreScratch& scratch, int32_t rows) {
  informationInverse(evaluator.measurementInformation, scratch, rows);
  const Eigen::MatrixXd& C = scratch.covariance;
  // Position and rotation uncertainty added as plain numbers: 1 mm weighs
  // as much as 1 mrad. Infinite or not-a-number variances of a singular A
  // end here.
  const double x = std::sqrt(C(0, 0) + C(1, 1) + C(2, 2)) + std::sqrt(C(3, 3) + C(4, 4) + C(5, 5));
  return std::isnan(x) ? kNoAnswer
                       : std::tanh(evaluator.qualityGain * x + evaluator.qualityBias) + evaluator.qualityBase;
}

double CoverageEvaluator::scorePlacement() {
  if (!scoreScratch) scoreScratch = std::make_unique<ScoreScratch>();
  ScoreScratch& scratch = *scoreScratch;

  SweepObservationSet* set = observations.get();
  const size_t sensorCount = set != nullptr ? set->visibilityTests.size() : 0;

  double sum = 0.0;
  for (const OrientationSample& sample : samples) {
    // A sample of weight not-a-number is not skipped; it makes the sum so.
    if (0.0 >= sample.weight) continue;

    // The visibility test takes the rotation as a quaternion in slots 3 to 6.
    pose[3] = sample.quaternion[0];
    pose[4] = sample.quaternion[1];
    pose[5] = sample.quaternion[2];
    pose[6] = sample.quaternion[3];

    int32_t visible = 0;
    for (size_t i = 0; i < sensorCount; ++i) {
      const bool seen = isSensorVisible(set->visibilityTests[i], pose.data());
      set->visibleNow[i] = seen;
      if (seen) {
        set->everVisible[i] = true;
        ++visible;
      }
    }
    const int32_t rows = 2 * visible;

    if (rows < 1) {
      // Deliberately not weighted: an unseen pose costs the same whatever
      // weight the map gave its direction.
      sum += kNoAnswer;
      continue;
    }
    if (rows > kMaxObservationRows) {
      // The noise model covers 32 sensors seen at once; beyond that there is
      // no information matrix to weigh the rows with.
      sum += kNoAnswer * sample.weight;
      continue;
    }

    // The Jacobian takes the rotation as an angle-axis vector in slots 3 to 5.
    pose[3] = sample.rotationVector[0];
    pose[4] = sample.rotationVector[1];
    pose[5] = sample.rotationVector[2];

    // A failed evaluation writes nothing; a zero J then gives a singular A and
    // the sample ends as not-a-number, that is with the no-answer value.
    ScoreScratch::Jacobian& J = scratch.jacobian;
    J.setZero(rows, 6);
    differentiateObservations(*set, pose.data(), rows, scratch.angles, J.data());

    const double value = sampleValue(*this, scratch, rows);
    sum += value * sample.weight;
  }
  return sum * scoreScale;
}

void CoverageEvaluator::setQualityRange(double low, double high) {
  // The curve's argument runs from -1.81845 at x = low to +1.81845 at
  // x = high, and its value at x = 0 stays 0.
  qualityGain = 3.6369 / (high - low);
  qualityBias = (high * -0.5 - low * 0.5) * qualityGain;
  qualityBase = -std::tanh(qualityBias);
}

}  // namespace sensorlay
