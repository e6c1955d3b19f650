#pragma once
// The buffers of the placement score's solve. They keep their storage from
// sample to sample and from call to call, so that the score's loop over
// samples allocates nothing; the fast score and the tables keep one per
// thread.

#include <Eigen/Core>
#include <Eigen/LU>

#include "observation/sweep_model.h"

namespace sensorlay {

struct ScoreScratch {
  // J: two rows for each visible sensor, six columns, row-major; storage for
  // the largest case is held inline.
  using Jacobian = Eigen::Matrix<double, Eigen::Dynamic, 6, Eigen::RowMajor, kMaxObservationRows, 6>;
  // J^T W, six rows.
  using WeightedTranspose = Eigen::Matrix<double, 6, Eigen::Dynamic, Eigen::ColMajor, 6, kMaxObservationRows>;

  ScoreScratch() : information(6, 6), covariance(6, 6), lu(6) {}

  double angles[kMaxObservationRows] = {};
  Jacobian jacobian;
  WeightedTranspose weightedTranspose;
  Eigen::MatrixXd information;  // A = J^T W J
  Eigen::MatrixXd covariance;   // inverse of A
  Eigen::PartialPivLU<Eigen::MatrixXd> lu;
};

// scratch.covariance = (J^T W J)^-1 for the `rows` Jacobian rows standing in
// scratch.jacobian, with W the top-left block of `measurementInformation`
// used in place, inverted by LU with partial pivoting. No singularity test: a
// singular A gives infinite or not-a-number entries.
void informationInverse(const Eigen::MatrixXd& measurementInformation, ScoreScratch& scratch, int32_t rows);

// The most rows for which covarianceDiagonal stands in for informationInverse.
constexpr int32_t kSmallViewRows = 6;

// The diagonal of the covariance that informationInverse leaves for the
// `rows` row-major Jacobian rows `jacobian`, bit for bit, for views of at most
// kSmallViewRows rows (three sensors): the same products, pivots and
// substitutions in the same order, on fixed-size arrays instead of the
// library's dynamic kernels, which cost ten times as much at this size. Views
// of one or two sensors have a singular information matrix, and only this
// exact rounding tells whether their uncertainty comes out as a number.
void covarianceDiagonal(const Eigen::MatrixXd& measurementInformation, const double* jacobian, int32_t rows,
                        double diagonal[6]);

}  // namespace sensorlay
