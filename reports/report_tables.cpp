#include "reports/report_tables.h"

#include <Eigen/Core>
#include <Eigen/Geometry>
#include <Eigen/LU>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <memory>
#include <system_error>

#include "common/rotation.h"
#include "common/worker_pool.h"
#include "observation/sweep_model.h"
#include "quality/coverage_evaluator.h"
#include "quality/placement_score.h"
#include "quality/score_lanes.h"
#include "quality/score_scratch.h"
#include "surface/tracked_surface.h"
#include "surface/visibility.h"

namespace sensorlay {

namespace {

constexpr double kHalfPi = 1.5707963267948966;

// The most rows of a block of the tables, which a thread works in one go.
constexpr size_t kMaxBlockRows = 1024;

// The text of a block of rows. Made once per table with room for the block's
// rows at their longest likely length, and reused by every block after; it
// grows only for rows longer than that (absurd distances print hundreds of
// digits).
class TextBuffer {
 public:
  void reserve(size_t bytes) {
    if (bytes > capacity_) grow(bytes);
  }
  void clear() { used_ = 0; }
  const char* data() const { return data_.get(); }
  size_t size() const { return used_; }

  template <typename... Args>
  void print(const char* format, Args... args) {
    for (;;) {
      const size_t room = capacity_ - used_;
      const int n = std::snprintf(data_.get() + used_, room, format, args...);
      if (n < 0) return;
      if (static_cast<size_t>(n) < room) {
        used_ += static_cast<size_t>(n);
        return;
      }
      grow(used_ + static_cast<size_t>(n) + 1);
    }
  }

  // " %d" without the cost of a formatted print.
  void putSpaceAndInteger(int32_t value) {
    if (capacity_ - used_ < 16) grow(used_ + 16);
    char* out = data_.get() + used_;
    *out++ = ' ';
    int64_t v = value;
    if (v < 0) {
      *out++ = '-';
      v = -v;
    }
    char digits[12];
    int count = 0;
    do {
      digits[count++] = static_cast<char>('0' + v % 10);
      v /= 10;
    } while (v != 0);
    while (count > 0) *out++ = digits[--count];
    used_ = static_cast<size_t>(out - data_.get());
  }

  void putChar(char c) {
    if (used_ == capacity_) grow(used_ + 1);
    data_[used_++] = c;
  }

  // `value` as "%.*lf" prints it, `decimals` after the point: the shortest
  // exact conversion, rounded as printf rounds, without its format parsing.
  void putFixed(double value, int decimals) {
    for (;;) {
      const std::to_chars_result r =
          std::to_chars(data_.get() + used_, data_.get() + capacity_, value, std::chars_format::fixed, decimals);
      if (r.ec == std::errc()) {
        used_ = static_cast<size_t>(r.ptr - data_.get());
        return;
      }
      grow(used_ + 512 + 2 * (capacity_ - used_));
    }
  }

 private:
  void grow(size_t needed) {
    const size_t capacity = std::max(needed, 2 * capacity_);
    std::unique_ptr<char[]> larger(new char[capacity]);
    if (used_ != 0) std::memcpy(larger.get(), data_.get(), used_);
    data_ = std::move(larger);
    capacity_ = capacity;
  }

