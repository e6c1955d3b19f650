#pragma once
// The placement search: simulated annealing over the free sensors of a model,
// one sensor moved per trial, towards the lowest tracking-quality score.

#include <Eigen/Core>

#include <atomic>
#include <cmath>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "common/result.h"
#include "model/constellation.h"
#include "quality/coverage_evaluator.h"

namespace sensorlay {

class TrackedSurface;
class FastScorer;
class WorkerPool;

// Temperatures are in score units, the top of the score scale being 1000.
constexpr double annealFullScale = 1000.0;
constexpr double annealStartTemperature = annealFullScale * 0.1;
constexpr double annealEndTemperature = annealFullScale * 0.0035 * 0.01;

// What the design run hands to the search; the search writes
// `finalQualityScore` back.
struct AnnealerOptions {
  AnnealerOptions(TrackedSurface& surface, int32_t nSensors, WorkerPool& pool);

  const SensorModel* immutableModel = nullptr;  // fixed sensors, or none
  int32_t nSensors;
  int32_t nOrientations = 1250;
  int32_t nIterations = 50;
  double coolingRate = 0.958;
  double maxIncidenceDegrees = 60.0;
  double qualityRangeLow = -1.0;
  double qualityRangeHigh = -1.0;
  double finalQualityScore = 0.0;
  // The directions' weights; empty: all alike.
  QualityMap qualityMap;
  TrackedSurface& surface;
  // The threads that score the trials.
  WorkerPool& pool;
  // Where the search tells how it goes: the quality map's normalisation, the
  // schedule's length, a dot per trial and each new best score. None: quiet.
  std::ostream* progress = nullptr;
  // When given, checked once per trial: once it reads true the search ends
  // there and keeps the best placement seen so far.
  const std::atomic<bool>* stopRequest = nullptr;
  // Replaces the clock seed of the trial generator, for reproducible runs.
  // The surface's own generator is fixed through TrackedSurface::seedGenerator.
  std::optional<uint32_t> annealSeed;
  // What a sample that sees no sensor costs (quality/placement_score.h).
  UnseenCost unseenCost = UnseenCost::Flat;
  // The least distance, centre to centre in metres, between two sensors in
  // every placement the search makes, fixed sensors included; 0: none. A
  // draw closer than that to another sensor is drawn again.
  double minSpacing = 0.0;
  // When given, called after each trial with the moved sensor, its score and
  // whether it was kept.
  std::function<void(int32_t sensor, double score, bool accepted)> trialObserver;
  // Scores every trial from nothing with CoverageEvaluator::scorePlacement
  // instead of rescoring only the moved sensor; the search is the same, only
  // slower. For checks of the fast path.
  bool useReferenceScore = false;
};

// The state of one search; lives only inside runAnnealer.
class Annealer {
 public:
  // Takes the schedule, the map, the curve, the seed, the pool and the sinks
  // from `options`; the fixed sensors and the initial placement are already
  // in `model`. A failure leaves its reason in `setup`, and the search must
  // not run.
  Annealer(SensorModel& model, const AnnealerOptions& options);
  ~Annealer();
  Annealer(const Annealer&) = delete;
  Annealer& operator=(const Annealer&) = delete;

  // Runs the whole schedule and leaves the best placement seen in `result`.
  void anneal(Constellation& result);
  // Overwrites `result` from the working model and records `currentScore` as
  // the best score.
  void takeSnapshot(Constellation& result);
  // The trial move of one sensor in single precision; its reach in direction
  // narrows as the temperature `T` falls.
  // With a `minSpacing`, a move that lands too close to another sensor is
  // drawn again, and after kSpacingDraws such draws the sensor stays.
  void moveSensor(Eigen::Vector3f& point, Eigen::Vector3f& normal, double T);

