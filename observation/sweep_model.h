#pragma once
// What the one modelled base station measures of each visible sensor, and how
// those sweep angles change with the pose of the tracked object.
//
// The station stands at the origin of its own frame and looks along -Z; the
// object is moved to the pose (X_station = R p + t). Each visible sensor gives
// two rows: row 2k and row 2k + 1 belong to the k-th sensor whose visibleNow
// bit is set, in list order. The Jacobian has six columns: translation x, y, z,
// then the angle-axis rotation vector x, y, z.

#include <ceres/jet.h>

#include <cstdint>
#include <memory>

#include <vector>

#include "model/constellation.h"
#include "surface/visibility.h"

namespace sensorlay {

struct StationConfig {
  int32_t stationKind = 0;
  double tiltRadians = 0.5;
};

struct SensorSweep {
  const SensorModel* model = nullptr;
  int32_t sensorIndex = 0;
  const StationConfig* stationConfig = nullptr;
  int32_t sweepKind = 1;
};

struct SweepObservationSet {
  std::vector<SensorSweep> sensorSweeps;
  std::vector<SensorVisibilityTest> visibilityTests;
  std::vector<bool> visibleNow;
  std::vector<bool> everVisible;
  const TrackedSurface* surface = nullptr;
};

// The sweep kind that a base-station kind code maps to.
int32_t sweepKindForStation(int32_t stationKind);

// One sweep record and one visibility test for each sensor of the model, all
// visible now and none seen yet. The records point at the model, the surface
// and the station, which must outlive the set: a moved sensor or a new tilt
// takes effect without a rebuild.
std::unique_ptr<SweepObservationSet> makeObservationSet(const SensorModel* model, const TrackedSurface* surface,
                                                        const StationConfig& stationConfig);

// A value and its derivatives with respect to the six pose parameters.
using PoseJet = ceres::Jet<double, 6>;

// The most rows one evaluation produces: two angles for each of at most 32
// visible sensors, the size of the evaluator's information matrix.
constexpr int32_t kMaxObservationRows = 64;

// Fills `angles` (rowCount values) and, when present, `jacobian` (rowCount
// rows of 6, row-major) at the pose parameters (translation, rotation vector).
// `rowCount` must be twice the number of set bits in set.visibleNow, at most
// kMaxObservationRows; otherwise the call fails. On failure nothing is
// written. Allocates nothing.
bool differentiateObservations(const SweepObservationSet& set, const double poseParameters[6], int32_t rowCount,
                               double* angles, double* jacobian);

// The differentiated function: two rows into `outputs` for each sensor whose
// visibleNow bit is set. `outputs` must hold that many values. False when any
// sensor had no answer; the others are still evaluated. T is double or PoseJet.
template <typename T>
bool evaluateObservations(const SweepObservationSet& set, const T pose[6], T* outputs);

// The two sweep angles of one sensor; `stationPose` is the translation
// followed by the unit quaternion w, x, y, z. False, with `rowPair` untouched,
// when the sweep kind has no answer for the sensor there.
template <typename T>
bool sweepAngles(const SensorSweep& sweep, const T stationPose[7], T rowPair[2]);

// The sensor's point rotated by the quaternion of `stationPose` (not
// normalised) plus its translation. The sensor index must be valid.
template <typename T>
void sensorInStationFrame(const SensorSweep& sweep, const T stationPose[7], T X[3]);

extern template bool evaluateObservations<double>(const SweepObservationSet&, const double[6], double*);
extern template bool evaluateObservations<PoseJet>(const SweepObservationSet&, const PoseJet[6], PoseJet*);
extern template bool sweepAngles<double>(const SensorSweep&, const double[7], double[2]);
extern template bool sweepAngles<PoseJet>(const SensorSweep&, const PoseJet[7], PoseJet[2]);
extern template void sensorInStationFrame<double>(const SensorSweep&, const double[7], double[3]);
extern template void sensorInStationFrame<PoseJet>(const SensorSweep&, const PoseJet[7], PoseJet[3]);

}  // namespace sensorlay