  std::unique_ptr<char[]> data_;
  size_t capacity_ = 0;
  size_t used_ = 0;
};

// C = (J^T W J)^-1 into scratch.covariance for the visible sensors of `set`
// at the pose, the same computation as the score's. False when the Jacobian
// cannot be had; C is then not to be read.
bool poseCovariance(const SweepObservationSet& set, const PoseParameters& pose, const Eigen::MatrixXd& information,
                    int32_t visible, ScoreScratch& scratch) {
  const int32_t rows = 2 * visible;
  if (rows > kMaxObservationRows || rows > information.rows() || rows > information.cols()) return false;
  scratch.jacobian.resize(rows, 6);
  if (!differentiateObservations(set, pose, rows, scratch.angles, scratch.jacobian.data())) return false;
  informationInverse(information, scratch, rows);
  return true;
}

// A coverage row from its numbers: an uncertainty beyond a metre or a radian,
// or none at all, is no fix.
void settleCoverageRow(int32_t visible, ViewGrade grade, double positionSigma, double rotationSigma, CoverageRow& row) {
  if (!(positionSigma <= 1.0)) {
    positionSigma = 1.0;
    grade = {0, 100};
  }
  if (!(rotationSigma <= 1.0)) {
    rotationSigma = 1.0;
    grade = {0, 100};
  }
  row.visibleCount = visible;
  row.grade = grade;
  row.rotationSigma = rotationSigma;
  row.positionSigma = positionSigma;
}

}  // namespace

RowWorker::RowWorker(const CoverageEvaluator& evaluator) : view(*evaluator.observations) {
  hits.reserve(2 * kMaxSensors);
  blockSamples.resize(kMaxBlockRows);
  blockTurns.resize(4 * kMaxBlockRows);
  blockSeen.resize(kMaxBlockRows);
}

bool computeCoverageRow(const CoverageEvaluator& evaluator, const OrientationSample& sample, RowWorker& w,
                        CoverageRow& row) {
  const std::vector<int32_t>& channels = evaluator.model->channels;
  const size_t sensorCount = w.view.visibilityTests.size();
  const Eigen::Vector3d& p = evaluator.position;

  const StationPose pose = {{p.x(), p.y(), p.z()},
                            {sample.quaternion[0], sample.quaternion[1], sample.quaternion[2], sample.quaternion[3]}};
  const int32_t visible = markVisibleSensors(w.view, pose);

  double positionSigma = 1.0;
  double rotationSigma = 1.0;
  if (visible != 0) {
    const PoseParameters parameters = {{p.x(), p.y(), p.z()},
                                       {sample.rotationVector[0], sample.rotationVector[1], sample.rotationVector[2]}};
    if (poseCovariance(w.view, parameters, evaluator.score.measurementInformation, visible, w.scratch)) {
      const Eigen::MatrixXd& C = w.scratch.covariance;
      // The variances are summed first, then one root is taken.
      positionSigma = std::sqrt(C(0, 0) + C(1, 1) + C(2, 2));
      rotationSigma = std::sqrt(C(3, 3) + C(4, 4) + C(5, 5));
    }
  }

  w.hits.clear();
  for (size_t i = 0; i < sensorCount; ++i)
    if (w.view.visibleNow[i]) {
      w.hits.push_back({channels[i], 0});
      w.hits.push_back({channels[i], 1});
    }
  PoseSolvability solvability(*evaluator.model, w.hits);
  ViewGrade grade = gradeView(solvability);
  if (solvability.missingChannel >= 0) {
    w.missingChannel = solvability.missingChannel;
    return false;
  }

  settleCoverageRow(visible, grade, positionSigma, rotationSigma, row);
  return true;
}

namespace {

// "%lf %lf %0.1lf %0.1lf %d 0 0 0 %d %d %lf %lf" and the channels seen.
void writeCoverageRow(const CoverageEvaluator& evaluator, const OrientationSample& sample, double distance,
                      const CoverageRow& row, const RowWorker& w, TextBuffer& out) {
  out.putFixed(sample.longitude, 6);
  out.putChar(' ');
  out.putFixed(sample.latitude, 6);
  out.putChar(' ');
  out.putFixed(distance, 1);
  out.putChar(' ');
  out.putFixed(0.0, 1);
  out.putSpaceAndInteger(row.visibleCount);
  out.putSpaceAndInteger(0);
  out.putSpaceAndInteger(0);
  out.putSpaceAndInteger(0);
  out.putSpaceAndInteger(row.grade.first);
  out.putSpaceAndInteger(row.grade.second);
  out.putChar(' ');
  out.putFixed(row.rotationSigma, 6);
  out.putChar(' ');
  out.putFixed(row.positionSigma, 6);
  const std::vector<int32_t>& channels = evaluator.model->channels;
  const size_t sensorCount = w.view.visibilityTests.size();
  for (size_t i = 0; i < sensorCount; ++i)
    if (w.view.visibleNow[i]) out.putSpaceAndInteger(channels[i]);
  out.putChar('\n');
}

// "%lf %lf %lf %lf %lf\n".
void writeSensitivityRow(const OrientationSample& sample, const double sigma[3], TextBuffer& out) {
  out.putFixed(sample.longitude, 6);
  for (const double v : {sample.latitude, sigma[0], sigma[1], sigma[2]}) {
    out.putChar(' ');
    out.putFixed(v, 6);
  }
  out.putChar('\n');
}

// What a fast row reads of each sensor, made once per table.
struct TableSensors {
  struct Sensor {
    const double* point = nullptr;  // none: the record has no position, and the sensor is never seen
    const double* normal = nullptr;
    float origin[3] = {0.0f, 0.0f, 0.0f};  // of its rays
  };
  std::vector<Sensor> sensors;
  const TrackedSurface* surface = nullptr;
  double cosMaxIncidence = 0.0;
  // Every sensor measured by the two-sweep station, whose rows have a
  // closed form.
  bool closedForm = true;