  Status setup;  // why the search cannot run, when it cannot
  SensorModel* model;
  TrackedSurface* surface;
  WorkerPool* pool;
  std::ostream* progress;
  const std::atomic<bool>* stopRequest;
  CoverageEvaluator evaluator;
  int32_t trialsPerTemperature = 0;
  int32_t nOrientations = 0;
  double coolingRate = 0.0;
  double inverseStartTemperature = 0.0;
  bool firstSnapshot = true;
  double currentScore = 0.0;
  double bestScore = 0.0;
  int32_t pickLow = 0;
  int32_t pickHigh = -1;
  double moveDrawLow = 0.0;
  double moveDrawHigh = 1.0;
  double minSpacing = 0.0;
  std::mt19937 rng;
  int32_t pickedSensor = -1;
  Eigen::Vector3d savedPoint = Eigen::Vector3d::Zero();
  Eigen::Vector3d savedNormal = Eigen::Vector3d::Zero();
  // Set before anneal: every score through scorePlacement, nothing cached.
  bool useReferenceScore = false;
  // Called after each trial with the moved sensor, its score and whether it
  // was kept; for tests that follow a search step by step.
  std::function<void(int32_t sensor, double score, bool accepted)> trialObserver;

 private:
  double scoreStart();
  void reportReferenceBest();
  void finishAnneal();
  // The trials' dots not yet written to `progress`: they go out in batches,
  // and before anything else is written there.
  void writeDots();
  int32_t pendingDots = 0;
  std::unique_ptr<FastScorer> fastScorer;
  // The sensors of the last snapshot in full precision, to score the best
  // placement once more with scorePlacement at the end.
  std::vector<Eigen::Vector3d> bestPoints;
  std::vector<Eigen::Vector3d> bestNormals;

  // One draw of the move, without the spacing.
  void drawMove(Eigen::Vector3f& point, Eigen::Vector3f& normal, double T);
  void runTrial(double T, double& best, double& current, std::mt19937& acceptance, Constellation& result);
};

// The Metropolis rule: a trial that is not worse than `current` is kept
// without a draw; a worse one draws u from `acceptance` and is kept when
// exp((current - next) / T) is at or above u. A not-a-number `next` is kept.
bool acceptTrial(double current, double next, double T, std::mt19937& acceptance);

// The incidence limit of a search over `nOrientations` samples, in degrees:
// the limit less half the angular spacing of the samples. The spacing is in
// radians and taken off the degrees as it stands, which makes the margin
// tiny; designs made so far depend on this bound, so it stays.
inline double searchIncidenceDegrees(double maxIncidenceDegrees, int32_t nOrientations) {
  return maxIncidenceDegrees - 0.5 * (2.0 * std::asin(1.9 / std::sqrt(static_cast<double>(nOrientations))));
}

// The number of trials the schedule runs, before rounding, as printed on the
// "anneal duration: " line.
double annealDuration(int32_t trialsPerTemperature, double coolingRate);

// Searches the placement: fills `result` with the best placement seen (all
// sensors numbered from 0, fixed ones first) and sets `finalQualityScore`.
// Fails, before any trial, when the first placement cannot keep `minSpacing`
// or the orientation samples or the scorer's tables cannot be held in memory.
Status runAnnealer(AnnealerOptions& options, Constellation& result);

// Placement moves (placement_moves.cpp).

// A model of `count` sensors on channels 0 to count - 1, all at the origin
// with zero normals, none fixed.
std::unique_ptr<SensorModel> makeEmptySensorModel(int32_t count);

// Seats the free sensors (from `immutableCount` on) by best-candidate
// sampling: of 20 fitting positions each takes the one farthest from its
// nearest earlier sensor, fixed ones included. With a `minSpacing`, only
// positions that keep it count as candidates; the failure says so when a
// sensor finds none in kSpacingDraws draws.
Status placeInitialSensors(const AnnealerOptions& options, SensorModel& model);

// Draws of one sensor's place that may miss the spacing before the search
// gives up on it: the first placement then fails, and a move leaves the
// sensor where it was.
constexpr int kSpacingDraws = 2000;

}  // namespace sensorlay
