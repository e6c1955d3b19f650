#include "search/annealer.h"

#include <gtest/gtest.h>

#include <cmath>
#include <regex>
#include <string>
#include <vector>

#include "surface/random_draws.h"
#include "surface/tracked_surface.h"
#include "tests/support/meshes.h"
#include "tests/support/run_binary.h"

namespace sensorlay {
namespace {

using testing::Mesh;

// A box of 12 x 8 x 6 cm, in metres, fine enough for rays and fits.
Mesh testBox() { return testing::boxMesh({-0.06f, -0.04f, -0.03f}, {0.06f, 0.04f, 0.03f}, 4); }

struct SurfaceFixture {
  testing::TempDir dir;
  std::unique_ptr<TrackedSurface> surface;

  explicit SurfaceFixture(const Mesh& mesh, uint32_t seed = 7, const Mesh& obstacle = {}) {
    testing::writeStlBinary(dir.file("surface.stl"), mesh);
    std::vector<std::string> obstacles;
    if (!obstacle.empty()) {
      testing::writeStlBinary(dir.file("obstacle.stl"), obstacle);
      obstacles.push_back(dir.file("obstacle.stl"));
    }
    surface = std::make_unique<TrackedSurface>(dir.file("surface.stl"), obstacles);
    surface->setSensorSize(0.006);
    surface->seedGenerator(seed);
  }
};

AnnealerOptions quickOptions(TrackedSurface& surface, int32_t nSensors) {
  AnnealerOptions options(surface, nSensors);
  options.nOrientations = 30;
  options.nIterations = 2;
  options.coolingRate = 0.5;
  options.annealSeed = 11;
  return options;
}

size_t countChar(const std::string& text, char c) { return static_cast<size_t>(std::count(text.begin(), text.end(), c)); }

// The trials of a run as counted by their progress dots: those after the
// duration line, leaving out the decimal points of the "(score)" prints.
size_t trialDots(const std::string& err) {
  const size_t start = err.find('\n', err.find("anneal duration: "));
  const std::string trials = std::regex_replace(err.substr(start + 1), std::regex("\\([^)]*\\)"), "");
  return countChar(trials, '.');
}

// The value printed on the "anneal duration: " line.
std::string durationText(const std::string& err) {
  const size_t start = err.find("anneal duration: ");
  if (start == std::string::npos) return "missing";
  return err.substr(start + 17, err.find('\n', start) - start - 17);
}

std::unique_ptr<SensorModel> modelOf(const std::vector<Eigen::Vector3f>& points,
                                     const std::vector<Eigen::Vector3f>& normals) {
  Constellation c;
  c.valid = true;
  for (size_t i = 0; i < points.size(); ++i) c.channelMap.push_back(static_cast<int32_t>(10 + i));
  c.modelPoints = points;
  c.modelNormals = normals;
  return std::make_unique<SensorModel>(c, ModelTransform());
}

TEST(AnnealSchedule, ConstantsAndDuration) {
  EXPECT_EQ(annealStartTemperature, 100.0);
  EXPECT_DOUBLE_EQ(annealEndTemperature, 0.035);
  EXPECT_DOUBLE_EQ(std::log(annealEndTemperature / annealStartTemperature), -7.957577403480815);
  EXPECT_NEAR(annealDuration(60, 0.96), 11696.0146, 1e-3);
  EXPECT_EQ(annealDuration(60, 0.0), 0.0);
  EXPECT_TRUE(std::isnan(annealDuration(60, -0.5)));
}

// The number of trials run is levels x sensors x iterations; a level is a
// temperature 100 x rate^k at or above 0.035. With one orientation (the
// sample that never sees a sensor) every score is 1000, so nothing improves.
TEST(AnnealSchedule, LevelsTrialsAndProgress) {
  SurfaceFixture fixture(testBox());
  struct Case {
    double rate;
    size_t levels;
    std::string duration;
  };
  for (const Case& c : {Case{0.96, 195, "389.867"}, Case{0.0, 1, "0"}, Case{0.5, 12, "22.9607"},
                        Case{-0.5, 1, "nan"}, Case{std::nan(""), 1, "nan"}}) {
    AnnealerOptions options(*fixture.surface, 2);
    options.nOrientations = 1;
    options.nIterations = 1;
    options.coolingRate = c.rate;
    options.annealSeed = 3;
    Constellation result;
    ::testing::internal::CaptureStderr();
    runAnnealer(options, result);
    const std::string err = ::testing::internal::GetCapturedStderr();
    SCOPED_TRACE(c.rate);
    EXPECT_EQ(trialDots(err), c.levels * 2);
    if (c.duration == "nan")
      EXPECT_NE(durationText(err).find("nan"), std::string::npos) << durationText(err);
    else
      EXPECT_EQ(durationText(err), c.duration);
    EXPECT_EQ(err.find('('), std::string::npos) << "no trial can improve on a constant score";
    EXPECT_NE(err.back(), '\n') << "the last dot is not followed by a line end";
    EXPECT_EQ(options.finalQualityScore, 1000.0);
    EXPECT_EQ(result.channelMap, (std::vector<int32_t>{0, 1}));
  }
}

TEST(AnnealAcceptance, MetropolisRuleOnTheFixedSequence) {
  std::mt19937 reference(5489);
  // The first 64-bit draw of the standard seed: two outputs, the second high.
  const double u = drawUnitDouble(reference);
  EXPECT_NEAR(u, (3499211612.0 + 581869302.0 * 4294967296.0) / 18446744073709551616.0, 1e-17);

  std::mt19937 acceptance(5489);
  // Not worse, equal, and not-a-number: kept without a draw.
  EXPECT_TRUE(acceptTrial(50.0, 40.0, 1.0, acceptance));
  EXPECT_TRUE(acceptTrial(50.0, 50.0, 1.0, acceptance));
  EXPECT_TRUE(acceptTrial(50.0, std::nan(""), 1.0, acceptance));
  EXPECT_EQ(acceptance, std::mt19937(5489));

  // Worse by d at temperature T is kept when exp(-d / T) >= u.
  const double threshold = -std::log(u);  // d / T at which p equals u
  std::mt19937 g1(5489), g2(5489);
  EXPECT_TRUE(acceptTrial(0.0, threshold * 0.999, 1.0, g1));
  EXPECT_FALSE(acceptTrial(0.0, threshold * 1.001, 1.0, g2));
  std::mt19937 two(5489);
  two.discard(2);
  EXPECT_EQ(g1, two);
  EXPECT_EQ(g2, two);
  // The temperature scales the difference.
  std::mt19937 g3(5489);
  EXPECT_TRUE(acceptTrial(10.0, 10.0 + 100.0 * threshold * 0.999, 100.0, g3));
}

// Fixed sensors stay where they are and keep the first places; the result is
// renumbered from 0.
TEST(Annealer, FixedSensorsStayAndResultIsRenumbered) {
  SurfaceFixture fixture(testBox());
  const std::vector<Eigen::Vector3f> fixedPoints = {{0.0f, 0.0f, 0.03f}, {0.02f, 0.01f, -0.03f}, {0.06f, 0.0f, 0.0f}};
  const std::vector<Eigen::Vector3f> fixedNormals = {{0, 0, 1}, {0, 0, -1}, {1, 0, 0}};
  auto fixedModel = modelOf(fixedPoints, fixedNormals);

  AnnealerOptions options = quickOptions(*fixture.surface, 6);
  options.immutableModel = fixedModel.get();
  Constellation result;
  ::testing::internal::CaptureStderr();
  runAnnealer(options, result);
  ::testing::internal::GetCapturedStderr();

  ASSERT_TRUE(result.valid);
  EXPECT_EQ(result.channelMap, (std::vector<int32_t>{0, 1, 2, 3, 4, 5}));
  ASSERT_EQ(result.modelPoints.size(), 6u);
  for (size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(result.modelPoints[i], fixedPoints[i]);
    EXPECT_EQ(result.modelNormals[i], fixedNormals[i]);
  }
  EXPECT_TRUE(result.modelCad.empty());
}

// Replays the draws of the best-candidate start on a twin surface with the
// same seed: each free sensor must be the candidate of 20 whose nearest
// earlier sensor, fixed ones included, is farthest; the earlier one wins ties.
TEST(PlaceInitialSensors, BestCandidateCountsFixedSensors) {
  SurfaceFixture fixture(testBox(), 21), twin(testBox(), 21);
  auto model = makeEmptySensorModel(5);
  EXPECT_EQ(model->immutableCount, 0u);
  EXPECT_EQ(model->channels, (std::vector<int32_t>{0, 1, 2, 3, 4}));
  model->points[0] = Eigen::Vector3d(0.0, 0.0, 0.03);
  model->normals[0] = Eigen::Vector3d(0, 0, 1);
  model->points[1] = Eigen::Vector3d(0.0, 0.0, -0.03);
  model->normals[1] = Eigen::Vector3d(0, 0, -1);
  model->immutableCount = 2;

  AnnealerOptions options(*fixture.surface, 5);
  placeInitialSensors(options, *model);

  std::vector<Eigen::Vector3d> placed = {model->points[0], model->points[1]};
  for (size_t i = 2; i < 5; ++i) {
    double best = 0.0;
    Eigen::Vector3f bestPoint, bestNormal, p, n;
    for (int c = 0; c < 20; ++c) {
      twin.surface->randomPlacement(p, n);
      double nearest = 9999.0;
      for (const Eigen::Vector3d& q : placed) nearest = std::min(nearest, (p.cast<double>() - q).norm());
      if (nearest > best) {
        best = nearest;
        bestPoint = p;
        bestNormal = n;
      }
    }
    EXPECT_EQ(model->points[i], bestPoint.cast<double>()) << "sensor " << i;
    EXPECT_EQ(model->normals[i], bestNormal.cast<double>()) << "sensor " << i;
    placed.push_back(bestPoint.cast<double>());
  }
  // The fixed ones are untouched, and the free ones keep clear of them.
  EXPECT_EQ(model->points[0], Eigen::Vector3d(0.0, 0.0, 0.03));
  EXPECT_EQ(model->points[1], Eigen::Vector3d(0.0, 0.0, -0.03));

  // Nothing to place when all are fixed: no draw is made.
  model->immutableCount = 5;
  const std::mt19937 before = fixture.surface->generator;
  placeInitialSensors(options, *model);
  EXPECT_EQ(fixture.surface->generator, before);
}

// A triangle one float step wide: every drawn point rounds onto one of its
// corners. The first sensor of an empty model takes the first of its 20
// draws; with fixed sensors on all three corners, every candidate of a free
// sensor lies at distance 0, and it takes the last of its 20 draws.
TEST(PlaceInitialSensors, FirstSensorTakesTheFirstDrawAndTiesAtZeroTheLast) {
  const Eigen::Vector3f a(2.0f, 2.0f, 0.0f);
  const float step = std::nextafter(2.0f, 3.0f) - 2.0f;
  const Eigen::Vector3f b = a + Eigen::Vector3f(step, 0, 0), c = a + Eigen::Vector3f(0, step, 0);
  Mesh sliver = {testing::Triangle{a, b, c, Eigen::Vector3f(0, 0, 1)}};
  SurfaceFixture fixture(sliver, 5), twin(sliver, 5);
  // Tilted normals make the draws distinguishable.
  fixture.surface->setMaxSurfaceAngle(30.0);
  twin.surface->setMaxSurfaceAngle(30.0);
  AnnealerOptions options(*fixture.surface, 4);

  std::vector<Eigen::Vector3f> points, normals;
  Eigen::Vector3f p, n;
  for (int draw = 0; draw < 40; ++draw) {
    twin.surface->randomPlacement(p, n);
    ASSERT_TRUE(p == a || p == b || p == c) << p.transpose();
    points.push_back(p);
    normals.push_back(n);
  }
  ASSERT_NE(normals[0], normals[19]);
  ASSERT_NE(normals[39], normals[20]);

  auto first = makeEmptySensorModel(1);
  placeInitialSensors(options, *first);
  EXPECT_EQ(first->points[0], points[0].cast<double>());
  EXPECT_EQ(first->normals[0], normals[0].cast<double>());

  auto model = makeEmptySensorModel(4);
  const Eigen::Vector3f corners[3] = {a, b, c};
  for (int i = 0; i < 3; ++i) {
    model->points[i] = corners[i].cast<double>();
    model->normals[i] = Eigen::Vector3d(0, 0, 1);
  }
  model->immutableCount = 3;
  placeInitialSensors(options, *model);
  EXPECT_EQ(model->points[3], points[39].cast<double>());
  EXPECT_EQ(model->normals[3], normals[39].cast<double>());
  EXPECT_EQ(fixture.surface->generator, twin.surface->generator);
}

// Every placement the search returns is a real one: on the surface, with
// room for the sensor, and, with no surface angle allowed, on a face normal.
TEST(Annealer, PlacementsLieOnTheSurfaceAndFit) {
  const Mesh obstacle = testing::boxMesh({-0.02f, -0.02f, 0.03f}, {0.02f, 0.02f, 0.07f}, 1);
  SurfaceFixture fixture(testBox(), 9, obstacle);
  AnnealerOptions options = quickOptions(*fixture.surface, 5);
  options.nIterations = 4;
  Constellation result;
  ::testing::internal::CaptureStderr();
  runAnnealer(options, result);
  ::testing::internal::GetCapturedStderr();
  ASSERT_EQ(result.modelPoints.size(), 5u);
  const std::vector<Eigen::Vector3f> axes = {{1, 0, 0}, {-1, 0, 0}, {0, 1, 0}, {0, -1, 0}, {0, 0, 1}, {0, 0, -1}};
  for (size_t i = 0; i < 5; ++i) {
    const Eigen::Vector3f& p = result.modelPoints[i];
    const Eigen::Vector3f& n = result.modelNormals[i];
    EXPECT_TRUE(fixture.surface->isOnSurface(p, n)) << i;
    EXPECT_TRUE(fixture.surface->sensorFits(p, n)) << i;
    EXPECT_NE(std::find(axes.begin(), axes.end(), n), axes.end()) << n.transpose();
  }

  // With a surface angle the normal leans at most that far from its face.
  SurfaceFixture tilted(testBox(), 10);
  tilted.surface->setMaxSurfaceAngle(25.0);
  AnnealerOptions tiltedOptions = quickOptions(*tilted.surface, 5);
  ::testing::internal::CaptureStderr();
  runAnnealer(tiltedOptions, result);
  ::testing::internal::GetCapturedStderr();
  bool anyTilted = false;
  for (size_t i = 0; i < 5; ++i) {
    const Eigen::Vector3f& n = result.modelNormals[i];
    EXPECT_NEAR(n.norm(), 1.0f, 1e-5f);
    EXPECT_GE(n.cwiseAbs().maxCoeff(), std::cos(25.0f * 3.14159265f / 180.0f) - 1e-5f);
    anyTilted = anyTilted || n.cwiseAbs().maxCoeff() < 0.9999f;
    EXPECT_TRUE(tilted.surface->isOnSurface(result.modelPoints[i], n));
  }
  EXPECT_TRUE(anyTilted);
}

// Fixed seeds give the same search; the score is that of the returned
// placement, and the improvements printed fall to it.
TEST(Annealer, ReproducibleAndScoredAsReturned) {
  SurfaceFixture first(testBox(), 33), second(testBox(), 33);
  AnnealerOptions a = quickOptions(*first.surface, 5);
  AnnealerOptions b = quickOptions(*second.surface, 5);
  Constellation ra, rb;
  ::testing::internal::CaptureStderr();
  runAnnealer(a, ra);
  const std::string err = ::testing::internal::GetCapturedStderr();
  ::testing::internal::CaptureStderr();
  runAnnealer(b, rb);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), err);
  EXPECT_EQ(ra.modelPoints, rb.modelPoints);
  EXPECT_EQ(ra.modelNormals, rb.modelNormals);
  EXPECT_EQ(a.finalQualityScore, b.finalQualityScore);
  EXPECT_LT(a.finalQualityScore, 1000.0);

