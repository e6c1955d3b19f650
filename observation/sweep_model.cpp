#include "observation/sweep_model.h"

#include <ceres/rotation.h>

#include <algorithm>
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

int32_t sweepKindForStation(int32_t stationKind) {
  switch (stationKind) {
    case 7:
    case 8:
      return 2;
    case 10:
      return 3;
    case 11:
      return 4;
    case 13:
    case 14:
      return 5;
    default:
      return 1;
  }
}

std::unique_ptr<SweepObservationSet> makeObservationSet(const SensorModel* model, const TrackedSurface* surface,
                                                        const StationConfig& stationConfig) {
  auto set = std::make_unique<SweepObservationSet>();
  set->surface = surface;

  const size_t n = model != nullptr ? model->points.size() : 0;
  const size_t channelCount = model != nullptr ? model->channels.size() : 0;
  if (n > 0) {
    const int32_t sweepKind = sweepKindForStation(stationConfig.stationKind);
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

template <typename T>
void sensorInStationFrame(const SensorSweep& sweep, const T stationPose[7], T X[3]) {
  const Eigen::Vector3d& p = sweep.model->points[static_cast<size_t>(sweep.sensorIndex)];
  const T point[3] = {T(p.x()), T(p.y()), T(p.z())};
  ceres::UnitQuaternionRotatePoint(stationPose + 3, point, X);
  X[0] += stationPose[0];
  X[1] += stationPose[1];
  X[2] += stationPose[2];
}

template <typename T>
bool sweepAngles(const SensorSweep& sweep, const T stationPose[7], T rowPair[2]) {
  using std::asin;
  using std::atan2;
  using std::sqrt;

  // A record whose index runs past the model's points (a channel number that
  // counts sensors the model dropped) has no position, hence no answer.
  if (sweep.model == nullptr || sweep.sensorIndex < 0 ||
      static_cast<size_t>(sweep.sensorIndex) >= sweep.model->points.size())
    return false;

  T X[3];
  sensorInStationFrame(sweep, stationPose, X);
  const T& x = X[0];
  const T& y = X[1];
  const T& z = X[2];

  switch (sweep.sweepKind) {
    case 1:
      // Two orthogonal sweeps, in the XZ and the YZ plane; pi/2 is straight ahead.
      rowPair[0] = atan2(-z, x);
      rowPair[1] = atan2(-z, -y);
      return true;
    case 2:
    case 3:
    case 4:
    case 5: {
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
      rowPair[0] = lead - (-B);
      rowPair[1] = (lead - B) + kTwoPiOver3;
      return true;
    }
    default:
      return false;
  }
}

template <typename T>
bool evaluateObservations(const SweepObservationSet& set, const T pose[6], T* outputs) {
  T stationPose[7] = {pose[0], pose[1], pose[2], T(1.0), T(0.0), T(0.0), T(0.0)};
  ceres::AngleAxisToQuaternion(pose + 3, stationPose + 3);

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

bool differentiateObservations(const SweepObservationSet& set, const double poseParameters[6], int32_t rowCount,
                               double* angles, double* jacobian) {
  int32_t visible = 0;
  const size_t n = std::min(set.sensorSweeps.size(), set.visibleNow.size());
  for (size_t i = 0; i < n; ++i)
    if (set.visibleNow[i]) ++visible;
  // The rows are fixed by the visible sensors; any other count would have the
  // evaluation write past the caller's buffers or leave rows unset.
  if (visible > kMaxObservationRows / 2 || rowCount != 2 * visible) return false;

  // Each parameter carries a unit derivative in its own slot.
  PoseJet parameters[6];
  for (int k = 0; k < 6; ++k) parameters[k] = PoseJet(poseParameters[k], k);

  PoseJet outputs[kMaxObservationRows];
  for (int32_t r = 0; r < rowCount; ++r) {
    outputs[r].a = kUnwritten;
    outputs[r].v.setConstant(kUnwritten);
  }

  if (!evaluateObservations(set, parameters, outputs)) return false;

  for (int32_t r = 0; r < rowCount; ++r) {
    if (angles != nullptr) angles[r] = outputs[r].a;
    if (jacobian != nullptr)
      for (int c = 0; c < 6; ++c) jacobian[r * 6 + c] = outputs[r].v[c];
  }
  return true;
}

template bool evaluateObservations<double>(const SweepObservationSet&, const double[6], double*);
template bool evaluateObservations<PoseJet>(const SweepObservationSet&, const PoseJet[6], PoseJet*);
template bool sweepAngles<double>(const SensorSweep&, const double[7], double[2]);
template bool sweepAngles<PoseJet>(const SensorSweep&, const PoseJet[7], PoseJet[2]);
template void sensorInStationFrame<double>(const SensorSweep&, const double[7], double[3]);
template void sensorInStationFrame<PoseJet>(const SensorSweep&, const PoseJet[7], PoseJet[3]);

}  // namespace sensorlay
