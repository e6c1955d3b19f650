#pragma once
// The placement score for a search that moves one sensor at a time. It gives
// the value of PlacementScore::evaluate, but keeps per sample which
// sensors are seen and the sum of what they add to the information matrix,
// so that a trial recomputes only the moved sensor's share, and only in the
// samples where that sensor is seen before or after the move.
//
// The per-sample sums are kept in fixed point, where adding and taking away a
// sensor's share is exact: every sample's term is a function of the placement
// (and of the fixed-point scale, which scoreAll takes from the size of the
// surface, so that it is the same for every placement on it), never of the
// moves that led to it; and the terms are added on the calling thread in
// sample order. So the score depends neither on the history nor on the number
// of threads, and a move that no sample sees leaves it bit for bit the same.
// A sample that sees fewer than 3 sensors, or whose information matrix is
// close to singular, goes through the reference's own computation, so that the
// rounding inside a singular LU decides it exactly as it does there.
//
// The noise model as the fast path uses it: the top-left block of any size of
// the information matrix is (I - g (e e^T + o o^T)) / s2 (see
// quality/placement_score.h).

#include <cstdint>
#include <memory>
#include <vector>

#include "quality/score_lanes.h"

namespace sensorlay {

class CoverageEvaluator;
struct OrientationSample;
class TrackedSurface;
class WorkerPool;
struct SensorModel;

// The samples in an order of their directions, in which the scorer works
// them: neighbours in it cast their rays from one sensor in nearly the same
// direction, through the same part of the scene, and tend to see the same
// sensors.
std::vector<int32_t> directionOrder(const std::vector<OrientationSample>& samples);

class FastScorer {
 public:
  // The evaluator must be fully configured (model, surface, samples, curve)
  // before scoreAll, and must outlive the scorer, as must the pool that the
  // samples are spread over.
  FastScorer(CoverageEvaluator& evaluator, WorkerPool& pool);
  ~FastScorer();
  FastScorer(const FastScorer&) = delete;
  FastScorer& operator=(const FastScorer&) = delete;

  // Scores the present placement from nothing and caches it. Reads the
  // samples, the curve, the evaluator's position and the
  // sensors anew; this is the set-up, and the only call that allocates.
  double scoreAll();
  // Scores the placement after `sensor` (an index into the model's points)
  // has been written to the model. A trial left open by an earlier call is
  // accepted first.
  double scoreMove(int32_t sensor);
  // Keeps the last scoreMove as the cached state.
  void accept();
  // Forgets the last scoreMove; the caller puts the sensor back in the model.
  void reject();

  // False when the evaluator has a set-up that the cache does not cover (a
  // sweep kind other than the two-sweep station, more than 64 sensors, or
  // sensor records that are not numbered like the model's points); every
  // call then runs scorePlacement itself. Known after scoreAll.
  bool incremental() const { return incremental_; }

  // Of the last call: the samples evaluated (all of them in scoreAll, those
  // where the moved sensor is seen before or after in scoreMove), and how
  // many of those went through the reference computation.
  int64_t lastEvaluatedSamples() const { return lastEvaluated_; }
  int64_t lastReferenceSamples() const { return lastReference_; }
  // The rays the last scoreMove cast: the moved sensor's, where it faces the
  // station. Casting them is the least a trial can cost.
  int64_t lastCastRays() const { return lastRays_; }

  // A pivot of the LDL^T decomposition at or below this share of its diagonal
  // entry sends the sample to the reference computation.
  static constexpr double kPivotFloor = 1e-7;

 private:
  struct SampleFrame;
  struct TaskCounts;
  struct WorkerScratch;
  // The moved sensor, as every sample of a trial reads it.
  struct Trial {
    int32_t sensor = -1;
    double point[3];
    double normal[3];
    double committedPoint[3];  // where its shares in the sums were taken
    FacingLimit limit;         // of the pre-test
    FacingSensor facing;       // of the exact test
    const TrackedSurface* surface = nullptr;
    float origin[3];  // of its rays
  };

