#include "quality/fast_score.h"

#include <ceres/rotation.h>

#include <algorithm>
#include <cassert>
#include <cmath>
#include <cstddef>
#include <limits>

#include "common/worker_pool.h"
#include "observation/sweep_model.h"
#include "quality/coverage_evaluator.h"
#include "quality/score_lanes.h"
#include "quality/score_scratch.h"
#include "surface/ray_scene.h"
#include "surface/tracked_surface.h"
#include "surface/visibility.h"

namespace sensorlay {

namespace {

// Samples per task of the worker pool: enough to fill a packet or two with
// the moved sensor's rays and to pay for the hand-out, few enough that two
// threads finish close together. At most 64: a task's samples are bits of a
// word.
constexpr int32_t kSamplesPerTask = 64;

// Bands of the sphere in which the samples are worked, in z.
constexpr double kDirectionBands = 24.0;

// The incidence pre-test works in object coordinates and rounds differently
// from isSensorVisible; only a sensor this far below the limit is refused
// without asking it.
constexpr double kIncidenceMargin = 1e-7;

// Room above the largest row of the first placement, for sensors that move
// to places with larger rows, where nothing better bounds them.
constexpr double kEntryHeadroom = 4.0;

constexpr float kRayFar = std::numeric_limits<float>::infinity();

}  // namespace

struct FastScorer::SampleFrame {
  double quaternion[4];      // the sample's, w x y z, as the visibility test takes it
  double conjugate[4];       // its objectRotation, which turns the rays into the scene
  double rotationVector[3];  // as the Jacobian takes it
  StationRotation station;
  double weight;
  bool skipped;  // weight not above 0
};

// What each thread of the pool keeps for the trials: the reference
// computation's buffers, and the packet of rays it fills, with the sample
// (its place in the task) of each ray.
struct FastScorer::WorkerScratch {
  ScoreScratch score;
  RayPacket packet;
  int32_t laneSample[RayPacket::kSize];
  LaneDirections directions;
  LaneFrames frames;
  LaneSums sums;
  alignas(64) int64_t aside[kShareSize];  // where unused lanes write
  LaneSolve solve;
  LaneRows rows;
  // The samples of a trial waiting for a full set of lanes, and which of
  // them lose and gain the moved sensor, a bit per lane.
  struct Moving {
    int count = 0;
    int32_t sample[kLanes];
    uint32_t removing = 0;
    uint32_t adding = 0;
  };
  Moving moving;
  // Reference views of 2, 4 and 6 rows waiting for a full set of lanes.
  struct PendingViews {
    int count = 0;
    int32_t sample[kLanes];
    uint64_t mask[kLanes];
    bool cacheable[kLanes];
    alignas(64) double jacobian[kLanes][kCovarianceJacobianSize] = {};
  };
  PendingViews pending[kSmallViewRows / 2];
  LaneCovariance covariance;
};

struct FastScorer::TaskCounts {
  int64_t evaluated = 0;
  int64_t reference = 0;
  int64_t rays = 0;
  uint64_t seen = 0;  // sensors seen in the task's samples
};

FastScorer::FastScorer(CoverageEvaluator& evaluator, WorkerPool& pool) : evaluator_(evaluator), pool_(pool) {}

FastScorer::~FastScorer() = default;

void FastScorer::ensureScratch(int workers) {
  while (static_cast<int>(scratch_.size()) < workers) scratch_.push_back(std::make_unique<WorkerScratch>());
}

int64_t* FastScorer::totalOf(int32_t s) { return totalOf(s, totalSlot_[static_cast<size_t>(s)]); }

int64_t* FastScorer::totalOf(int32_t s, int slot) {
  return totals_.data() + (static_cast<size_t>(s) * 2 + static_cast<size_t>(slot)) * kShareSize;
}

// Runs task(first, end, worker, counts) for consecutive blocks of samples on
// the worker pool.
template <class Task>
void FastScorer::forEachTask(Task&& task) {
  ensureScratch(pool_.size());
  const int32_t tasks = static_cast<int32_t>(taskCounts_.size());
  pool_.run(tasks, [&](int index, int worker) {
    TaskCounts& counts = taskCounts_[static_cast<size_t>(index)];
    counts = TaskCounts();
    task(index * kSamplesPerTask, std::min(sampleCount_, (index + 1) * kSamplesPerTask), worker, counts);
  });
}

namespace {

FacingLimit facingLimit(const SensorModel& model, int32_t sensor) {
  const Eigen::Vector3d& p = model.points[static_cast<size_t>(sensor)];
  const Eigen::Vector3d& n = model.normals[static_cast<size_t>(sensor)];
  FacingLimit limit;
  for (int c = 0; c < 3; ++c) limit.point[c] = p[c], limit.normal[c] = n[c];
  limit.threshold = model.cosMaxIncidence - kIncidenceMargin * (1.0 + n.norm());
  return limit;
}

// False only when the sensor is certainly beyond the incidence limit at a
// sample, whose translation in object coordinates is `v`: R n . -(R p + t)
// / |R p + t| is n . -(p + R^T t) / |p + R^T t|. Anything not-a-number
// passes, to the full test. mayFaceLanes on one sample.
bool mayFace(const FacingLimit& limit, const double v[3]) {
  const double dx = v[0] + limit.point[0], dy = v[1] + limit.point[1], dz = v[2] + limit.point[2];
  const double facing = -(limit.normal[0] * dx + limit.normal[1] * dy + limit.normal[2] * dz);
  return !(facing < limit.threshold * std::sqrt(dx * dx + dy * dy + dz * dz));
}

// Where sample s's number c stands in blocks of kFacingBlockSize.
size_t blockIndex(int32_t s, int c) {
  return static_cast<size_t>(s / kLanes) * kFacingBlockSize + static_cast<size_t>(c * kLanes + s % kLanes);
}

}  // namespace

bool FastScorer::visible(int32_t s, int32_t sensor, const FacingLimit& limit) const {
  const double v[3] = {objectBlocks_[blockIndex(s, 0)], objectBlocks_[blockIndex(s, 1)],
                       objectBlocks_[blockIndex(s, 2)]};
  if (!mayFace(limit, v)) return false;
  const SampleFrame& f = frames_[static_cast<size_t>(s)];
  const StationPose pose = {{translation_[0], translation_[1], translation_[2]},
                            {f.quaternion[0], f.quaternion[1], f.quaternion[2], f.quaternion[3]}};
  return isSensorVisible(evaluator_.observations->visibilityTests[static_cast<size_t>(sensor)], pose);
}

int32_t FastScorer::referenceJacobian(int32_t s, uint64_t mask, int worker) {
  // The steps of scorePlacement for one sample, on this worker's buffers and
  // with the visible sensors given by `mask` instead of the shared bit list.
  const SampleFrame& f = frames_[static_cast<size_t>(s)];
  ScoreScratch& scratch = scratch_[static_cast<size_t>(worker)]->score;
  const SweepObservationSet& set = *evaluator_.observations;
  const int32_t rows = 2 * static_cast<int32_t>(__builtin_popcountll(mask));

  ScoreScratch::Jacobian& J = scratch.jacobian;
  J.setZero(rows, 6);
  const PoseParameters parameters = {{translation_[0], translation_[1], translation_[2]},
                                     {f.rotationVector[0], f.rotationVector[1], f.rotationVector[2]}};
  const StationPoseOf<PoseJet> stationPose = stationPoseOf(differentiable(parameters));
  bool ok = true;
  int32_t row = 0;
  for (uint64_t m = mask; m != 0; m &= m - 1) {
    const int sensor = __builtin_ctzll(m);
    PoseJet pair[2];
    if (sweepAngles(set.sensorSweeps[static_cast<size_t>(sensor)], stationPose, pair)) {
      for (int c = 0; c < 6; ++c) {
        J(row, c) = pair[0].v[c];
        J(row + 1, c) = pair[1].v[c];
      }
    } else {
      ok = false;
    }
    row += 2;
  }
  // A failed evaluation writes nothing, and J stays zero.
  if (!ok) J.setZero();
  return rows;
}

void FastScorer::referenceTerm(int32_t s, uint64_t mask, int worker) {
  // Without the moved sensor, the value depends on sensors whose places the
  // entry's stamp tells: a trial that moves a sensor out of a view and is
  // put back finds the rest of the view's value here the next time.
  const double weight = frames_[static_cast<size_t>(s)].weight;
  const bool cacheable = trial_.sensor < 0 || (mask >> trial_.sensor & 1) == 0;
  ReferenceEntry& entry = referenceCache_[static_cast<size_t>(s)];
  if (cacheable && entry.mask == mask) {
    bool current = true;
    for (uint64_t m = mask; m != 0 && current; m &= m - 1)
      current = placedAt_[static_cast<size_t>(__builtin_ctzll(m))] <= entry.stamp;
    if (current) {
      terms_[static_cast<size_t>(s)] = entry.value * weight;
      return;
    }
  }
  const int32_t rows = referenceJacobian(s, mask, worker);
  WorkerScratch& w = *scratch_[static_cast<size_t>(worker)];
  if (rows > kSmallViewRows) {
    const double value = evaluator_.score.sampleValue(w.score, rows);
    if (cacheable) entry = {mask, epoch_, value};
    terms_[static_cast<size_t>(s)] = value * weight;
    return;
  }
  // Small views wait for others of their size, to be solved kLanes at a
  // time.
  WorkerScratch::PendingViews& pending = w.pending[rows / 2 - 1];
  const int lane = pending.count++;
  pending.sample[lane] = s;
  pending.mask[lane] = mask;
  pending.cacheable[lane] = cacheable;
  std::copy(w.score.jacobian.data(), w.score.jacobian.data() + rows * 6, pending.jacobian[lane]);
  if (pending.count == kLanes) solvePending(w, rows);
}

void FastScorer::solvePending(WorkerScratch& w, int32_t rows) {
  WorkerScratch::PendingViews& pending = w.pending[rows / 2 - 1];
  if (pending.count == 0) return;
  const double* jacobian[kLanes];
  for (int lane = 0; lane < kLanes; ++lane) jacobian[lane] = pending.jacobian[lane < pending.count ? lane : 0];
  const Eigen::MatrixXd& information = evaluator_.score.measurementInformation;
  covarianceLanes(information.data(), static_cast<long>(information.outerStride()), jacobian, rows, w.covariance);
  for (int lane = 0; lane < pending.count; ++lane) {
    const double diagonal[6] = {w.covariance.diagonal[0][lane], w.covariance.diagonal[1][lane],
                                w.covariance.diagonal[2][lane], w.covariance.diagonal[3][lane],
                                w.covariance.diagonal[4][lane], w.covariance.diagonal[5][lane]};
    const double value = evaluator_.score.valueOf(diagonal);
    const size_t at = static_cast<size_t>(pending.sample[lane]);
    if (pending.cacheable[lane]) referenceCache_[at] = {pending.mask[lane], epoch_, value};
    terms_[at] = value * frames_[at].weight;
  }
  pending.count = 0;
}

void FastScorer::solveAllPending() {
  for (const std::unique_ptr<WorkerScratch>& w : scratch_)
    for (int32_t rows = 2; rows <= kSmallViewRows; rows += 2) solvePending(*w, rows);
}

void FastScorer::sampleTerm(int32_t s, uint64_t mask, const int64_t* total, const LaneSolve& solve, int lane,
                            int worker, bool& reference) {
  const size_t at = static_cast<size_t>(s);
  const double weight = frames_[at].weight;
  reference = false;
  const int seen = __builtin_popcountll(mask);
  if (seen == 0) {
    terms_[at] = evaluator_.score.unseenTerm(weight);
  } else if (seen > kMaxSensors) {
    terms_[at] = kNoAnswer * weight;
  } else if (seen < 3 || total[kOversizedAt] != 0 || !solve.solved[lane]) {
    // Views of fewer than 3 sensors are singular, and a pivot that is small
    // against its diagonal entry means the columns are close to dependent:
    // the reference's LU decides those.
    reference = true;
    referenceTerm(s, mask, worker);
  } else {
    const double x = std::sqrt(solve.position[lane]) + std::sqrt(solve.rotation[lane]);
    const double value = std::isnan(x) ? kNoAnswer : evaluator_.score.curve(x);
    terms_[at] = value * weight;
  }
}

void FastScorer::solveBatch(const int32_t* samples, int count, int worker, TaskCounts& counts) {
  WorkerScratch& w = *scratch_[static_cast<size_t>(worker)];
  // Unused lanes repeat the first sample.
  for (int lane = 0; lane < kLanes; ++lane) w.sums.in[lane] = totalOf(samples[lane < count ? lane : 0]);
  solveLanes(w.sums, scales_, kPivotFloor, w.solve);
  for (int lane = 0; lane < count; ++lane) {
    const int32_t s = samples[lane];
    bool reference = false;
    sampleTerm(s, masks_[static_cast<size_t>(s)], totalOf(s), w.solve, lane, worker, reference);
    ++counts.evaluated;
    counts.reference += reference ? 1 : 0;
  }
}

void FastScorer::castPacket(WorkerScratch& w, int lanes, uint64_t& seen) const {
  trial_.surface->castRays(w.packet, lanes);
  for (int lane = 0; lane < lanes; ++lane)
    if (!w.packet.blocked[lane]) seen |= uint64_t{1} << w.laneSample[lane];
}

void FastScorer::evaluateMove(int32_t first, int32_t end, int worker, TaskCounts& counts) {
  const Trial& t = trial_;
  const uint64_t bit = uint64_t{1} << t.sensor;
  WorkerScratch& w = *scratch_[static_cast<size_t>(worker)];
  uint64_t& touched = touched_[static_cast<size_t>(first / kSamplesPerTask)];
  for (uint64_t m = touched; m != 0; m &= m - 1) settle(static_cast<size_t>(first + __builtin_ctzll(m)));
  touched = 0;
  // Where the sensor was seen (skipped samples see nothing), and where it may
  // face the station now, by the cheap test on the sample's translation
  // alone.
  uint64_t before = 0;
  for (int32_t s = first; s < end; ++s) before |= (masks_[static_cast<size_t>(s)] >> t.sensor & 1) << (s - first);
  // Their sums in use, which the batches read, fetched while the rays are
  // cast; the free slots are only written.
  for (uint64_t m = before; m != 0; m &= m - 1) {
    const int64_t* total = totalOf(first + __builtin_ctzll(m));
    for (int line = 0; line < kShareSize * 8; line += 64)
      __builtin_prefetch(reinterpret_cast<const char*>(total) + line, 0);
  }
  const uint64_t candidates =
      mayFaceLanes(objectBlocks_.data() + static_cast<size_t>(first / kLanes) * kFacingBlockSize,
                   (end - first + kLanes - 1) / kLanes, t.limit);

  // The exact incidence test of isSensorVisible kLanes samples at a time, and
  // the rays of those that pass, cast a packet at a time.
  static_assert(offsetof(SampleFrame, conjugate) == offsetof(SampleFrame, quaternion) + 4 * sizeof(double),
                "facingLanes reads a frame's quaternion and conjugate as eight numbers in a row");
  uint64_t after = 0;
  int rays = 0;
  int offsets[kLanes];
  const double* frame[kLanes];
  int count = 0;
  for (uint64_t m = candidates; m != 0; m &= m - 1) {
    offsets[count++] = __builtin_ctzll(m);
    if (count < kLanes && (m & (m - 1)) != 0) continue;
    for (int lane = 0; lane < kLanes; ++lane)
      frame[lane] = frames_[static_cast<size_t>(first + offsets[lane < count ? lane : 0])].quaternion;
    const uint32_t facing = facingLanes(frame, t.facing, w.directions);
    for (int lane = 0; lane < count; ++lane) {
      if ((facing >> lane & 1) == 0) continue;
      if (t.surface == nullptr) {
        after |= uint64_t{1} << offsets[lane];
        continue;
      }
      const float direction[3] = {w.directions.value[0][lane], w.directions.value[1][lane],
                                  w.directions.value[2][lane]};
      w.packet.set(rays, t.origin, direction, kRayNear, kRayFar);
      w.laneSample[rays++] = offsets[lane];
      ++counts.rays;
      if (rays == RayPacket::kSize) {
        castPacket(w, rays, after);
        rays = 0;
      }
    }
    count = 0;
  }
  if (rays > 0) castPacket(w, rays, after);

  // A sample where the sensor is unseen before and after keeps its term bit
  // for bit; the others are worked out kLanes at a time, with those of this
  // worker's earlier tasks, so that few lanes go unused.
  const uint64_t changed = before | after;
  if (after != 0) counts.seen |= bit;
  WorkerScratch::Moving& moving = w.moving;
  for (uint64_t m = changed; m != 0; m &= m - 1) {
    const int offset = __builtin_ctzll(m);
    const int lane = moving.count++;
    moving.sample[lane] = first + offset;
    moving.removing |= static_cast<uint32_t>(before >> offset & 1) << lane;
    moving.adding |= static_cast<uint32_t>(after >> offset & 1) << lane;
    if (moving.count == kLanes) moveBatch(worker, counts);
  }
}

void FastScorer::moveBatch(int worker, TaskCounts& counts) {
  const Trial& t = trial_;
  const uint64_t bit = uint64_t{1} << t.sensor;
  WorkerScratch& w = *scratch_[static_cast<size_t>(worker)];
  WorkerScratch::Moving& moving = w.moving;
  const int count = moving.count;
  const uint32_t removing = moving.removing, adding = moving.adding;
  const int32_t* samples = moving.sample;
  for (int lane = 0; lane < kLanes; ++lane) {
    // Unused lanes repeat the first sample and write their sums aside.
    const int32_t s = samples[lane < count ? lane : 0];
    const size_t at = static_cast<size_t>(s);
    w.frames.frame[lane] = &frames_[at].station;
    w.sums.in[lane] = totalOf(s, totalSlot_[at]);
    // Into the free slot.
    w.sums.out[lane] = lane < count ? totalOf(s, totalSlot_[at] ^ 1) : w.aside;
  }
  // The new sums: the old ones, less the sensor's shares at its old place,
  // plus its shares at the new one. Exact in fixed point, so each is the
  // same as if it had been added up from nothing, and an old share, worked
  // out again, is the very one that was added.
  exchangeAndSolveLanes(w.frames, scales_, t.committedPoint, removing, t.point, adding, w.sums, kPivotFloor, w.solve);
  for (int lane = 0; lane < count; ++lane) {
    const int32_t s = samples[lane];
    const size_t at = static_cast<size_t>(s);
    touched_[static_cast<size_t>(s / kSamplesPerTask)] |= uint64_t{1} << (s % kSamplesPerTask);
    previousMasks_[at] = masks_[at];
    previousTerms_[at] = terms_[at];
    const int64_t* total = w.sums.out[lane];
    const uint64_t mask = (adding >> lane & 1) != 0 ? (masks_[at] | bit) : (masks_[at] & ~bit);
    masks_[at] = mask;
    bool reference = false;
    sampleTerm(s, mask, total, w.solve, lane, worker, reference);
    ++counts.evaluated;
    counts.reference += reference ? 1 : 0;
  }
  moving = WorkerScratch::Moving();
}

void FastScorer::evaluateBlockFully(int32_t first, int32_t end, int worker, TaskCounts& counts) {
  WorkerScratch& w = *scratch_[static_cast<size_t>(worker)];
  uint64_t used = 0;
  for (int32_t s = first; s < end; ++s) {
    const size_t at = static_cast<size_t>(s);
    int64_t* total = totalOf(s, 0);
    std::fill(total, total + kShareSize, 0);
    totalSlot_[at] = 0;
    masks_[at] = 0;
    if (frames_[at].skipped) continue;
    used |= uint64_t{1} << (s - first);
    uint64_t mask = 0;
    for (int32_t k = 0; k < sensorCount_; ++k)
      if (visible(s, k, facingLimit(*evaluator_.model, k))) mask |= uint64_t{1} << k;
    masks_[at] = mask;
    counts.seen |= mask;
  }
  // Each sensor's shares added where it is seen, kLanes samples at a time.
  int32_t batch[kLanes];
  for (int32_t k = 0; k < sensorCount_; ++k) {
    const double* point = committed_.data() + static_cast<size_t>(k) * 3;
    int count = 0;
    for (int32_t s = first; s < end; ++s) {
      if ((masks_[static_cast<size_t>(s)] >> k & 1) != 0) batch[count++] = s;
      if (count == kLanes || (count > 0 && s + 1 == end)) {
        for (int lane = 0; lane < kLanes; ++lane) {
          const int32_t b = batch[lane < count ? lane : 0];
          w.frames.frame[lane] = &frames_[static_cast<size_t>(b)].station;
          w.sums.in[lane] = totalOf(b);
          w.sums.out[lane] = lane < count ? totalOf(b) : w.aside;
        }
        exchangeShareLanes(w.frames, scales_, point, 0, point, (1u << count) - 1, w.sums);
        count = 0;
      }
    }
  }
  int count = 0;
  for (uint64_t m = used; m != 0; m &= m - 1) {
    batch[count++] = first + __builtin_ctzll(m);
    if (count == kLanes || (m & (m - 1)) == 0) {
      solveBatch(batch, count, worker, counts);
      count = 0;
    }
  }
}

void FastScorer::finish() {
  // What the reference score leaves behind besides the score: every sensor
  // seen in some sample marked as ever visible, and the bit list of the last
  // sample that was not skipped.
  int64_t evaluated = 0, reference = 0, rays = 0;
  uint64_t seen = 0;
  for (const TaskCounts& counts : taskCounts_) {
    evaluated += counts.evaluated;
    reference += counts.reference;
    rays += counts.rays;
    seen |= counts.seen;
  }
  lastEvaluated_ = evaluated;
  lastReference_ = reference;
  lastRays_ = rays;

  SweepObservationSet& set = *evaluator_.observations;
  for (int32_t k = 0; k < sensorCount_; ++k)
    if (seen >> k & 1) set.everVisible[static_cast<size_t>(k)] = true;
  if (lastSample_ < 0) return;

  const uint64_t mask = masks_[static_cast<size_t>(lastSample_)];
  for (int32_t k = 0; k < sensorCount_; ++k) set.visibleNow[static_cast<size_t>(k)] = (mask >> k & 1) != 0;
}

namespace {

// The power of two nearest to `value`, or 1 for anything but a positive
// finite number.
double nearestPowerOfTwo(double value) {
  if (!(value > 0.0) || !std::isfinite(value)) return 1.0;
  return std::ldexp(1.0, static_cast<int>(std::lround(std::log2(value))));
}

}  // namespace

bool FastScorer::chooseScalesFromReach() {
  // Bounds on the rows over every place a sensor can take: on the surface
  // (or where the model's sensors are now) within `reach` of the origin, a
  // sensor has x^2 + z^2 and y^2 + z^2 of at least (d - reach)^2, d being the
  // translation's distance from the y and the x axis, and the derivative of
  // R p by the rotation vector is no longer than |p|. So the translation
  // entries stay below 1 / (d - reach) and the rotation entries below
  // reach / (d - reach). Scales set from these hold for every placement of
  // the search, and the score is then a function of the placement alone.
  double reach = 0.0;
  for (const Eigen::Vector3d& p : evaluator_.model->points) reach = std::max(reach, p.norm());
  if (evaluator_.surface != nullptr) {
    const auto& vertices = evaluator_.surface->vertices;
    for (Eigen::Index v = 0; v < vertices.rows(); ++v)
      reach = std::max(reach, static_cast<double>(vertices.row(v).cast<double>().norm()));
  }
  const double t0 = std::hypot(translation_[0], translation_[2]);
  const double t1 = std::hypot(translation_[1], translation_[2]);
  const double clearance = std::min(t0, t1) - reach;
  // No such bound when a sensor can reach the station's axes.
  if (!(clearance > 0.0 && reach > 0.0 && std::isfinite(clearance) && std::isfinite(reach))) return false;
  chooseScales(1.0 / clearance, reach / clearance);
  return true;
}

void FastScorer::chooseScales(double translationSize, double rotationSize) {
  // Rotation columns brought to the size of the translation columns.
  scales_.rotationScale = rotationSize > 0.0 ? nearestPowerOfTwo(translationSize / rotationSize) : 1.0;
  const double rowSize = std::max(translationSize, rotationSize * scales_.rotationScale);
  // A share holds rows and sums of two products of rows; twice that for
  // safety.
  const double entrySize = 2.0 * std::max(rowSize, 2.0 * rowSize * rowSize);
  scales_.fixedScale = entrySize > 0.0 && std::isfinite(entrySize)
                           ? std::ldexp(1.0, static_cast<int>(std::floor(std::log2(kEntryLimit / entrySize))))
                           : std::ldexp(1.0, 50);
}

std::vector<int32_t> directionOrder(const std::vector<OrientationSample>& samples) {
  // Bands of equal height in z, each swept in azimuth, one way and then back.
  const size_t n = samples.size();
  std::vector<std::pair<double, int32_t>> keys(n);
  for (size_t s = 0; s < n; ++s) {
    const double* d = samples[s].direction;
    double band = std::floor((d[2] + 1.0) * 0.5 * kDirectionBands);
    band = std::isfinite(band) ? std::min(std::max(band, 0.0), kDirectionBands - 1.0) : 0.0;
    double azimuth = std::atan2(d[1], d[0]);
    if (!std::isfinite(azimuth)) azimuth = 0.0;
    if (static_cast<int>(band) % 2 == 1) azimuth = -azimuth;
    keys[s] = {band * 8.0 + azimuth, static_cast<int32_t>(s)};
  }
  std::stable_sort(keys.begin(), keys.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
  std::vector<int32_t> order(n);
  for (size_t p = 0; p < n; ++p) order[p] = keys[p].second;
  return order;
}

void FastScorer::orderSamples() {
  // Only the work follows the order; the terms are still added in sample
  // order.
  order_ = directionOrder(evaluator_.score.samples);
  position_.resize(order_.size());
  for (size_t p = 0; p < order_.size(); ++p) position_[static_cast<size_t>(order_[p])] = static_cast<int32_t>(p);
}

double FastScorer::scoreAll() {
  openSensor_ = -1;
  const SweepObservationSet* set = evaluator_.observations.get();
  const SensorModel* model = evaluator_.model;
  incremental_ = set != nullptr && model != nullptr && set->sensorSweeps.size() == set->visibilityTests.size() &&
                 set->visibilityTests.size() <= 64 && model->points.size() == set->visibilityTests.size() &&
                 model->normals.size() == model->points.size() && set->everVisible.size() == model->points.size() &&
                 set->visibleNow.size() == model->points.size();
  for (size_t k = 0; incremental_ && k < set->visibilityTests.size(); ++k) {
    const SensorSweep& sweep = set->sensorSweeps[k];
    const SensorVisibilityTest& test = set->visibilityTests[k];
    incremental_ = sweep.sweepKind == SweepKind::TwoSweeps && sweep.model == model && test.model == model &&
                   sweep.sensorIndex == static_cast<int32_t>(k) && test.sensorIndex == static_cast<int32_t>(k);
  }
  if (!incremental_) {
    lastEvaluated_ = lastReference_ = lastRays_ = 0;
    return evaluator_.scorePlacement();
  }

  sensorCount_ = static_cast<int32_t>(set->visibilityTests.size());
  sampleCount_ = static_cast<int32_t>(evaluator_.score.samples.size());
  for (int i = 0; i < 3; ++i) translation_[i] = scales_.translation[i] = evaluator_.position[i];
  scales_.angleVariance = kAngleVariance;
  scales_.sharedAngleShare = kSharedAngleShare;

  const size_t n = static_cast<size_t>(sampleCount_);
  orderSamples();
  frames_.resize(n);
  // Samples past the last, in the last block, count as skipped.
  objectBlocks_.assign((n + kLanes - 1) / kLanes * kFacingBlockSize, 1.0);
  taskCounts_.assign(static_cast<size_t>((sampleCount_ + kSamplesPerTask - 1) / kSamplesPerTask), TaskCounts());
  forEachTask([this](int32_t first, int32_t end, int, TaskCounts&) {
    for (int32_t s = first; s < end; ++s) {
      const OrientationSample& sample = evaluator_.score.samples[static_cast<size_t>(order_[static_cast<size_t>(s)])];
      SampleFrame& f = frames_[static_cast<size_t>(s)];
      std::copy(sample.quaternion, sample.quaternion + 4, f.quaternion);
      objectRotation(f.quaternion, f.conjugate);
      std::copy(sample.rotationVector, sample.rotationVector + 3, f.rotationVector);
      f.weight = sample.weight;
      f.skipped = 0.0 >= sample.weight;
      // The translation in object coordinates: the conjugate rotation of t.
      double v[3];
      const double conjugate[4] = {f.quaternion[0], -f.quaternion[1], -f.quaternion[2], -f.quaternion[3]};
      ceres::UnitQuaternionRotatePoint(conjugate, translation_, v);
      for (int c = 0; c < 3; ++c) objectBlocks_[blockIndex(s, c)] = v[c];
      objectBlocks_[blockIndex(s, 3)] = f.skipped ? 1.0 : 0.0;
      f.station = stationRotation(f.rotationVector);
    }
  });
  lastSample_ = -1;
  for (size_t s = 0; s < n; ++s)
    if (!frames_[position_[s]].skipped) lastSample_ = position_[s];

  trial_.sensor = -1;
  referenceCache_.assign(n, ReferenceEntry());
  placedAt_.assign(static_cast<size_t>(sensorCount_), epoch_);
  committed_.resize(static_cast<size_t>(sensorCount_) * 3);
  for (int32_t k = 0; k < sensorCount_; ++k)
    for (int c = 0; c < 3; ++c) committed_[static_cast<size_t>(k) * 3 + c] = model->points[static_cast<size_t>(k)][c];
  totals_.assign(n * 2 * kShareSize, 0);
  totalSlot_.assign(n, 0);
  masks_.assign(n, 0);
  terms_.assign(n, 0.0);
  previousMasks_.assign(n, 0);
  previousTerms_.assign(n, 0.0);
  touched_.assign(taskCounts_.size(), 0);
  closing_ = Closing::kNone;

  if (!chooseScalesFromReach()) {
    // Scales from the rows of the present placement instead.
    std::vector<double> largest(n * 2, 0.0);
    scales_.rotationScale = 1.0;
    forEachTask([&](int32_t first, int32_t end, int worker, TaskCounts&) {
      WorkerScratch& w = *scratch_[static_cast<size_t>(worker)];
      for (int32_t s = first; s < end; ++s) {
        const size_t at = static_cast<size_t>(s);
        if (frames_[at].skipped) continue;
        for (int lane = 0; lane < kLanes; ++lane) w.frames.frame[lane] = &frames_[at].station;
        for (int32_t k = 0; k < sensorCount_; ++k) {
          if (!visible(s, k, facingLimit(*evaluator_.model, k))) continue;
          sensorRowLanes(w.frames, scales_, committed_.data() + static_cast<size_t>(k) * 3, w.rows);
          for (int j = 0; j < 6; ++j) {
            double& slot = largest[at * 2 + (j < 3 ? 0 : 1)];
            slot = std::max(slot, std::max(std::fabs(w.rows.value[j][0]), std::fabs(w.rows.value[6 + j][0])));
          }
        }
      }
    });
    double translationSize = 0.0, rotationSize = 0.0;
    for (size_t s = 0; s < n; ++s) {
      translationSize = std::max(translationSize, largest[s * 2]);
      rotationSize = std::max(rotationSize, largest[s * 2 + 1]);
    }
    // With room for sensors that move to places with larger rows; a share
    // that outgrows it goes to the reference computation.
    chooseScales(kEntryHeadroom * translationSize, kEntryHeadroom * rotationSize);
  }

  forEachTask([this](int32_t first, int32_t end, int worker, TaskCounts& counts) {
    evaluateBlockFully(first, end, worker, counts);
  });
  solveAllPending();
  finish();
  return sumTerms();
}

double FastScorer::scoreMove(int32_t sensor) {
  if (!incremental_) return evaluator_.scorePlacement();
  assert(sensor >= 0 && sensor < sensorCount_);
  if (openSensor_ >= 0) accept();
  openSensor_ = sensor;
  ++epoch_;

  // What every sample of the trial reads of the moved sensor.
  const SensorModel& model = *evaluator_.model;
  Trial& t = trial_;
  t.sensor = sensor;
  for (int c = 0; c < 3; ++c) {
    t.point[c] = model.points[static_cast<size_t>(sensor)][c];
    t.normal[c] = model.normals[static_cast<size_t>(sensor)][c];
    t.committedPoint[c] = committed_[static_cast<size_t>(sensor) * 3 + c];
  }
  t.limit = facingLimit(model, sensor);
  for (int c = 0; c < 3; ++c) {
    t.facing.point[c] = t.point[c];
    t.facing.normal[c] = t.normal[c];
    t.facing.position[c] = translation_[c];
  }
  t.facing.cosMaxIncidence = model.cosMaxIncidence;
  t.surface = evaluator_.observations->visibilityTests[static_cast<size_t>(sensor)].surface;
  rayOrigin(t.point, t.normal, t.origin);

  forEachTask(
      [this](int32_t first, int32_t end, int worker, TaskCounts& counts) { evaluateMove(first, end, worker, counts); });
  // What the workers' last tasks left waiting.
  for (size_t worker = 0; worker < scratch_.size(); ++worker)
    if (scratch_[worker]->moving.count > 0) moveBatch(static_cast<int>(worker), taskCounts_.front());
  solveAllPending();
  closing_ = Closing::kNone;
  finish();
  return sumTerms();
}

double FastScorer::sumTerms() const {
  // In sample order on this thread, as scorePlacement adds them. A skipped
  // sample holds +0.0, which leaves any sum that does not start at -0.0 as
  // it is, and this one starts at +0.0 and so never becomes -0.0.
  double sum = 0.0;
  for (const int32_t at : position_) sum += terms_[static_cast<size_t>(at)];
  return sum * evaluator_.score.scoreScale;
}

void FastScorer::accept() {
  if (openSensor_ < 0) return;
  placedAt_[static_cast<size_t>(openSensor_)] = epoch_;
  // The shares at the new place are the ones in the sums from now on.
  std::copy(trial_.point, trial_.point + 3, committed_.begin() + static_cast<ptrdiff_t>(openSensor_) * 3);
  closing_ = Closing::kAccept;
  closingSensor_ = openSensor_;
  openSensor_ = -1;
}

void FastScorer::reject() {
  if (openSensor_ < 0) return;
  closing_ = Closing::kReject;
  closingSensor_ = openSensor_;
  openSensor_ = -1;
}

void FastScorer::settle(size_t s) {
  if (closing_ == Closing::kAccept) {
    // The free slots become the ones in use.
    totalSlot_[s] ^= 1;
  } else if (closing_ == Closing::kReject) {
    masks_[s] = previousMasks_[s];
    terms_[s] = previousTerms_[s];
  }
}

}  // namespace sensorlay
