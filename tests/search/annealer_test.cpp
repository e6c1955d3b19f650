#include "search/annealer.h"

#include <gtest/gtest.h>

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

// A box of 12 x 8 x 6 cm, in metres.
Mesh testBox() { return testing::boxMesh({-0.06f, -0.04f, -0.03f}, {0.06f, 0.04f, 0.03f}, 4); }

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
  SurfaceFixture fixture(testBox());
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

TEST(AnnealSchedule, MetropolisRuleOnTheFixedSequence) {
  std::mt19937 acceptance(5489);
  // Not worse, and not-a-number: kept without a draw.
  EXPECT_TRUE(acceptTrial(50.0, 50.0, 1.0, acceptance));
  EXPECT_TRUE(acceptTrial(50.0, std::nan(""), 1.0, acceptance));
  EXPECT_EQ(acceptance, std::mt19937(5489));
  // The first draw of seed 5489 takes two outputs, the second one high.
  const double u = (3499211612.0 + 581869302.0 * 4294967296.0) / 18446744073709551616.0;
  std::mt19937 g1(5489), g2(5489), two(5489);
  two.discard(2);
  EXPECT_TRUE(acceptTrial(10.0, 10.0 - 100.0 * std::log(u) * 0.999, 100.0, g1));
  EXPECT_FALSE(acceptTrial(10.0, 10.0 - 100.0 * std::log(u) * 1.001, 100.0, g2));
  EXPECT_EQ(g1, two);
  EXPECT_EQ(g2, two);
}

// Fixed sensors keep their places; the others lie on the surface, have room
// there and, with no surface angle, carry a face normal.
TEST(Annealer, PlacementsAreValidAndFixedSensorsStay) {
  SurfaceFixture fixture(testBox(), 9, testing::boxMesh({-0.02f, -0.02f, 0.03f}, {0.02f, 0.02f, 0.07f}));
  Constellation fixed;
  fixed.channelMap = {10, 11};
  fixed.modelPoints = {{0.03f, 0.0f, 0.03f}, {0.06f, 0.0f, 0.0f}};
  fixed.modelNormals = {{0, 0, 1}, {1, 0, 0}};
  SensorModel fixedModel(fixed, ModelTransform());
  AnnealerOptions options = quickOptions(fixture, 6);
  options.immutableModel = &fixedModel;
  Constellation result;
  anneal(options, result);

  EXPECT_EQ(result.channelMap, (std::vector<int32_t>{0, 1, 2, 3, 4, 5}));
  ASSERT_EQ(result.modelPoints.size(), 6u);
  const std::vector<Eigen::Vector3f> axes = {{1, 0, 0}, {-1, 0, 0}, {0, 1, 0}, {0, -1, 0}, {0, 0, 1}, {0, 0, -1}};
  for (size_t i = 0; i < 6; ++i) {
    const Eigen::Vector3f &p = result.modelPoints[i], &n = result.modelNormals[i];
    if (i < 2) {
      EXPECT_EQ(p, fixed.modelPoints[i]);
      EXPECT_EQ(n, fixed.modelNormals[i]);
      continue;
    }
    EXPECT_TRUE(fixture.surface->isOnSurface(p, n) && fixture.surface->sensorFits(p, n)) << p.transpose();
    EXPECT_NE(std::find(axes.begin(), axes.end(), n), axes.end()) << n.transpose();
  }
}

// Replays the start on a twin surface of the same seed: each free sensor is
// the candidate of 20 whose nearest earlier sensor, fixed ones included, is
// farthest.
TEST(PlaceInitialSensors, BestCandidateCountsFixedSensors) {
  SurfaceFixture fixture(testBox(), 21), twin(testBox(), 21);
  auto model = makeEmptySensorModel(5);
  model->points[0] = Eigen::Vector3d(0.0, 0.0, 0.03);
  model->points[1] = Eigen::Vector3d(0.0, 0.0, -0.03);
  model->immutableCount = 2;
  placeInitialSensors(fixture.options(5), *model);

  std::vector<Eigen::Vector3d> placed = {model->points[0], model->points[1]};
  for (size_t i = 2; i < 5; ++i) {
    double best = 0.0;
    Eigen::Vector3f bestPoint, p, n;
    for (int c = 0; c < 20; ++c) {
      twin.surface->randomPlacement(p, n);
      double nearest = 9999.0;
      for (const Eigen::Vector3d& q : placed) nearest = std::min(nearest, (p.cast<double>() - q).norm());
      if (nearest > best) best = nearest, bestPoint = p;
    }
    EXPECT_EQ(model->points[i], bestPoint.cast<double>()) << i;
    placed.push_back(bestPoint.cast<double>());
  }
}

// A triangle one float step wide: every drawn point rounds onto a corner.
// The first sensor of an empty model takes the first of its 20 draws; with
// fixed sensors on all three corners every candidate lies at distance 0, and
// the free sensor takes the last of its 20 draws.
TEST(PlaceInitialSensors, FirstDrawForTheFirstSensorLastDrawWhenAllTie) {
  const Eigen::Vector3f a(2.0f, 2.0f, 0.0f);
  const float step = std::nextafter(2.0f, 3.0f) - 2.0f;
  const Eigen::Vector3f corners[3] = {a, a + Eigen::Vector3f(step, 0, 0), a + Eigen::Vector3f(0, step, 0)};
  const Mesh sliver = {testing::Triangle{corners[0], corners[1], corners[2], Eigen::Vector3f(0, 0, 1)}};
  SurfaceFixture fixture(sliver, 5), twin(sliver, 5);
  fixture.surface->setMaxSurfaceAngle(30.0);  // tilted normals tell the draws apart
  twin.surface->setMaxSurfaceAngle(30.0);
  std::vector<Eigen::Vector3f> normals(40);
  Eigen::Vector3f p;
  for (Eigen::Vector3f& n : normals) twin.surface->randomPlacement(p, n);
  ASSERT_NE(normals[0], normals[19]);

  const AnnealerOptions options = fixture.options(4);
  auto first = makeEmptySensorModel(1);
  placeInitialSensors(options, *first);
  EXPECT_EQ(first->normals[0], normals[0].cast<double>());

  auto model = makeEmptySensorModel(4);
  for (int i = 0; i < 3; ++i) model->points[i] = corners[i].cast<double>();
  model->immutableCount = 3;
  placeInitialSensors(options, *model);
  EXPECT_EQ(model->normals[3], normals[39].cast<double>());
  EXPECT_EQ(fixture.surface->generator, twin.surface->generator);
}

// Fixed seeds give the same search; the score reported is that of the
// placement returned, and the improvements printed fall to it. With no trial
// at all the starting placement and its score are reported.
TEST(Annealer, ReproducibleAndScoredAsReturned) {
  SurfaceFixture first(testBox(), 33), second(testBox(), 33);
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

  SurfaceFixture third(testBox(), 44);
  AnnealerOptions none = quickOptions(third, 4);
  none.nIterations = 0;
  Constellation start;
  EXPECT_EQ(trialDots(anneal(none, start)), 0u);
  EXPECT_EQ(scoreOf(start, *third.surface, 30), none.finalQualityScore);
}

}  // namespace
}  // namespace sensorlay