  void evaluateBlockFully(int32_t first, int32_t end, int worker, TaskCounts& counts);
  void evaluateMove(int32_t first, int32_t end, int worker, TaskCounts& counts);
  void castPacket(WorkerScratch& w, int lanes, uint64_t& seen) const;
  void moveBatch(int worker, TaskCounts& counts);  // of the worker's waiting samples
  void solveBatch(const int32_t* samples, int count, int worker, TaskCounts& counts);
  void settle(size_t s);
  // Writes sample s's term, or leaves it to solvePending.
  void sampleTerm(int32_t s, uint64_t mask, const int64_t* total, const LaneSolve& solve, int lane, int worker,
                  bool& reference);
  void referenceTerm(int32_t s, uint64_t mask, int worker);
  int32_t referenceJacobian(int32_t s, uint64_t mask, int worker);  // into the worker's score scratch; its rows
  void solvePending(WorkerScratch& w, int32_t rows);
  void solveAllPending();
  bool visible(int32_t s, int32_t sensor, const FacingLimit& limit) const;
  int64_t* totalOf(int32_t s);  // the slot in use
  int64_t* totalOf(int32_t s, int slot);
  template <class Task>
  void forEachTask(Task&& task);
  void orderSamples();
  bool chooseScalesFromReach();
  void chooseScales(double translationSize, double rotationSize);
  void finish();
  double sumTerms() const;
  void ensureScratch(int workers);

  CoverageEvaluator& evaluator_;
  WorkerPool& pool_;
  bool incremental_ = false;
  int32_t sensorCount_ = 0;
  int32_t sampleCount_ = 0;
  int32_t lastSample_ = -1;  // the last sample that is not skipped
  double translation_[3] = {0.0, 0.0, 0.0};
  ShareScales scales_;

  // Everything per sample below is held in the order the samples are worked
  // in: order_[p] is the sample at place p, position_[s] the place of sample s.
  std::vector<int32_t> order_;
  std::vector<int32_t> position_;
  std::vector<SampleFrame> frames_;
  // What the incidence pre-test reads of every sample in every trial, kept
  // apart from the larger frames: the pose's translation in object
  // coordinates, and whether the sample is skipped, in blocks of kLanes
  // samples as mayFaceLanes reads them.
  std::vector<double> objectBlocks_;
  // Where each sensor stood when its shares in the sums were taken, 3 per
  // sensor. A share is a function of the place alone, so the scorer keeps
  // no shares: a trial works the moved sensor's old ones out again. Memory
  // then grows with the samples only.
  std::vector<double> committed_;
  // The fixed-point sum of the shares of the sensors seen in sample s, in two
  // slots: the trial under way writes the one not in use.
  std::vector<int64_t> totals_;
  std::vector<uint8_t> totalSlot_;
  // Seen sensors and share of the sum per sample, written in place by a
  // trial, with the values before it kept for a rejection.
  std::vector<uint64_t> masks_;
  std::vector<double> terms_;
  std::vector<uint64_t> previousMasks_;
  std::vector<double> previousTerms_;
  // The samples the open or last trial rescored, a word per task.
  std::vector<uint64_t> touched_;
  int32_t openSensor_ = -1;
  // A trial is closed by accept or reject, and what that means for each
  // sample it touched is carried out by the workers at the start of the next
  // trial, off the calling thread.
  enum class Closing { kNone, kAccept, kReject };
  Closing closing_ = Closing::kNone;
  int32_t closingSensor_ = -1;

  Trial trial_;
  // Each sample's last reference value of a view without the moved sensor,
  // with the trial it was worked out in; valid while no sensor of the view
  // has been placed anew since (placedAt_, by trial).
  struct ReferenceEntry {
    uint64_t mask = 0;
    uint64_t stamp = 0;
    double value = 0.0;
  };
  std::vector<ReferenceEntry> referenceCache_;
  std::vector<uint64_t> placedAt_;
  uint64_t epoch_ = 0;                                   // the trials so far
  std::vector<std::unique_ptr<WorkerScratch>> scratch_;  // one per worker
  std::vector<TaskCounts> taskCounts_;

  int64_t lastEvaluated_ = 0;
  int64_t lastReference_ = 0;
  int64_t lastRays_ = 0;
};

}  // namespace sensorlay