  // The score of the returned placement, recomputed from scratch.
  SensorModel model(ra, ModelTransform());
  model.cosMaxIncidence = std::cos(a.maxIncidenceDegrees * 0.017453292519943295);
  CoverageEvaluator evaluator;
  evaluator.model = &model;
  evaluator.rebuildObservations();
  evaluator.surface = first.surface.get();
  evaluator.rebuildObservations();
  ::testing::internal::CaptureStderr();
  evaluator.sampleOrientations(a.nOrientations);
  ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(evaluator.scorePlacement(), a.finalQualityScore);

  // Improvements are printed in parentheses, each lower than the one before.
  std::vector<double> printed;
  const std::regex improvement("\\(([^)]*)\\)");
  for (std::sregex_iterator it(err.begin(), err.end(), improvement), end; it != end; ++it)
    printed.push_back(std::stod((*it)[1]));
  ASSERT_FALSE(printed.empty());
  for (size_t i = 1; i < printed.size(); ++i) EXPECT_LT(printed[i], printed[i - 1]);
  EXPECT_NEAR(printed.back(), a.finalQualityScore, a.finalQualityScore * 1e-5);

  // Another trial seed takes another walk.
  SurfaceFixture third(testBox(), 33);
  AnnealerOptions c = quickOptions(*third.surface, 5);
  c.annealSeed = 12;
  Constellation rc;
  ::testing::internal::CaptureStderr();
  runAnnealer(c, rc);
  ::testing::internal::GetCapturedStderr();
  EXPECT_NE(rc.modelPoints, ra.modelPoints);
}

