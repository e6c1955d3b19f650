#include "quality/score_lanes.h"

#include <ceres/rotation.h>

#include "observation/sweep_model.h"

namespace sensorlay {

// The copies of quality/lane_kernels.h.
#define SENSORLAY_LANE_DECLARATIONS                                                                               \
  void sensorRows(const LaneFrames& frames, const ShareScales& scales, const double point[3], LaneRows& out);     \
  void exchangeShares(const LaneFrames& frames, const ShareScales& scales, const double removedPoint[3],          \
                      uint32_t removing, const double addedPoint[3], uint32_t adding, const LaneSums& sums);      \
  void solve(const LaneSums& sums, const ShareScales& scales, double pivotFloor, LaneSolve& out);                 \
  void exchangeAndSolve(const LaneFrames& frames, const ShareScales& scales, const double removedPoint[3],        \
                        uint32_t removing, const double addedPoint[3], uint32_t adding, const LaneSums& sums,     \
                        double pivotFloor, LaneSolve& out);                                                       \
  uint64_t mayFace(const double* blocks, int blockCount, const FacingLimit& limit);                               \
  uint32_t facingRays(const double* const frame[kLanes], const FacingSensor& sensor, LaneDirections& directions); \
  void covariance(const double* information, long stride, const double* const jacobian[kLanes], int rows,         \
                  LaneCovariance& out);
namespace lanesBase {
SENSORLAY_LANE_DECLARATIONS
}
#if SENSORLAY_WIDE_LANES
namespace lanesAvx2 {
SENSORLAY_LANE_DECLARATIONS
}
namespace lanesAvx512 {
SENSORLAY_LANE_DECLARATIONS
}
#endif
#undef SENSORLAY_LANE_DECLARATIONS

namespace {

struct LaneKernels {
  decltype(&lanesBase::sensorRows) sensorRows;
  decltype(&lanesBase::exchangeShares) exchangeShares;
  decltype(&lanesBase::solve) solve;
  decltype(&lanesBase::exchangeAndSolve) exchangeAndSolve;
  decltype(&lanesBase::mayFace) mayFace;
  decltype(&lanesBase::facingRays) facingRays;
  decltype(&lanesBase::covariance) covariance;
  LaneWidth width;
};

bool available(LaneWidth width) {
#if SENSORLAY_WIDE_LANES
  __builtin_cpu_init();
  if (width == LaneWidth::Avx512)
    return __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512dq") &&
           __builtin_cpu_supports("avx512vl") && __builtin_cpu_supports("avx512bw");
  if (width == LaneWidth::Avx2) return __builtin_cpu_supports("avx2");
#endif
  return width == LaneWidth::Base;
}

LaneKernels kernelsOf(LaneWidth width) {
#if SENSORLAY_WIDE_LANES
  if (width == LaneWidth::Avx512)
    return {
        lanesAvx512::sensorRows, lanesAvx512::exchangeShares, lanesAvx512::solve,      lanesAvx512::exchangeAndSolve,
        lanesAvx512::mayFace,    lanesAvx512::facingRays,     lanesAvx512::covariance, width};
  if (width == LaneWidth::Avx2)
    return {lanesAvx2::sensorRows, lanesAvx2::exchangeShares, lanesAvx2::solve,      lanesAvx2::exchangeAndSolve,
            lanesAvx2::mayFace,    lanesAvx2::facingRays,     lanesAvx2::covariance, width};
#endif
  return {lanesBase::sensorRows, lanesBase::exchangeShares, lanesBase::solve,      lanesBase::exchangeAndSolve,
          lanesBase::mayFace,    lanesBase::facingRays,     lanesBase::covariance, LaneWidth::Base};
}

LaneKernels& kernels() {
  static LaneKernels chosen = kernelsOf(available(LaneWidth::Avx512) ? LaneWidth::Avx512
                                        : available(LaneWidth::Avx2) ? LaneWidth::Avx2
                                                                     : LaneWidth::Base);
  return chosen;
}

}  // namespace

StationRotation stationRotation(const double rotationVector[3]) {
  StationRotation frame;
  const PoseJet omega[3] = {PoseJet(rotationVector[0], 0), PoseJet(rotationVector[1], 1),
                            PoseJet(rotationVector[2], 2)};
  PoseJet q[4];
  ceres::AngleAxisToQuaternion(omega, q);
  for (int i = 0; i < 3; ++i) {
    PoseJet unit[3] = {PoseJet(0.0), PoseJet(0.0), PoseJet(0.0)};
    unit[i] = PoseJet(1.0);
    PoseJet X[3];
    ceres::UnitQuaternionRotatePoint(q, unit, X);
    for (int c = 0; c < 3; ++c) {
      frame.rotation[c * 3 + i] = X[c].a;
      for (int j = 0; j < 3; ++j) frame.derivative[i * 9 + c * 3 + j] = X[c].v[j];
    }
  }
  return frame;
}

void twoSweepRows(const StationRotation& frame, const double translation[3], const double point[3], double rows[12]) {
  const double* R = frame.rotation;
  const double px = point[0], py = point[1], pz = point[2];
  const double x = R[0] * px + R[1] * py + R[2] * pz + translation[0];
  const double y = R[3] * px + R[4] * py + R[5] * pz + translation[1];
  const double z = R[6] * px + R[7] * py + R[8] * pz + translation[2];
  // dX/domega, row c, column j.
  double M[9];
  const double* D = frame.derivative;
  for (int e = 0; e < 9; ++e) M[e] = px * D[e] + py * D[9 + e] + pz * D[18 + e];
  // The gradients of atan2(-z, x) and atan2(-z, -y) in X; the translation
  // enters X with the identity.
  const double inverse0 = 1.0 / (x * x + z * z);
  const double g0x = z * inverse0, g0z = -x * inverse0;
  const double inverse1 = 1.0 / (y * y + z * z);
  const double g1y = -z * inverse1, g1z = y * inverse1;
  rows[0] = g0x;
  rows[1] = 0.0;
  rows[2] = g0z;
  rows[6] = 0.0;
  rows[7] = g1y;
  rows[8] = g1z;
  for (int j = 0; j < 3; ++j) {
    rows[3 + j] = g0x * M[j] + g0z * M[6 + j];
    rows[9 + j] = g1y * M[3 + j] + g1z * M[6 + j];
  }
}

void sensorRowLanes(const LaneFrames& frames, const ShareScales& scales, const double point[3], LaneRows& rows) {
  kernels().sensorRows(frames, scales, point, rows);
}

void exchangeShareLanes(const LaneFrames& frames, const ShareScales& scales, const double removedPoint[3],
                        uint32_t removing, const double addedPoint[3], uint32_t adding, const LaneSums& sums) {
  kernels().exchangeShares(frames, scales, removedPoint, removing, addedPoint, adding, sums);
}

void solveLanes(const LaneSums& sums, const ShareScales& scales, double pivotFloor, LaneSolve& out) {
  kernels().solve(sums, scales, pivotFloor, out);
}

void exchangeAndSolveLanes(const LaneFrames& frames, const ShareScales& scales, const double removedPoint[3],
                           uint32_t removing, const double addedPoint[3], uint32_t adding, const LaneSums& sums,
                           double pivotFloor, LaneSolve& out) {
  kernels().exchangeAndSolve(frames, scales, removedPoint, removing, addedPoint, adding, sums, pivotFloor, out);
}

uint64_t mayFaceLanes(const double* blocks, int blockCount, const FacingLimit& limit) {
  return kernels().mayFace(blocks, blockCount, limit);
}

uint32_t facingLanes(const double* const frame[kLanes], const FacingSensor& sensor, LaneDirections& directions) {
  return kernels().facingRays(frame, sensor, directions);
}

void covarianceLanes(const double* information, long stride, const double* const jacobian[kLanes], int rows,
                     LaneCovariance& out) {
  kernels().covariance(information, stride, jacobian, rows, out);
}

bool useLaneKernels(LaneWidth width) {
  if (!available(width)) return false;
  kernels() = kernelsOf(width);
  return true;
}

LaneWidth laneKernelsInUse() { return kernels().width; }

}  // namespace sensorlay