  explicit TableSensors(const CoverageEvaluator& evaluator) {
    const SweepObservationSet& set = *evaluator.observations;
    const SensorModel& model = *evaluator.model;
    cosMaxIncidence = model.cosMaxIncidence;
    sensors.resize(set.visibilityTests.size());
    for (size_t k = 0; k < sensors.size(); ++k) {
      const SensorVisibilityTest& test = set.visibilityTests[k];
      if (test.surface != nullptr) surface = test.surface;
      closedForm = closedForm && set.sensorSweeps[k].sweepKind == SweepKind::TwoSweeps &&
                   set.sensorSweeps[k].sensorIndex == test.sensorIndex;
      if (test.sensorIndex < 0 || static_cast<size_t>(test.sensorIndex) >= model.points.size() ||
          static_cast<size_t>(test.sensorIndex) >= model.normals.size())
        continue;
      Sensor& s = sensors[k];
      s.point = model.points[static_cast<size_t>(test.sensorIndex)].data();
      s.normal = model.normals[static_cast<size_t>(test.sensorIndex)].data();
      rayOrigin(s.point, s.normal, s.origin);
    }
  }
};

// The sensors isSensorVisible sees in each row of a block, each sensor's rays
// over the block's rows cast as packets: one origin, directions that turn
// little from row to row. `pose(row)` is a row's station pose. The rows'
// samples and what each sees are kept in the worker for the rows.
template <class Pose>
void seeBlock(const TableSensors& t, const ReportGrid& grid, size_t begin, size_t end, Pose&& pose, RowWorker& w) {
  const size_t rows = end - begin;
  w.blockBegin = begin;
  for (size_t i = 0; i < rows; ++i) {
    w.blockSamples[i] = grid[begin + i];
    w.blockSeen[i] = 0;
    objectRotation(w.blockSamples[i].quaternion, &w.blockTurns[4 * i]);
  }
  for (size_t k = 0; k < t.sensors.size(); ++k) {
    const TableSensors::Sensor& sensor = t.sensors[k];
    if (sensor.point == nullptr) continue;
    const uint64_t bit = uint64_t{1} << k;
    int lanes = 0;
    auto cast = [&] {
      t.surface->castRays(w.packet, lanes);
      for (int lane = 0; lane < lanes; ++lane)
        if (!w.packet.blocked[lane]) w.blockSeen[static_cast<size_t>(w.laneSensor[lane])] |= bit;
      lanes = 0;
    };
    for (size_t i = 0; i < rows; ++i) {
      double towards[3];
      if (!facesStation(sensor.point, sensor.normal, t.cosMaxIncidence, pose(w.blockSamples[i]), towards)) continue;
      if (t.surface == nullptr) {
        w.blockSeen[i] |= bit;
        continue;
      }
      float direction[3];
      rayDirection(&w.blockTurns[4 * i], towards, direction);
      w.packet.set(lanes, sensor.origin, direction, kRayNear, std::numeric_limits<float>::infinity());
      w.laneSensor[lanes++] = static_cast<int32_t>(i);
      if (lanes == RayPacket::kSize) cast();
    }
    if (lanes > 0) cast();
  }
}

// What a row of the block sees, set as markVisibleSensors sets the worker's
// visibleNow and everVisible bits.
uint64_t markSeen(size_t row, RowWorker& w) {
  const uint64_t seen = w.blockSeen[row - w.blockBegin];
  for (size_t k = 0; k < w.view.visibleNow.size(); ++k) {
    const bool visible = (seen >> k & 1) != 0;
    w.view.visibleNow[k] = visible;
    if (visible) w.view.everVisible[k] = true;
  }
  return seen;
}

// The station pose of a coverage row, and of a sensitivity row: the device
// moved across the field of view, keeping facing the station.
StationPose coveragePose(const Eigen::Vector3d& p, const OrientationSample& sample) {
  return {{p.x(), p.y(), p.z()},
          {sample.quaternion[0], sample.quaternion[1], sample.quaternion[2], sample.quaternion[3]}};
}
Eigen::Vector3d movedPosition(const Eigen::Vector3d& position, const OrientationSample& sample) {
  const double w0 = sample.quaternion[0];
  const Eigen::Vector3d u(sample.quaternion[1], sample.quaternion[2], sample.quaternion[3]);
  const Eigen::Vector3d uxp = u.cross(position);
  return position + 2.0 * w0 * uxp + 2.0 * u.cross(uxp);
}

// A pivot of the closed-form solve at or below this share of its diagonal
// entry sends the row to the reference computation: above it the two agree
// to about 1e-11 of the uncertainty, below it they may not.
constexpr double kTablePivotFloor = 1e-4;

enum class Covariance { Exact, Close, Reference, None };

// The diagonal of the pose covariance of the sensors in `seen` at the pose:
// views of up to three sensors exactly as the reference computes it; larger
// ones of a two-sweep station by the closed-form rows and LDL^T, close to it
// unless a pivot is small (Reference then); None when the Jacobian cannot be
// had, as the reference's poseCovariance fails.
Covariance fastCovariance(const CoverageEvaluator& evaluator, const TableSensors& t, const PoseParameters& pose,
                          uint64_t seen, int32_t visible, RowWorker& w, double diagonal[6]) {
  const int32_t rows = 2 * visible;
  if (rows <= kSmallViewRows) {
    w.scratch.jacobian.resize(rows, 6);
    if (!differentiateObservations(w.view, pose, rows, w.scratch.angles, w.scratch.jacobian.data()))
      return Covariance::None;
    covarianceDiagonal(evaluator.score.measurementInformation, w.scratch.jacobian.data(), rows, diagonal);
    return Covariance::Exact;
  }
  if (!t.closedForm) return Covariance::Reference;
  // A = (S - g (a a^T + b b^T)) / s2: S the sum of the rows' outer
  // products, a and b the sums of the first and the second rows.
  const StationRotation frame = stationRotation(pose.rotationVector);
  double S[6][6] = {}, a[6] = {}, b[6] = {};
  for (uint64_t m = seen; m != 0; m &= m - 1) {
    double r[12];
    twoSweepRows(frame, pose.position, t.sensors[static_cast<size_t>(__builtin_ctzll(m))].point, r);
    for (int i = 0; i < 6; ++i) {
      a[i] += r[i];
      b[i] += r[6 + i];
      for (int j = i; j < 6; ++j) S[i][j] += r[i] * r[j] + r[6 + i] * r[6 + j];
    }
  }
  double A[6][6];
  for (int i = 0; i < 6; ++i)
    for (int j = i; j < 6; ++j) A[i][j] = A[j][i] = S[i][j] - kSharedAngleShare * (a[i] * a[j] + b[i] * b[j]);
  double L[6][6], d[6];
  for (int j = 0; j < 6; ++j) {
    double pivot = A[j][j];
    for (int k = 0; k < j; ++k) pivot -= L[j][k] * L[j][k] * d[k];
    if (!(pivot > kTablePivotFloor * A[j][j])) return Covariance::Reference;
    d[j] = pivot;
    for (int i = j + 1; i < 6; ++i) {
      double v = A[i][j];
      for (int k = 0; k < j; ++k) v -= L[i][k] * L[j][k] * d[k];
      L[i][j] = v / pivot;
    }
  }
  // diag(A^-1) from the unit lower inverse: (A^-1)_ii = sum_r (L^-1)_ri^2 / d_r.
  for (int i = 0; i < 6; ++i) {
    double column[6];
    column[i] = 1.0;
    double sum = 1.0 / d[i];
    for (int r = i + 1; r < 6; ++r) {
      double v = 0.0;
      for (int k = i; k < r; ++k) v -= L[r][k] * column[k];
      column[r] = v;
      sum += v * v / d[r];
    }
    diagonal[i] = sum * kAngleVariance;
  }
  return Covariance::Close;
}

// Whether an uncertainty that may be off by 1e-11 of itself (a close
// covariance) prints as the exact one does with six decimals, and stays on
// the same side of the clamp at 1: not within 1e-9 of a rounding boundary.
bool printsAlike(double sigma) {
  if (!std::isfinite(sigma) || std::fabs(sigma - 1.0) < 1e-8) return false;
  if (sigma > 1.0) return true;
  const double units = sigma * 1e6;
  return std::fabs(units - std::floor(units) - 0.5) > 1e-3;
}

// computeCoverageRow's numbers by the fast path.
bool computeCoverageRowFast(const CoverageEvaluator& evaluator, const TableSensors& t, size_t index, RowWorker& w,
                            CoverageRow& row) {
  const Eigen::Vector3d& p = evaluator.position;
  const OrientationSample& sample = w.blockSamples[index - w.blockBegin];
  const uint64_t seen = markSeen(index, w);
  const int32_t visible = __builtin_popcountll(seen);

  double positionSigma = 1.0;
  double rotationSigma = 1.0;
  if (visible != 0) {
    const PoseParameters parameters = {{p.x(), p.y(), p.z()},
                                       {sample.rotationVector[0], sample.rotationVector[1], sample.rotationVector[2]}};
    double c[6];
    Covariance how = fastCovariance(evaluator, t, parameters, seen, visible, w, c);
    if (how == Covariance::Exact || how == Covariance::Close) {
      // The variances are summed first, then one root is taken.
      positionSigma = std::sqrt(c[0] + c[1] + c[2]);
      rotationSigma = std::sqrt(c[3] + c[4] + c[5]);
      if (how == Covariance::Close && !(printsAlike(positionSigma) && printsAlike(rotationSigma)))
        how = Covariance::Reference;
    }
    if (how == Covariance::Reference) {
      positionSigma = rotationSigma = 1.0;
      if (poseCovariance(w.view, parameters, evaluator.score.measurementInformation, visible, w.scratch)) {
        const Eigen::MatrixXd& C = w.scratch.covariance;
        positionSigma = std::sqrt(C(0, 0) + C(1, 1) + C(2, 2));
        rotationSigma = std::sqrt(C(3, 3) + C(4, 4) + C(5, 5));
      }
    }
  }

  // The grade depends on the sensors seen alone.
  ViewGrade grade = w.grade;
  if (!w.graded || seen != w.gradedSensors) {
    const std::vector<int32_t>& channels = evaluator.model->channels;
    w.hits.clear();
    for (uint64_t m = seen; m != 0; m &= m - 1) {
      const int32_t channel = channels[static_cast<size_t>(__builtin_ctzll(m))];
      w.hits.push_back({channel, 0});
      w.hits.push_back({channel, 1});
    }
    PoseSolvability solvability(*evaluator.model, w.hits);
    grade = gradeView(solvability);
    if (solvability.missingChannel >= 0) {
      w.missingChannel = solvability.missingChannel;
      w.graded = false;
      return false;
    }
    w.grade = grade;
    w.gradedSensors = seen;
    w.graded = true;
  }

  settleCoverageRow(visible, grade, positionSigma, rotationSigma, row);
  return true;
}

// sensitivityRow's numbers by the fast path.
void sensitivitySigmasFast(const CoverageEvaluator& evaluator, const TableSensors& t, size_t index,
                           const Eigen::Vector3d& moved, RowWorker& w, double sigma[3]) {
  const OrientationSample& sample = w.blockSamples[index - w.blockBegin];
  const uint64_t seen = markSeen(index, w);
  const int32_t visible = __builtin_popcountll(seen);
  sigma[0] = sigma[1] = sigma[2] = 1.0;
  if (visible == 0) return;
  const PoseParameters parameters = {{moved.x(), moved.y(), moved.z()},
                                     {sample.rotationVector[0], sample.rotationVector[1], sample.rotationVector[2]}};
  double c[6];
  Covariance how = fastCovariance(evaluator, t, parameters, seen, visible, w, c);
  if (how == Covariance::Exact || how == Covariance::Close) {
    for (int i = 0; i < 3; ++i) {
      sigma[i] = std::sqrt(c[i]);
      if (how == Covariance::Close && !printsAlike(sigma[i])) how = Covariance::Reference;
    }
  }
  if (how == Covariance::Reference) {
    sigma[0] = sigma[1] = sigma[2] = 1.0;
    if (poseCovariance(w.view, parameters, evaluator.score.measurementInformation, visible, w.scratch))
      for (int i = 0; i < 3; ++i) sigma[i] = std::sqrt(w.scratch.covariance(i, i));
  }
}

// One coverage row into `out`. False, with nothing written, when the grade
// needs a sensor position that the model lacks.
bool coverageRow(const CoverageEvaluator& evaluator, const TableSensors* fast, const ReportGrid& grid, size_t index,
                 double distance, RowWorker& w, TextBuffer& out) {
  CoverageRow row;
  if (fast != nullptr) {
    if (!computeCoverageRowFast(evaluator, *fast, index, w, row)) return false;
    writeCoverageRow(evaluator, w.blockSamples[index - w.blockBegin], distance, row, w, out);
    return true;
  }
  const OrientationSample sample = grid[index];
  if (!computeCoverageRow(evaluator, sample, w, row)) return false;
  // The reference rows keep the formatted print, which the fast text must
  // match byte for byte.
  out.print("%lf %lf %0.1lf %0.1lf %d 0 0 0 %d %d %lf %lf", sample.longitude, sample.latitude, distance, 0.0,
            row.visibleCount, row.grade.first, row.grade.second, row.rotationSigma, row.positionSigma);
  const std::vector<int32_t>& channels = evaluator.model->channels;
  for (size_t i = 0; i < w.view.visibilityTests.size(); ++i)
    if (w.view.visibleNow[i]) out.putSpaceAndInteger(channels[i]);
  out.putChar('\n');
  return true;
}

// One sensitivity row into `out`; the device at `position` turned by the
// sample's orientation, so that it keeps facing the station.
bool sensitivityRow(const CoverageEvaluator& evaluator, const TableSensors* fast, const ReportGrid& grid, size_t index,
                    const Eigen::Vector3d& position, RowWorker& w, TextBuffer& out) {
  const OrientationSample sample = fast != nullptr ? w.blockSamples[index - w.blockBegin] : grid[index];
  const Eigen::Vector3d moved = movedPosition(position, sample);
  double sigma[3] = {1.0, 1.0, 1.0};
  const StationPose pose = coveragePose(moved, sample);
  const int32_t visible = fast != nullptr ? 0 : markVisibleSensors(w.view, pose);
  if (fast != nullptr) sensitivitySigmasFast(evaluator, *fast, index, moved, w, sigma);
  if (visible != 0) {
    const PoseParameters parameters = {{moved.x(), moved.y(), moved.z()},
                                       {sample.rotationVector[0], sample.rotationVector[1], sample.rotationVector[2]}};
    const Eigen::MatrixXd& C = w.scratch.covariance;
    if (poseCovariance(w.view, parameters, evaluator.score.measurementInformation, visible, w.scratch))
      for (int i = 0; i < 3; ++i) sigma[i] = std::sqrt(C(i, i));
  }
  for (double& s : sigma)
    if (!(s <= 1.0)) s = 1.0;

  if (fast != nullptr)
    writeSensitivityRow(sample, sigma, out);
  else
    out.print("%lf %lf %lf %lf %lf\n", sample.longitude, sample.latitude, sigma[0], sigma[1], sigma[2]);
  return true;
}

// The text of one block of rows and who made it. Aligned so that threads
// filling neighbouring blocks do not share a cache line.
struct alignas(64) BlockText {
  TextBuffer text;
  int worker = 0;
  bool stopped = false;  // ended before its last row: the table stops there
  int32_t missingChannel = -1;
};

struct TableOutcome {
  int lastWorker = -1;          // the thread that computed the final row
  int32_t missingChannel = -1;  // when the table stopped short
};

// Blocks of rows per thread in one wave. The rows of a block are consecutive
// and cost about the same; the few blocks per thread even out the differences
// between them before the caller writes the wave.
constexpr size_t kBlocksPerThread = 8;

// Computes rows 0 to rowCount - 1 with `row(index, worker, text)` over the
// pool, each block of them after `prepare(begin, end, worker)`, and writes their text to the standard output stream in
// row order, wave by wave: each wave hands out kBlocksPerThread blocks for every thread, and the caller writes them
// once all are done. The output is that of the rows one after another on one thread. `rowBytes` is the longest text a
// row is likely to take; the buffers are made for it once.
template <class Prepare, class Row>
TableOutcome writeRowsInOrder(size_t rowCount, size_t rowBytes, WorkerPool& pool, std::vector<RowWorker>& workers,
                              std::FILE* output, Prepare&& prepare, Row&& row) {
  TableOutcome outcome;
  const size_t slots = kBlocksPerThread * static_cast<size_t>(pool.size());
  const size_t blockRows = std::min(kMaxBlockRows, std::max<size_t>(1, (rowCount + slots - 1) / slots));
  std::vector<BlockText> blocks(slots);
  for (BlockText& block : blocks) block.text.reserve(blockRows * rowBytes);

  for (size_t first = 0; first < rowCount; first += slots * blockRows) {
    const size_t waveRows = std::min(rowCount - first, slots * blockRows);
    const int blockCount = static_cast<int>((waveRows + blockRows - 1) / blockRows);
    pool.run(blockCount, [&](int b, int worker) {
      BlockText& block = blocks[static_cast<size_t>(b)];
      RowWorker& w = workers[static_cast<size_t>(worker)];
      block.text.clear();
      block.worker = worker;
      block.stopped = false;
      const size_t begin = first + static_cast<size_t>(b) * blockRows;
      const size_t end = std::min(begin + blockRows, rowCount);
      prepare(begin, end, w);
      for (size_t r = begin; r < end; ++r)
        if (!row(r, w, block.text)) {
          block.stopped = true;
          block.missingChannel = w.missingChannel;
          return;
        }
    });
    for (int b = 0; b < blockCount; ++b) {
      const BlockText& block = blocks[static_cast<size_t>(b)];
      if (block.text.size() != 0) std::fwrite(block.text.data(), 1, block.text.size(), output);
      if (block.stopped) {
        outcome.missingChannel = block.missingChannel;
        std::fflush(output);
        return outcome;
      }
    }
    outcome.lastWorker = blocks[static_cast<size_t>(blockCount - 1)].worker;
  }
  std::fflush(output);
  return outcome;
}

// One row worker per thread of the pool, each starting from the evaluator's
// bits.
std::vector<RowWorker> makeRowWorkers(const CoverageEvaluator& evaluator, const WorkerPool& pool) {
  std::vector<RowWorker> workers;
  workers.reserve(static_cast<size_t>(pool.size()));
  for (int i = 0; i < pool.size(); ++i) workers.emplace_back(evaluator);
  return workers;
}

// Leaves the evaluator as one thread would have left it after the last row:
// its visibleNow bits as that row set them, and every sensor that some row saw
// marked in everVisible.
void gatherRowWorkers(CoverageEvaluator& evaluator, const std::vector<RowWorker>& workers, int lastWorker) {
  SweepObservationSet& set = *evaluator.observations;
  if (lastWorker >= 0) set.visibleNow = workers[static_cast<size_t>(lastWorker)].view.visibleNow;
  for (const RowWorker& w : workers)
    for (size_t i = 0; i < set.everVisible.size(); ++i)
      if (w.view.everVisible[i]) set.everVisible[i] = true;
}

}  // namespace

Status readyForTable(const CoverageEvaluator& evaluator) {
  if (evaluator.model == nullptr || evaluator.observations == nullptr)
    return Status::failure("No sensor model is set up for the coverage table.");
  const std::string problem = reportModelProblem(*evaluator.model);
  if (!problem.empty()) return Status::failure("Cannot tabulate the coverage of this model: " + problem);
  const SweepObservationSet& set = *evaluator.observations;
  if (set.visibleNow.size() != set.visibilityTests.size() || set.everVisible.size() != set.visibilityTests.size() ||
      set.visibilityTests.size() > evaluator.model->channels.size())
    return Status::failure("The observation set does not match the sensor model.");
  return Status();
}

namespace {

std::vector<int32_t> unseenChannels(const CoverageEvaluator& evaluator) {
  std::vector<int32_t> unseen;
  const SweepObservationSet& set = *evaluator.observations;
  for (size_t i = 0; i < set.everVisible.size(); ++i)
    if (!set.everVisible[i]) unseen.push_back(evaluator.model->channels[i]);
  return unseen;
}

}  // namespace

void PoseSolvability::update() {
  for (; consumed < observations.size(); ++consumed) {
    const AxisObservation& o = observations[consumed];
    if (o.axis < 0 || o.axis > 1 || o.channel < 0 || o.channel >= kMaxSensors) continue;
    ++axisCount[o.axis];
    axisMask[o.channel] = static_cast<uint8_t>(axisMask[o.channel] | (1u << o.axis));
    if (axisMask[o.channel] == 3) ++bothAxesCount;
  }
}

bool PoseSolvability::hasEnoughHits() {
  update();
  return axisCount[0] >= 4 && axisCount[1] >= 4 && axisCount[0] + axisCount[1] >= 8;
}

bool PoseSolvability::isSolvable() {
  update();
  if (!hasEnoughHits()) return false;

  int32_t ids[kMaxSensors];
  int32_t count = 0;
  if (bothAxesCount >= 4) {
    for (int32_t c = 0; c < kMaxSensors; ++c)
      if (axisMask[c] == 3) ids[count++] = c;
    if (spansVolume(ids, count)) return true;
    if (missingChannel >= 0) return false;
  }
  // Every sensor seen on one axis was seen on both: the axes on their own can
  // tell nothing more.
  if (axisCount[0] == bothAxesCount || axisCount[1] == bothAxesCount) return false;

  for (int axis = 0; axis < 2; ++axis) {
    count = 0;
    for (int32_t c = 0; c < kMaxSensors; ++c)
      if (axisMask[c] & (1u << axis)) ids[count++] = c;
    if (!spansVolume(ids, count)) return false;
  }
  return true;
}

bool PoseSolvability::spansVolume(const int32_t* channelIds, int32_t count) {
  // Distinct channels number at most 32; a longer list cannot come from the
  // mask and is not looked at.
  if (count < 3 || count > kMaxSensors) return false;
  std::array<Eigen::Vector3d, kMaxSensors> P;
  for (int32_t i = 0; i < count; ++i) {
    const auto found = model.channelIndex.find(channelIds[i]);
    const int32_t index = found == model.channelIndex.end() ? -1 : found->second;
    if (index < 0 || static_cast<size_t>(index) >= model.points.size()) {
      missingChannel = channelIds[i];
      return false;
    }
    P[i] = model.points[index];
  }

  // Every triple in list order; the first wide triangle with a sensor off its
  // plane decides.
  for (int32_t i = 0; i + 2 < count; ++i)
    for (int32_t j = i + 1; j + 1 < count; ++j)
      for (int32_t k = j + 1; k < count; ++k) {
        const Eigen::Vector3d& A = P[i];
        const Eigen::Vector3d AB = P[j] - A;
        const Eigen::Vector3d AC = P[k] - A;
        const Eigen::Vector3d BC = P[k] - P[j];
        const Eigen::Vector3d N = AC.cross(AB);
        const double L2 = std::max(AB.squaredNorm(), std::max(AC.squaredNorm(), BC.squaredNorm()));
        // The smallest altitude of the triangle.
        const double spread = std::sqrt(N.squaredNorm() / L2);
        if (!(spread >= minSpread)) continue;
        const Eigen::Vector3d unit = N / N.norm();
        const double base = unit.dot(A);
        for (int32_t m = 0; m < count; ++m) {
          if (m == i || m == j || m == k) continue;
          const double h = unit.dot(P[m]) - base;
          if (std::fabs(h) > minSpread) return true;
        }
      }
  return false;
}

ViewGrade gradeView(PoseSolvability& solvability) {
  if (!solvability.hasEnoughHits()) return {0, 100};
  if (!solvability.isSolvable()) return {96, 4};
  if (solvability.observations.size() <= 8) return {99, 1};
  return {100, 0};
}

std::string reportCountProblem(size_t sensorCount) {
  if (sensorCount > static_cast<size_t>(kMaxSensors))
    return "it has " + std::to_string(sensorCount) + " sensors, and the tables take at most " +
           std::to_string(kMaxSensors) + ".";
  return std::string();
}

std::string reportModelProblem(const SensorModel& model) {
  if (const std::string problem = reportCountProblem(model.sensorCount()); !problem.empty()) return problem;
  for (int32_t channel : model.channels)
    if (channel >= kMaxSensors)
      return "it uses channel " + std::to_string(channel) + ", and the tables take the channels 0 to " +
             std::to_string(kMaxSensors - 1) + ".";
  return std::string();
}

uint64_t estimateReportRows(double span, double step) {
  constexpr uint64_t kUnusable = std::numeric_limits<uint64_t>::max();
  if (!(step > 0.0) || !std::isfinite(step) || !std::isfinite(span) || !(span >= 0.0)) return kUnusable;
  const double latitudes = std::floor(2.0 * kHalfPi / step) + 1.0;
  const double longitudes = std::floor(span / step) + 1.0;
  const double rows = latitudes * longitudes;
  if (!(rows < 1.8e19)) return kUnusable;
  return static_cast<uint64_t>(rows);
}

ReportGrid::ReportGrid(const std::vector<OrientationSample>& list) : list_(&list) {}

ReportGrid::ReportGrid(double span, double step) {
  // A step that is not a positive number would never reach the end of the
  // walk, and one far too small would exhaust memory first: no grid then.
  if (estimateReportRows(span, step) > kReportRowLimit) return;
  // The running sums are kept as they round: whether the last step lands on
  // the end point depends on it (180 latitudes at 1 degree, 361 at 0.5).
  double e = -kHalfPi;
  do {
    latitudes_.push_back({e, std::sin(e), std::cos(e)});
    e += step;
  } while (e <= kHalfPi);
  const double end = 0.5 * span;
  double a = -0.5 * span;
  do {
    longitudes_.push_back({a, std::sin(a), std::cos(a)});
    a += step;
  } while (a <= end);
}

OrientationSample ReportGrid::operator[](size_t row) const {
  if (list_ != nullptr) return (*list_)[row];
  const Angle& lon = longitudes_[row / latitudes_.size()];
  const Angle& lat = latitudes_[row % latitudes_.size()];
  OrientationSample s;
  s.latitude = lat.angle;
  s.longitude = lon.angle;
  const double dx = lon.sine * lat.cosine;
  const double dy = lat.sine;
  const double dz = lon.cosine * lat.cosine;

  // The shortest rotation that carries d onto +z. Straight ahead (d = +z)
  // k is 0/0 and the sample is not a number; the table's clamps settle it.
  const double k = (1.0 - dz) / (dy * dy + dx * dx);
  Eigen::Matrix3d V;
  V << 0.0, 0.0, dx,  //
      0.0, 0.0, dy,   //
      -dx, -dy, 0.0;  // cross-product matrix of (-dy, dx, 0)
  const Eigen::Matrix3d M = Eigen::Matrix3d::Identity() - V + k * (V * V);

  double q[4];
  quaternionFromRotationMatrix(M, q);
  const double w = q[0], x = q[1], y = q[2], z = q[3];

  // Not quaternionToRotationVector: the factor is formed first and the
  // products round apart from the samples', and the tables' digits depend
  // on it.
  const double n2 = x * x + y * y + z * z;
  double factor = 2.0;
  if (n2 > 0.0) {
    const double n = std::sqrt(n2);
    factor = 2.0 * std::atan2(n, w) / n;
  }
  s.rotationVector[0] = factor * x;
  s.rotationVector[1] = factor * y;
  s.rotationVector[2] = factor * z;
  s.quaternion[0] = w;
  s.quaternion[1] = x;
  s.quaternion[2] = y;
  s.quaternion[3] = z;
  s.direction[0] = dx;
  s.direction[1] = dy;
  s.direction[2] = dz;
  s.weight = 1.0;
  return s;
}

std::vector<OrientationSample> buildReportGrid(double span, double step) {
  const ReportGrid grid(span, step);
  std::vector<OrientationSample> samples;
  samples.reserve(grid.size());
  for (size_t row = 0; row < grid.size(); ++row) samples.push_back(grid[row]);
  return samples;
}

Result<std::vector<int32_t>> printCoverageTable(CoverageEvaluator& evaluator, const ReportGrid& grid, WorkerPool& pool,
                                                std::FILE* output, RowPath path) {
  const Status ready = readyForTable(evaluator);
  if (!ready) return ready;
  std::vector<RowWorker> workers = makeRowWorkers(evaluator, pool);
  const TableSensors sensors(evaluator);
  const TableSensors* fast = path == RowPath::Fast ? &sensors : nullptr;

  const Eigen::Vector3d& p = evaluator.position;
  const double distance = std::sqrt(p[0] * p[0] + p[1] * p[1] + p[2] * p[2]);
  // Two angles and two sigmas of "%lf", the distance, small whole numbers,
  // and one channel below 32 for each sensor.
  const size_t rowBytes = 96 + static_cast<size_t>(std::max(0, std::snprintf(nullptr, 0, "%0.1lf", distance))) +
                          4 * evaluator.observations->visibilityTests.size();
  const TableOutcome outcome = writeRowsInOrder(
      grid.size(), rowBytes, pool, workers, output,
      [&](size_t begin, size_t end, RowWorker& w) {
        if (fast != nullptr)
          seeBlock(
              sensors, grid, begin, end, [&p](const OrientationSample& s) { return coveragePose(p, s); }, w);
      },
      [&](size_t row, RowWorker& w, TextBuffer& out) {
        return coverageRow(evaluator, fast, grid, row, distance, w, out);
      });
  if (outcome.missingChannel >= 0)
    return Status::failure("The sensor model has no position for channel " + std::to_string(outcome.missingChannel) +
                           ".");
  gatherRowWorkers(evaluator, workers, outcome.lastWorker);
  return unseenChannels(evaluator);
}

Result<std::vector<int32_t>> printSensitivityTable(CoverageEvaluator& evaluator, const ReportGrid& grid,
                                                   WorkerPool& pool, std::FILE* output, RowPath path) {
  const Status ready = readyForTable(evaluator);
  if (!ready) return ready;
  std::vector<RowWorker> workers = makeRowWorkers(evaluator, pool);
  const TableSensors sensors(evaluator);
  const TableSensors* fast = path == RowPath::Fast ? &sensors : nullptr;

  // The device keeps facing the station while it moves across the field of
  // view: its position turns with it.
  const Eigen::Vector3d& p = evaluator.position;
  const TableOutcome outcome = writeRowsInOrder(
      grid.size(), 64, pool, workers, output,
      [&](size_t begin, size_t end, RowWorker& w) {
        if (fast != nullptr)
          seeBlock(
              sensors, grid, begin, end,
              [&p](const OrientationSample& s) { return coveragePose(movedPosition(p, s), s); }, w);
      },
      [&](size_t row, RowWorker& w, TextBuffer& out) { return sensitivityRow(evaluator, fast, grid, row, p, w, out); });
  gatherRowWorkers(evaluator, workers, outcome.lastWorker);
  return unseenChannels(evaluator);
}

}  // namespace sensorlay
