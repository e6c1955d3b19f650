#include "observation/sweep_model.h"

#include <ceres/rotation.h>

#include <algorithm>
#include <cassert>
#include <cmath>

namespace sensorlay {

namespace {

// The rotor model's fixed offsets; they do not follow the tilt.
constexpr double kPiOver6 = 0.5235987755982988;
constexpr double kTwoPiOver3 = 2.0943951023931953;

// The marker that an output row was never written, as automatic
// differentiation fills its outputs before the call.
constexpr double kUnwritten = 1e302;

inline double valueOf(double v) { return v; }
inline double valueOf(const PoseJet& j) { return j.a; }

}  // namespace

SweepKind sweepKindForStation(StationKind stationKind) {
  switch (static_cast<int32_t>(stationKind)) {
    case 7:
    case 8:
      return SweepKind::TiltedRotorA;
    case 10:
      return SweepKind::TiltedRotorB;
    case 11:
      return SweepKind::TiltedRotorC;
    case 13:
    case 14:
      return SweepKind::TiltedRotorD;
    default:
      return SweepKind::TwoSweeps;
  }
}

std::unique_ptr<SweepObservationSet> makeObservationSet(const SensorModel* model, const TrackedSurface* surface,
                                                        const StationConfig& stationConfig) {
  auto set = std::make_unique<SweepObservationSet>();
  set->surface = surface;

  const size_t n = model != nullptr ? model->points.size() : 0;
  const size_t channelCount = model != nullptr ? model->channels.size() : 0;
  if (n > 0) {
    const SweepKind sweepKind = sweepKindForStation(stationConfig.stationKind);
    set->sensorSweeps.reserve(n);
    set->visibilityTests.reserve(n);
    set->visibleNow.reserve(n);
    set->everVisible.reserve(n);
    for (size_t i = 0; i < n; ++i) {
      // The record carries the channel's index in the model file's numbering,
      // as the model keeps it; a channel without an entry (a model built by
      // hand) gets an index that no sensor has, so it is never seen.
      int32_t sensorIndex = -1;
      if (i < channelCount) {
        const auto found = model->channelIndex.find(model->channels[i]);
        if (found != model->channelIndex.end()) sensorIndex = found->second;
      }
      // Pointers, not copies: a moved sensor or a new tilt takes effect at once.
      set->sensorSweeps.push_back(SensorSweep{model, sensorIndex, &stationConfig, sweepKind});
      set->visibilityTests.push_back(SensorVisibilityTest{model, sensorIndex, surface});
      set->visibleNow.push_back(true);
      set->everVisible.push_back(false);
    }
  }
  return set;
}

int32_t markVisibleSensors(SweepObservationSet& set, const StationPose& pose) {
  assert(set.visibleNow.size() == set.visibilityTests.size() && set.everVisible.size() == set.visibilityTests.size());
  int32_t count = 0;
  const size_t n = set.visibilityTests.size();
  for (size_t i = 0; i < n; ++i) {
    const bool visible = isSensorVisible(set.visibilityTests[i], pose);
    set.visibleNow[i] = visible;
    if (visible) {
      set.everVisible[i] = true;
      ++count;
    }
  }
  return count;
}

PoseParametersOf<PoseJet> differentiable(const PoseParameters& parameters) {
  PoseParametersOf<PoseJet> jets;
  for (int k = 0; k < 3; ++k) {
    jets.position[k] = PoseJet(parameters.position[k], k);
    jets.rotationVector[k] = PoseJet(parameters.rotationVector[k], 3 + k);
  }
  return jets;
}

template <typename T>
StationPoseOf<T> stationPoseOf(const PoseParametersOf<T>& parameters) {
  StationPoseOf<T> pose = {{parameters.position[0], parameters.position[1], parameters.position[2]},
                           {T(1.0), T(0.0), T(0.0), T(0.0)}};
  ceres::AngleAxisToQuaternion(parameters.rotationVector, pose.quaternion);
  return pose;
}

template <typename T>
void sensorInStationFrame(const SensorSweep& sweep, const StationPoseOf<T>& pose, T X[3]) {
  assert(sweep.model != nullptr && sweep.sensorIndex >= 0 &&
         static_cast<size_t>(sweep.sensorIndex) < sweep.model->points.size());
  const Eigen::Vector3d& p = sweep.model->points[static_cast<size_t>(sweep.sensorIndex)];
  const T point[3] = {T(p.x()), T(p.y()), T(p.z())};
  ceres::UnitQuaternionRotatePoint(pose.quaternion, point, X);
  X[0] += pose.position[0];
  X[1] += pose.position[1];
  X[2] += pose.position[2];
}

template <typename T>
bool sweepAngles(const SensorSweep& sweep, const StationPoseOf<T>& pose, T rowPair[2]) {
  using std::asin;
  using std::atan2;
  using std::sqrt;

  // A record whose index runs past the model's points (a channel number that
  // counts sensors the model dropped) has no position, hence no answer.
  if (sweep.model == nullptr || sweep.sensorIndex < 0 ||
      static_cast<size_t>(sweep.sensorIndex) >= sweep.model->points.size())
    return false;

  T X[3];
  sensorInStationFrame(sweep, pose, X);
  const T& x = X[0];
  const T& y = X[1];
  const T& z = X[2];

  switch (sweep.sweepKind) {
    case SweepKind::TwoSweeps:
      // Two orthogonal sweeps, in the XZ and the YZ plane; pi/2 is straight ahead.
      rowPair[0] = atan2(-z, x);
      rowPair[1] = atan2(-z, -y);
      return true;
    case SweepKind::TiltedRotorA:
    case SweepKind::TiltedRotorB:
    case SweepKind::TiltedRotorC:
    case SweepKind::TiltedRotorD: {
      // One rotor with two planes tilted by +-tilt: the same rotor angle is read
      // twice, a third of a turn apart, shifted by the elevation term B.
      const double tilt = sweep.stationConfig != nullptr ? sweep.stationConfig->tiltRadians : 0.0;
      const T A = atan2(-z, x);
      const T W = std::tan(tilt) * y / sqrt(x * x + z * z);
      const double w = valueOf(W);
      // Beyond the tilted plane's reach, or straight above the station.
      if (w > 1.0 || !(w >= -1.0)) return false;
      const T B = asin(W);
      const T lead = kPiOver6 + A;
      // The offset joins the rotor angle before the elevation term does: that
      // grouping decides the rounding, and the designs made so far depend on
      // it. Subtracting -B adds B exactly; it is kept so that the two rows
      // read alike.
      rowPair[0] = lead - (-B);
      rowPair[1] = (lead - B) + kTwoPiOver3;
      return true;
    }
  }
  return false;
}

template <typename T>
bool evaluateObservations(const SweepObservationSet& set, const PoseParametersOf<T>& pose, T* outputs) {
  const StationPoseOf<T> stationPose = stationPoseOf(pose);

  bool ok = true;
  size_t row = 0;
  const size_t n = std::min(set.sensorSweeps.size(), set.visibleNow.size());
  for (size_t i = 0; i < n; ++i) {
    if (!set.visibleNow[i]) continue;
    // A failing sensor keeps its rows as they were; the rest still get theirs.
    if (!sweepAngles(set.sensorSweeps[i], stationPose, outputs + row)) ok = false;
    row += 2;
  }
  return ok;
}

bool differentiateObservations(const SweepObservationSet& set, const PoseParameters& pose, int32_t rowCount,
                               double* angles, double* jacobian) {
  int32_t visible = 0;
  const size_t n = std::min(set.sensorSweeps.size(), set.visibleNow.size());
  for (size_t i = 0; i < n; ++i)
    if (set.visibleNow[i]) ++visible;
  // The rows are fixed by the visible sensors; any other count would have the
  // evaluation write past the caller's buffers or leave rows unset.
  if (visible > kMaxObservationRows / 2 || rowCount != 2 * visible) return false;

  PoseJet outputs[kMaxObservationRows];
  for (int32_t r = 0; r < rowCount; ++r) {
    outputs[r].a = kUnwritten;
    outputs[r].v.setConstant(kUnwritten);
  }

  if (!evaluateObservations(set, differentiable(pose), outputs)) return false;

  for (int32_t r = 0; r < rowCount; ++r) {
    if (angles != nullptr) angles[r] = outputs[r].a;
    if (jacobian != nullptr)
      for (int c = 0; c < 6; ++c) jacobian[r * 6 + c] = outputs[r].v[c];
  }
  return true;
}

template StationPoseOf<double> stationPoseOf<double>(const PoseParametersOf<double>&);
template StationPoseOf<PoseJet> stationPoseOf<PoseJet>(const PoseParametersOf<PoseJet>&);
template bool evaluateObservations<double>(const SweepObservationSet&, const PoseParametersOf<double>&, double*);
template bool evaluateObservations<PoseJet>(const SweepObservationSet&, const PoseParametersOf<PoseJet>&, PoseJet*);
template bool sweepAngles<double>(const SensorSweep&, const StationPoseOf<double>&, double[2]);
template bool sweepAngles<PoseJet>(const SensorSweep&, const StationPoseOf<PoseJet>&, PoseJet[2]);
template void sensorInStationFrame<double>(const SensorSweep&, const StationPoseOf<double>&, double[3]);
template void sensorInStationFrame<PoseJet>(const SensorSweep&, const StationPoseOf<PoseJet>&, PoseJet[3]);

}  // namespace sensorlay
