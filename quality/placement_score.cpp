#include "quality/placement_score.h"

#include <Eigen/LU>

#include <cassert>
#include <cmath>
#include <utility>

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

namespace {

// covarianceDiagonal for a row count known when compiled: the loops unroll.
template <int rows>
void smallCovarianceDiagonal(const double* W, Eigen::Index stride, const double* J, double diagonal[6]) {
  // W(k, c) = W[c * stride + k], J(k, i) = J[k * 6 + i].
  // J^T W, then A = (J^T W) J: at this size the library forms each entry as a
  // sum over k from the first product on, in order.
  double WT[6][kSmallViewRows];
  for (int i = 0; i < 6; ++i)
    for (int c = 0; c < rows; ++c) {
      const double* column = W + c * stride;
      double sum = J[i] * column[0];
      for (int k = 1; k < rows; ++k) sum += J[k * 6 + i] * column[k];
      WT[i][c] = sum;
    }
  double A[6][6];
  for (int i = 0; i < 6; ++i)
    for (int j = 0; j < 6; ++j) {
      double sum = WT[i][0] * J[j];
      for (int k = 1; k < rows; ++k) sum += WT[i][k] * J[k * 6 + j];
      A[i][j] = sum;
    }

  // LU with partial pivoting: the first largest magnitude in the column
  // (a not-a-number at the top stays the pivot), whole rows swapped, the
  // column divided by a pivot that is not zero, then the rank-one update,
  // which runs even after a zero pivot.
  int transposition[6];
  for (int k = 0; k < 6; ++k) {
    int p = k;
    double biggest = std::fabs(A[k][k]);
    for (int i = k + 1; i < 6; ++i)
      if (std::fabs(A[i][k]) > biggest) {
        biggest = std::fabs(A[i][k]);
        p = i;
      }
    transposition[k] = p;
    if (biggest != 0.0) {
      if (p != k)
        for (int j = 0; j < 6; ++j) std::swap(A[k][j], A[p][j]);
      for (int i = k + 1; i < 6; ++i) A[i][k] /= A[k][k];
    }
    for (int j = k + 1; j < 6; ++j)
      for (int i = k + 1; i < 6; ++i) A[i][j] -= A[k][j] * A[i][k];
  }
  // The permutation as the library builds it from the transpositions, last
  // first; column i of the right-hand side is the unit vector at permuted[i].
  int permuted[6] = {0, 1, 2, 3, 4, 5};
  for (int k = 5; k >= 0; --k) std::swap(permuted[k], permuted[transposition[k]]);

  // The two triangular solves, column by column, as the library's blocked
  // solver does them at this size: panels of four rows substituted one row
  // at a time, the rows past a panel updated by the panel's dot product,
  // accumulated from zero, in one subtraction.
  for (int column = 0; column < 6; ++column) {
    double x[6] = {0.0, 0.0, 0.0, 0.0, 0.0, 0.0};
    x[permuted[column]] = 1.0;
    // L, unit diagonal.
    for (int i = 0; i < 4; ++i)
      for (int r = i + 1; r < 4; ++r) x[r] -= x[i] * A[r][i];
    for (int r = 4; r < 6; ++r) {
      double dot = 0.0;
      for (int k = 0; k < 4; ++k) dot += A[r][k] * x[k];
      x[r] -= dot;
    }
    x[5] -= x[4] * A[5][4];
    // U, by the reciprocals of its diagonal.
    for (int i = 5; i >= 2; --i) {
      x[i] *= 1.0 / A[i][i];
      for (int r = 2; r < i; ++r) x[r] -= x[i] * A[r][i];
    }
    for (int r = 0; r < 2; ++r) {
      double dot = 0.0;
      for (int k = 2; k < 6; ++k) dot += A[r][k] * x[k];
      x[r] -= dot;
    }
    x[1] *= 1.0 / A[1][1];
    x[0] -= x[1] * A[0][1];
    x[0] *= 1.0 / A[0][0];
    diagonal[column] = x[column];
  }
}

}  // namespace

void covarianceDiagonal(const Eigen::MatrixXd& measurementInformation, const double* jacobian, int32_t rows,
                        double diagonal[6]) {
  assert(rows >= 1 && rows <= kSmallViewRows && measurementInformation.rows() >= rows);
  const double* W = measurementInformation.data();
  const Eigen::Index stride = measurementInformation.outerStride();
  switch (rows) {
    case 1:
      return smallCovarianceDiagonal<1>(W, stride, jacobian, diagonal);
    case 2:
      return smallCovarianceDiagonal<2>(W, stride, jacobian, diagonal);
    case 3:
      return smallCovarianceDiagonal<3>(W, stride, jacobian, diagonal);
    case 4:
      return smallCovarianceDiagonal<4>(W, stride, jacobian, diagonal);
    case 5:
      return smallCovarianceDiagonal<5>(W, stride, jacobian, diagonal);
    default:
      return smallCovarianceDiagonal<6>(W, stride, jacobian, diagonal);
  }
}

double PlacementScore::sampleValue(ScoreScratch& scratch, int32_t rows) const {
  informationInverse(measurementInformation, scratch, rows);
  const Eigen::MatrixXd& C = scratch.covariance;
  const double diagonal[6] = {C(0, 0), C(1, 1), C(2, 2), C(3, 3), C(4, 4), C(5, 5)};
  return valueOf(diagonal);
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
