#include "search/annealer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "common/random_draws.h"
#include "common/worker_pool.h"
#include "surface/tracked_surface.h"
#include "tests/support/score_runs.h"
#include "tests/support/surface_fixtures.h"

namespace sensorlay {
namespace {

using testing::Mesh;

struct SurfaceFixture {
  testing::TempDir dir;
  std::unique_ptr<TrackedSurface> surface;
  WorkerPool pool{2};
  explicit SurfaceFixture(const Mesh& mesh, uint32_t seed = 7, const Mesh& obstacle = {})
      : surface(testing::buildSurface(dir, mesh, obstacle, seed)) {}
  AnnealerOptions options(int32_t nSensors) { return AnnealerOptions(*surface, nSensors, pool); }
};

AnnealerOptions quickOptions(SurfaceFixture& fixture, int32_t nSensors) {
  AnnealerOptions options = fixture.options(nSensors);
  options.nOrientations = 30;
  options.nIterations = 2;
  options.coolingRate = 0.5;
  options.annealSeed = 11;
  return options;
}

// Runs the search and yields what it told of its progress.
std::string anneal(AnnealerOptions& options, Constellation& result) {
  std::ostringstream progress;
  options.progress = &progress;
  runAnnealer(options, result);
  options.progress = nullptr;
  return progress.str();
}

// The trials run, counted by their dots after the duration line, leaving out
// the decimal points of the "(score)" prints.
size_t trialDots(const std::string& err) {
  const std::string trials =
      std::regex_replace(err.substr(err.find('\n', err.find("anneal duration: "))), std::regex("\\([^)]*\\)"), "");
  return static_cast<size_t>(std::count(trials.begin(), trials.end(), '.'));
}

// The score of a placement recomputed from scratch with the search's settings.
double scoreOf(const Constellation& placement, TrackedSurface& surface, int nOrientations) {
  SensorModel model(placement, ModelTransform());
  model.cosMaxIncidence = std::cos(60.0 * 0.017453292519943295);
  return testing::freshScore(&model, &surface, nOrientations);
}

// Levels are the temperatures 100 x rate^k at or above 0.035. One orientation
// (the sample that never sees a sensor) makes every score 1000, so nothing
// improves and the reported score is the starting one.
TEST(AnnealSchedule, LevelsDurationAndProgress) {
  SurfaceFixture fixture(testing::shellBox());
  struct Case {
    double rate;
    size_t levels;
    std::string duration;
  };
  for (const Case& c :
       {Case{0.96, 195, "389.867"}, Case{0.0, 1, "0"}, Case{0.5, 12, "22.9607"}, Case{std::nan(""), 1, "nan"}}) {
    SCOPED_TRACE(c.rate);
    AnnealerOptions options = fixture.options(2);
    options.nOrientations = 1;
    options.nIterations = 1;
    options.coolingRate = c.rate;
    Constellation result;
    const std::string err = anneal(options, result);
    EXPECT_EQ(trialDots(err), c.levels * 2);
    const size_t at = err.find("anneal duration: ") + 17;
    EXPECT_NE(err.substr(at, err.find('\n', at) - at).find(c.duration), std::string::npos);
    EXPECT_EQ(err.find('('), std::string::npos);
    EXPECT_NE(err.back(), '\n');
    EXPECT_EQ(options.finalQualityScore, 1000.0);
  }
}

// Fixed seeds give the same search; the score reported is that of the
// placement returned, and the improvements printed fall to it. With no trial
// at all the starting placement and its score are reported.
TEST(Annealer, ReproducibleAndScoredAsReturned) {
  SurfaceFixture first(testing::shellBox(), 33), second(testing::shellBox(), 33);
  AnnealerOptions a = quickOptions(first, 5), b = quickOptions(second, 5);
  Constellation ra, rb;
  const std::string err = anneal(a, ra);
  EXPECT_EQ(anneal(b, rb), err);
  EXPECT_EQ(ra.modelPoints, rb.modelPoints);
  EXPECT_EQ(ra.modelNormals, rb.modelNormals);
  EXPECT_LT(a.finalQualityScore, 1000.0);
  EXPECT_EQ(scoreOf(ra, *first.surface, 30), a.finalQualityScore);

  std::vector<double> printed;
  const std::regex improvement("\\(([^)]*)\\)");
  for (std::sregex_iterator it(err.begin(), err.end(), improvement), end; it != end; ++it)
    printed.push_back(std::stod((*it)[1]));
  ASSERT_FALSE(printed.empty());
  EXPECT_TRUE(std::is_sorted(printed.rbegin(), printed.rend()));
  EXPECT_NEAR(printed.back(), a.finalQualityScore, a.finalQualityScore * 1e-5);

  SurfaceFixture third(testing::shellBox(), 44);
  AnnealerOptions none = quickOptions(third, 4);
  none.nIterations = 0;
  Constellation start;
  EXPECT_EQ(trialDots(anneal(none, start)), 0u);
  EXPECT_EQ(scoreOf(start, *third.surface, 30), none.finalQualityScore);

  // A stop request, read before each trial, ends the search with the best
  // placement so far and its score.
  SurfaceFixture fourth(testing::shellBox(), 33);
  AnnealerOptions stopped = quickOptions(fourth, 5);
  std::atomic<bool> stop{true};
  stopped.stopRequest = &stop;
  Constellation early;
  EXPECT_EQ(trialDots(anneal(stopped, early)), 0u);
  EXPECT_EQ(scoreOf(early, *fourth.surface, 30), stopped.finalQualityScore);
  EXPECT_GT(stopped.finalQualityScore, a.finalQualityScore);
}

// The least distance between two sensors of the model.
double closestPair(const SensorModel& model) {
  double closest = INFINITY;
  for (size_t i = 0; i < model.points.size(); ++i)
    for (size_t j = 0; j < i; ++j) closest = std::min(closest, (model.points[i] - model.points[j]).norm());
  return closest;
}

TEST(AnnealSpacing, FirstPlacementAndEveryMoveKeepItUntilItCannotBeKept) {
  // Ten sensors 4 cm apart on a 12 x 8 x 6 cm box: crowded enough that many
  // draws miss, loose enough to succeed.
  SurfaceFixture fixture(testing::shellBox(), 5);
  AnnealerOptions options = quickOptions(fixture, 10);
  options.minSpacing = 0.04;
  auto model = makeEmptySensorModel(10);
  model->cosMaxIncidence = 0.5;
  ASSERT_TRUE(placeInitialSensors(options, *model).ok());
  EXPECT_GE(closestPair(*model), 0.04);

  Annealer annealer(*model, options);
  for (int trial = 0; trial < 300; ++trial) {
    annealer.pickedSensor = trial % 10;
    Eigen::Vector3f point = model->points[trial % 10].cast<float>(), normal = model->normals[trial % 10].cast<float>();
    annealer.moveSensor(point, normal, trial % 2 ? 100.0 : 0.1);
    model->points[trial % 10] = point.cast<double>();
    model->normals[trial % 10] = normal.cast<double>();
    ASSERT_GE(closestPair(*model), 0.04) << "trial " << trial;
  }

  // No room for three sensors 20 cm apart: the search fails before any
  // trial, naming the spacing.
  AnnealerOptions crowded = quickOptions(fixture, 3);
  crowded.minSpacing = 0.2;
  Constellation result;
  const Status status = runAnnealer(crowded, result);
  ASSERT_FALSE(status.ok());
  EXPECT_NE(status.message().find("keeps 200 mm from the sensors before it in 2000 draws"), std::string::npos)
      << status.message();
  EXPECT_FALSE(result.valid);
}

}  // namespace
}  // namespace sensorlay
