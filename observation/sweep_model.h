#pragma once
// What the one modelled base station measures of each visible sensor, and how
// those sweep angles change with the pose of the tracked object.
//
// The station stands at the origin of its own frame and looks along -Z; the
// object is moved to the pose (surface/station_pose.h). Each visible sensor gives
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

// The base station's model code, as device configurations number it. Codes
// other than these two occur in configurations and map to sweep kinds as
// sweepKindForStation says.
enum class StationKind : int32_t {
  TwoSweeps = 0,
  TiltedRotor = 7,  // what /srbtiltdegrees selects
};

// How the station measures a sensor: two orthogonal sweeps, or one rotor with
// two tilted planes. The four rotor kinds share one formula; they stay apart
// because each is what some station codes map to.
enum class SweepKind : int32_t {
  TwoSweeps = 1,
  TiltedRotorA = 2,
  TiltedRotorB = 3,
  TiltedRotorC = 4,
  TiltedRotorD = 5,
};

struct StationConfig {
  StationKind stationKind = StationKind::TwoSweeps;
  double tiltRadians = 0.5;
};

struct SensorSweep {
  const SensorModel* model = nullptr;
  int32_t sensorIndex = 0;
  const StationConfig* stationConfig = nullptr;
  SweepKind sweepKind = SweepKind::TwoSweeps;
};

struct SweepObservationSet {
  std::vector<SensorSweep> sensorSweeps;
  std::vector<SensorVisibilityTest> visibilityTests;
  std::vector<bool> visibleNow;
  std::vector<bool> everVisible;
  const TrackedSurface* surface = nullptr;
};

// The sweep kind that a base-station kind code maps to.
SweepKind sweepKindForStation(StationKind stationKind);

// One sweep record and one visibility test for each sensor of the model, all
// visible now and none seen yet. The records point at the model, the surface
// and the station, which must outlive the set: a moved sensor or a new tilt
// takes effect without a rebuild.
std::unique_ptr<SweepObservationSet> makeObservationSet(const SensorModel* model, const TrackedSurface* surface,
                                                        const StationConfig& stationConfig);

// Sets each sensor's visibleNow bit for the pose, adds the seen ones to
// everVisible, and yields how many are seen.
int32_t markVisibleSensors(SweepObservationSet& set, const StationPose& pose);

// A value and its derivatives with respect to the six pose parameters.
using PoseJet = ceres::Jet<double, 6>;

// The most rows one evaluation produces: two angles for each sensor of the
// largest model, the size of the noise model's information matrix.
constexpr int32_t kMaxObservationRows = 2 * kMaxSensors;

// The parameters as jets, each carrying a unit derivative in its own slot.
PoseParametersOf<PoseJet> differentiable(const PoseParameters& parameters);

// The station pose of the parameters: the rotation vector turned into a unit
// quaternion.
template <typename T>
StationPoseOf<T> stationPoseOf(const PoseParametersOf<T>& parameters);

// Fills `angles` (rowCount values) and, when present, `jacobian` (rowCount
// rows of 6, row-major) at the pose. `rowCount` must be twice the number of
// set bits in set.visibleNow, at most kMaxObservationRows; otherwise the call
// fails. On failure nothing is written. Allocates nothing.
bool differentiateObservations(const SweepObservationSet& set, const PoseParameters& pose, int32_t rowCount,
                               double* angles, double* jacobian);

// The differentiated function: two rows into `outputs` for each sensor whose
// visibleNow bit is set. `outputs` must hold that many values. False when any
// sensor had no answer; the others are still evaluated. T is double or PoseJet.
template <typename T>
bool evaluateObservations(const SweepObservationSet& set, const PoseParametersOf<T>& pose, T* outputs);

// The two sweep angles of one sensor. False, with `rowPair` untouched, when
// the sweep kind has no answer for the sensor there.
template <typename T>
bool sweepAngles(const SensorSweep& sweep, const StationPoseOf<T>& pose, T rowPair[2]);

// The sensor's point rotated by the pose's quaternion (not normalised) plus
// its position. The sensor index must be valid.
template <typename T>
void sensorInStationFrame(const SensorSweep& sweep, const StationPoseOf<T>& pose, T X[3]);

extern template StationPoseOf<double> stationPoseOf<double>(const PoseParametersOf<double>&);
extern template StationPoseOf<PoseJet> stationPoseOf<PoseJet>(const PoseParametersOf<PoseJet>&);
extern template bool evaluateObservations<double>(const SweepObservationSet&, const PoseParametersOf<double>&, double*);
extern template bool evaluateObservations<PoseJet>(const SweepObservationSet&, const PoseParametersOf<PoseJet>&,
                                                   PoseJet*);
extern template bool sweepAngles<double>(const SensorSweep&, const StationPoseOf<double>&, double[2]);
extern template bool sweepAngles<PoseJet>(const SensorSweep&, const StationPoseOf<PoseJet>&, PoseJet[2]);
extern template void sensorInStationFrame<double>(const SensorSweep&, const StationPoseOf<double>&, double[3]);
extern template void sensorInStationFrame<PoseJet>(const SensorSweep&, const StationPoseOf<PoseJet>&, PoseJet[3]);

}  // namespace sensorlay
