#include "quality/score_lanes.h"

#include <ceres/rotation.h>

#include "observation/sweep_model.h"

namespace sensorlay {

// The copies of quality/lane_kernels.h.
#define SENSORLAY_LANE_DECLARATIONS                                                                           \
  void sensorRows(const LaneFrames& frames, const ShareScales& scales, const double point[3], LaneRows& out); \
  void exchangeShares(const LaneFrames& frames, const ShareScales& scales, const double removedPoint[3],      \
                      uint32_t removing, const double addedPoint[3], uint32_t adding, LaneSums& sums);        \
  void solve(const LaneSums& sums, const ShareScales& scales, double pivotFloor, LaneSolve& out);
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
    return {lanesAvx512::sensorRows, lanesAvx512::exchangeShares, lanesAvx512::solve, width};
  if (width == LaneWidth::Avx2) return {lanesAvx2::sensorRows, lanesAvx2::exchangeShares, lanesAvx2::solve, width};
#endif
  return {lanesBase::sensorRows, lanesBase::exchangeShares, lanesBase::solve, LaneWidth::Base};
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

void sensorRowLanes(const LaneFrames& frames, const ShareScales& scales, const double point[3], LaneRows& rows) {
  kernels().sensorRows(frames, scales, point, rows);
}

void exchangeShareLanes(const LaneFrames& frames, const ShareScales& scales, const double removedPoint[3],
                        uint32_t removing, const double addedPoint[3], uint32_t adding, LaneSums& sums) {
  kernels().exchangeShares(frames, scales, removedPoint, removing, addedPoint, adding, sums);
}

void solveLanes(const LaneSums& sums, const ShareScales& scales, double pivotFloor, LaneSolve& out) {
  kernels().solve(sums, scales, pivotFloor, out);
}

bool useLaneKernels(LaneWidth width) {
  if (!available(width)) return false;
  kernels() = kernelsOf(width);
  return true;
}

LaneWidth laneKernelsInUse() { return kernels().width; }

}  // namespace sensorlay
