#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "common/random_draws.h"
#include "quality/coverage_evaluator.h"
#include "quality/score_scratch.h"
#include "surface/tracked_surface.h"
#include "tests/support/allocation_counter.h"
#include "tests/support/meshes.h"
#include "tests/support/run_binary.h"
#include "tests/support/score_runs.h"

namespace sensorlay {
namespace {

using testing::attach;
using testing::makeSensorModel;
using testing::makeSphereSensors;

TEST(Score, NothingVisibleAndTheWeights) {
  // Sensors the incidence limit never passes: 1000 exactly.
  auto model = makeSphereSensors(12, 0.08f);
  model->cosMaxIncidence = 1.0;
  CoverageEvaluator evaluator;
  attach(evaluator, model.get());
  evaluator.sampleOrientations(1250);
  EXPECT_EQ(evaluator.scorePlacement(), 1000.0);
  EXPECT_EQ(evaluator.observations->everVisible, std::vector<bool>(12, false));

  // Weight 0 or below skips a sample; any other leaves an unseen one at 2.0.
  evaluator.sampleOrientations(6);
  const double weights[6] = {0.0, -1.0, 5.0, 0.25, 1.0, 3.0};
  for (size_t i = 0; i < 6; ++i) evaluator.score.samples[i].weight = weights[i];
  EXPECT_EQ(evaluator.scorePlacement(), 2.0 * 4 * 500.0 / 6);
  evaluator.sampleOrientations(0);
  EXPECT_TRUE(std::isnan(evaluator.scorePlacement()));  // 0 times an infinite scale

  // Planes tilted so steeply that they reach no sensor: the Jacobian fails,
  // J stays 0, and every sample ends as not-a-number, at 2.0.
  model->cosMaxIncidence = 0.5;
  evaluator.stationConfig = {StationKind::TiltedRotor, 1.5707963};
  evaluator.rebuildObservations();
  evaluator.sampleOrientations(100);
  EXPECT_EQ(evaluator.scorePlacement(), 1000.0);

  // A black quality map weighs every sample 0.
  testing::TempDir dir;
  testing::writeFile(dir.file("black.pgm"), "P5\n4 2\n255\n" + std::string(8, '\0'));
  evaluator.loadQualityMap(dir.file("black.pgm"));
  evaluator.sampleOrientations(200);
  EXPECT_EQ(evaluator.scorePlacement(), 0.0);
}

TEST(Score, TheSurfaceHidesSensorsBehindObstacles) {
  // A 10 cm cube with five sensors on its +Z face. A plate 2 m wide 45 cm
  // above them hides them from every direction the 60 degree limit allows
  // (it reaches at most 0.45 tan 60 = 0.78 m sideways there).
  testing::TempDir dir;
  testing::writeStlBinary(dir.file("cube.stl"), testing::cubeMesh(0.1f, 2));
  testing::writeStlBinary(dir.file("plate.stl"), testing::plateMesh(2.0f, 0.5f));
  const std::vector<Eigen::Vector3f> points = {
      {0, 0, 0.05f}, {0.03f, 0.03f, 0.05f}, {-0.03f, 0.03f, 0.05f}, {-0.03f, -0.03f, 0.05f}, {0.03f, -0.02f, 0.05f}};
  const std::vector<Eigen::Vector3f> up(5, Eigen::Vector3f(0, 0, 1));
  auto model = makeSensorModel(points, up);
  TrackedSurface bare(dir.file("cube.stl"), {}), covered(dir.file("cube.stl"), {dir.file("plate.stl")});
  ASSERT_GT(covered.faceCount(), 0u);

  const double open = testing::freshScore(model.get(), nullptr, 300);
  EXPECT_LT(open, 1000.0);
  // A convex body never hides a sensor that faces the station.
  EXPECT_EQ(testing::freshScore(model.get(), &bare, 300), open);
  EXPECT_EQ(testing::freshScore(model.get(), &covered, 300), 1000.0);
}

// The score runs for every annealing trial over every sample and sensor; once
// its buffers exist it must not allocate.
TEST(Score, RepeatedScoresAllocateNothing) {
  if (!testing::allocationCountingAvailable()) GTEST_SKIP() << "the allocator is not ours to count";
  ASSERT_GT(testing::countAllocations([] { delete new std::vector<int>(100); }), 0);  // the counter works
  testing::TempDir dir;
  testing::writeStlBinary(dir.file("sphere.stl"), testing::sphereMesh(0.08f, 24, 32));
  testing::writeStlBinary(dir.file("wall.stl"), testing::plateMesh(0.3f, 0.12f));
  TrackedSurface surface(dir.file("sphere.stl"), {dir.file("wall.stl")});
  // 20 sensors give views of a dozen or so, ray-cast against the surface; 40
  // seen at once exceed the 32 that the noise model has rows for.
  auto twenty = makeSphereSensors(20, 0.0805f), forty = makeSphereSensors(40, 0.0805f);
  twenty->cosMaxIncidence = 0.2;
  forty->cosMaxIncidence = -1.0;
  for (auto [model, occluder] :
       {std::pair<SensorModel*, const TrackedSurface*>{twenty.get(), &surface}, {forty.get(), nullptr}}) {
    CoverageEvaluator evaluator;
    attach(evaluator, model, occluder);
    evaluator.sampleOrientations(200);
    double first = evaluator.scorePlacement(), second = 0.0;  // the first makes the buffers
    EXPECT_EQ(testing::countAllocations([&] { second = evaluator.scorePlacement(); }), 0) << model->sensorCount();
    EXPECT_EQ(first, second);
    EXPECT_TRUE(model == forty.get() ? first == 1000.0 : first > 0.0 && first < 1000.0) << first;
  }
}

// The fixed-size covariance of small views gives informationInverse's
// diagonal bit for bit: for solvable views of three sensors, for the singular
// views of one and two, whose rounding decides between an infinite, a huge and
// a not-a-number variance, and for rows with the zeros of real sweep rows, of
// mixed scales and of sensors seen from almost the same place.
TEST(Score, SmallViewCovarianceIsTheReferenceBitForBit) {
  const Eigen::MatrixXd W = angleNoiseInformation();
  ScoreScratch scratch;
  std::mt19937 draws(11);
  int notNumbers = 0, infinite = 0;
  for (int t = 0; t < 30000; ++t) {
    const int rows = 2 * (1 + t % 3), kind = t / 3 % 4;
    scratch.jacobian.setZero(rows, 6);
    for (int r = 0; r < rows; ++r)
      for (int c = 0; c < 6; ++c) {
        double v = drawUnitDouble(draws) * 2.0 - 1.0;
        if (kind == 1 && ((c == 1 && r % 2 == 0) || (c == 0 && r % 2 == 1))) v = 0.0;
        if (kind == 2) v = std::ldexp(v, static_cast<int>(draws() % 40) - 20);
        if (kind == 3 && r >= 2) v = scratch.jacobian(r - 2, c) * (1.0 + 1e-12 * v);
        scratch.jacobian(r, c) = v;
      }
    informationInverse(W, scratch, rows);
    double diagonal[6];
    covarianceDiagonal(W, scratch.jacobian.data(), rows, diagonal);
    for (int i = 0; i < 6; ++i) {
      const double expected = scratch.covariance(i, i);
      notNumbers += std::isnan(expected) ? 1 : 0;
      infinite += std::isinf(expected) ? 1 : 0;
      if (std::isnan(expected))
        ASSERT_TRUE(std::isnan(diagonal[i])) << t;
      else
        ASSERT_EQ(std::memcmp(&expected, &diagonal[i], sizeof expected), 0) << t << " " << i;
    }
  }
  EXPECT_GT(notNumbers, 1000);
  EXPECT_GT(infinite, 100);
}

}  // namespace
}  // namespace sensorlay
