#include "search/annealer.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <new>
#include <ostream>
#include <string>

#include "common/random_draws.h"
#include "common/rotation.h"
#include "common/worker_pool.h"
#include "quality/fast_score.h"
#include "surface/tracked_surface.h"

namespace sensorlay {

namespace {

// The acceptance draws are the same sequence in every run, independent of the
// clock-seeded trial generator.
constexpr uint32_t acceptanceSeed = 5489;

// Progress dots written at once: the error stream writes each output at
// once, and a write per trial costs more than a fast trial.
constexpr int32_t kDotsPerWrite = 256;

}  // namespace

AnnealerOptions::AnnealerOptions(TrackedSurface& surface_, int32_t nSensors_, WorkerPool& pool_)
    : nSensors(nSensors_), surface(surface_), pool(pool_) {}

Annealer::Annealer(SensorModel& model_, const AnnealerOptions& options)
    : model(&model_),
      surface(&options.surface),
      pool(&options.pool),
      progress(options.progress),
      stopRequest(options.stopRequest) {
  // Saturate rather than overflow for absurd iteration counts.
  const int64_t trials = static_cast<int64_t>(model->points.size()) * options.nIterations;
  trialsPerTemperature = static_cast<int32_t>(
      std::clamp<int64_t>(trials, std::numeric_limits<int32_t>::min(), std::numeric_limits<int32_t>::max()));
  nOrientations = options.nOrientations;
  coolingRate = options.coolingRate;
  firstSnapshot = true;
  moveDrawLow = 0.0;
  moveDrawHigh = 1.0;

  // The observation records point into the model, so moves reach the score
  // without a rebuild.
  evaluator.model = model;
  evaluator.rebuildObservations();
  evaluator.surface = surface;
  evaluator.rebuildObservations();
  // The sample weights are read from the map, so it comes first.
  evaluator.qualityMap = options.qualityMap;
  const Result<std::optional<double>> normalization = evaluator.sampleOrientations(nOrientations);
  if (!normalization)
    setup = normalization.status();
  else if (*normalization && progress != nullptr)
    *progress << "quality map normalization: " << **normalization << std::endl;
  if (options.qualityRangeLow > 0.0 && options.qualityRangeHigh > 0.0)
    evaluator.setQualityRange(options.qualityRangeLow, options.qualityRangeHigh);
  evaluator.score.unseenCost = options.unseenCost;
  minSpacing = options.minSpacing;

  rng.seed(options.annealSeed ? *options.annealSeed : clockSeed());
  pickLow = static_cast<int32_t>(model->immutableCount);
  pickHigh = static_cast<int32_t>(model->points.size()) - 1;
  inverseStartTemperature = 1.0 / annealStartTemperature;
}

Annealer::~Annealer() = default;

double Annealer::scoreStart() {
  if (useReferenceScore) {
    fastScorer.reset();
    return evaluator.scorePlacement();
  }
  // A trial moves one sensor; the scorer keeps what the others contribute.
  fastScorer = std::make_unique<FastScorer>(evaluator, *pool);
  return fastScorer->scoreAll();
}

bool acceptTrial(double current, double next, double T, std::mt19937& acceptance) {
  if (!(next > current)) return true;
  const double u = drawUnitDouble(acceptance);
  const double p = std::exp((current - next) / T);
  return p >= u;
}

double annealDuration(int32_t trialsPerTemperature, double coolingRate) {
  return std::log(annealEndTemperature / annealStartTemperature) * trialsPerTemperature / std::log(coolingRate);
}

void Annealer::takeSnapshot(Constellation& result) {
  if (!firstSnapshot && progress != nullptr) {
    writeDots();
    *progress << "(" << currentScore << ")";
  }
  bestScore = currentScore;
  firstSnapshot = false;

  const size_t count = model->points.size();
  result.modelCad.clear();
  result.channelMap.resize(count);
  result.modelPoints.resize(count);
  result.modelNormals.resize(count);
  for (size_t i = 0; i < count; ++i) {
    result.channelMap[i] = static_cast<int32_t>(i);
    result.modelPoints[i] = model->points[i].cast<float>();
    result.modelNormals[i] = model->normals[i].cast<float>();
  }
  result.valid = true;
  bestPoints = model->points;
  bestNormals = model->normals;
}

void Annealer::runTrial(double T, double& best, double& current, std::mt19937& acceptance, Constellation& result) {
  if (progress != nullptr && ++pendingDots >= kDotsPerWrite) writeDots();
  pickedSensor = drawInteger(rng, pickLow, pickHigh);
  Eigen::Vector3d& point = model->points[pickedSensor];
  Eigen::Vector3d& normal = model->normals[pickedSensor];
  savedPoint = point;
  savedNormal = normal;

  Eigen::Vector3f movedPoint = point.cast<float>();
  Eigen::Vector3f movedNormal = normal.cast<float>();
  moveSensor(movedPoint, movedNormal, T);
  point = movedPoint.cast<double>();
  normal = movedNormal.cast<double>();

  currentScore = fastScorer ? fastScorer->scoreMove(pickedSensor) : evaluator.scorePlacement();
  const double next = currentScore;
  // Written so that a not-a-number score counts as a new best.
  if (!(next >= best)) {
    takeSnapshot(result);
    best = next;
  }

  const bool accepted = acceptTrial(current, next, T, acceptance);
  if (accepted) {
    current = next;
    if (fastScorer) fastScorer->accept();
  } else {
    point = savedPoint;
    normal = savedNormal;
    if (fastScorer) fastScorer->reject();
  }
  if (trialObserver) trialObserver(pickedSensor, next, accepted);
}

void Annealer::writeDots() {
  if (pendingDots == 0 || progress == nullptr) return;
  static const std::string dots(kDotsPerWrite, '.');
  progress->write(dots.data(), pendingDots);
  pendingDots = 0;
}

void Annealer::anneal(Constellation& result) {
  // The workers wait through the short serial part of each trial.
  WorkerPool::KeepAwake awake(*pool);
  std::mt19937 acceptance(acceptanceSeed);
  takeSnapshot(result);
  currentScore = scoreStart();
  double best = currentScore;
  double current = currentScore;
  // The snapshot above was taken before any score existed; give it the
  // starting score, so that a run in which no trial improves reports the
  // score of the placement it returns.
  bestScore = currentScore;

  // With every sensor fixed there is nothing to move.
  if (pickLow > pickHigh) {
    finishAnneal();
    return;
  }
  // Written as >= so that a not-a-number rate ends after one level.
  for (double T = annealStartTemperature; T >= annealEndTemperature; T *= coolingRate) {
    for (int32_t trial = 0; trial < trialsPerTemperature; ++trial) {
      if (stopRequest != nullptr && stopRequest->load(std::memory_order_relaxed)) {
        finishAnneal();
        return;
      }
      runTrial(T, best, current, acceptance, result);
    }
  }
  finishAnneal();
}

void Annealer::finishAnneal() {
  writeDots();
  reportReferenceBest();
}

void Annealer::reportReferenceBest() {
  if (!fastScorer) return;
  // The fast score differs from scorePlacement in the last digits; the score
  // reported with the design is the latter's value for the placement
  // returned, as a search on scorePlacement alone reports it.
  std::swap(model->points, bestPoints);
  std::swap(model->normals, bestNormals);
  bestScore = evaluator.scorePlacement();
  std::swap(model->points, bestPoints);
  std::swap(model->normals, bestNormals);
}

Status runAnnealer(AnnealerOptions& options, Constellation& result) {
  std::unique_ptr<SensorModel> model = makeEmptySensorModel(options.nSensors);
  model->cosMaxIncidence = std::cos(options.maxIncidenceDegrees * kRadiansPerDegree);

  if (options.immutableModel) {
    // The run preparation refuses more fixed sensors than the count; should
    // it happen anyway, the surplus is dropped rather than written past the
    // end.
    const size_t fixed = std::min(options.immutableModel->points.size(), model->points.size());
    for (size_t i = 0; i < fixed; ++i) {
      model->points[i] = options.immutableModel->points[i];
      model->normals[i] = options.immutableModel->normals[i];
    }
    model->immutableCount = fixed;
  }

  if (Status placed = placeInitialSensors(options, *model); !placed) return placed;

  Annealer annealer(*model, options);
  if (!annealer.setup) return annealer.setup;
  annealer.useReferenceScore = options.useReferenceScore;
  annealer.trialObserver = options.trialObserver;
  if (options.progress != nullptr)
    *options.progress << "anneal duration: " << annealDuration(annealer.trialsPerTemperature, options.coolingRate)
                      << "\n";
  try {
    annealer.anneal(result);
  } catch (const std::bad_alloc&) {
    // The scorer's tables grow with the orientations and are made before the
    // first trial; a count the machine cannot hold ends here.
    return Status::failure("Not enough memory to search " + std::to_string(options.nSensors) + " sensors over " +
                           std::to_string(options.nOrientations) + " orientations");
  }
  options.finalQualityScore = annealer.bestScore;
  return Status();
}

}  // namespace sensorlay