// When no trial beats the start (here: no trial at all), the score reported
// is the starting placement's, which is also the placement returned.
TEST(Annealer, NoImprovementReportsTheStartingScore) {
  SurfaceFixture fixture(testBox(), 44);
  AnnealerOptions options = quickOptions(*fixture.surface, 4);
  options.nIterations = 0;
  Constellation result;
  ::testing::internal::CaptureStderr();
  runAnnealer(options, result);
  const std::string err = ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(trialDots(err), 0u);

  SensorModel model(result, ModelTransform());
  model.cosMaxIncidence = std::cos(60.0 * 0.017453292519943295);
  CoverageEvaluator evaluator;
  evaluator.model = &model;
  evaluator.rebuildObservations();
  evaluator.surface = fixture.surface.get();
  evaluator.rebuildObservations();
  ::testing::internal::CaptureStderr();
  evaluator.sampleOrientations(options.nOrientations);
  ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(options.finalQualityScore, evaluator.scorePlacement());
  EXPECT_GT(options.finalQualityScore, 0.0);
}

// Every placement of a trial comes from the surface and the picked sensor is
// always a free one: after many moves at all temperatures, the fixed sensor
// of a one-free-sensor model has never changed.
TEST(Annealer, OneFreeSensorDrawsNoPick) {
  SurfaceFixture fixture(testBox(), 55);
  auto model = makeEmptySensorModel(2);
  model->points[0] = Eigen::Vector3d(0.01, 0.01, 0.03);
  model->normals[0] = Eigen::Vector3d(0, 0, 1);
  model->immutableCount = 1;
  AnnealerOptions options(*fixture.surface, 2);
  placeInitialSensors(options, *model);
  ::testing::internal::CaptureStderr();
  Annealer annealer(*model, *fixture.surface, "", 1, 10, 0.5, -1.0, -1.0, 99u);
  ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(annealer.pickLow, 1);
  EXPECT_EQ(annealer.pickHigh, 1);
  EXPECT_EQ(annealer.trialsPerTemperature, 2);

  // With a single free sensor each trial takes exactly two outputs of rng:
  // the move-kind draw only.
  Constellation result;
  ::testing::internal::CaptureStderr();
  annealer.anneal(result);
  const std::string err = ::testing::internal::GetCapturedStderr();
  std::mt19937 expected(99u);
  expected.discard(2 * trialDots(err));
  EXPECT_EQ(annealer.rng, expected);
  EXPECT_EQ(model->points[0], Eigen::Vector3d(0.01, 0.01, 0.03));
  EXPECT_EQ(result.modelPoints[0], Eigen::Vector3f(0.01f, 0.01f, 0.03f));
}

}  // namespace
}  // namespace sensorlay
