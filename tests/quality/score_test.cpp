#include <gtest/gtest.h>

#include <Eigen/Geometry>
#include <Eigen/LU>

#include <cmath>
#include <string>
#include <vector>

#include "observation/sweep_model.h"
#include "surface/coverage_evaluator.h"
#include "surface/tracked_surface.h"
#include "tests/support/meshes.h"
#include "tests/support/quality_fixtures.h"
#include "tests/support/run_binary.h"

namespace sensorlay {
namespace {

using testing::attach;
using testing::makeSensorModel;
using testing::makeSphereSensors;

void quietSamples(CoverageEvaluator& evaluator, int32_t count) {
  ::testing::internal::CaptureStderr();
  evaluator.sampleOrientations(count);
  ::testing::internal::GetCapturedStderr();
}

// The value of one sample alone, with a scale of 1.
double sampleValue(CoverageEvaluator& evaluator, const OrientationSample& sample) {
  std::vector<OrientationSample> all = {sample};
  std::swap(all, evaluator.samples);
  const double scale = evaluator.scoreScale;
  evaluator.scoreScale = 1.0;
  const double value = evaluator.scorePlacement();
  std::swap(all, evaluator.samples);
  evaluator.scoreScale = scale;
  return value;
}

TEST(Score, NothingVisibleAndTheWeights) {
  // Sensors the incidence limit never passes: 1000 exactly.
  auto model = makeSphereSensors(12, 0.08f);
  model->cosMaxIncidence = 1.0;
  CoverageEvaluator evaluator;
  attach(evaluator, model.get());
  quietSamples(evaluator, 1250);
  EXPECT_EQ(evaluator.scorePlacement(), 1000.0);
  EXPECT_EQ(evaluator.observations->everVisible, std::vector<bool>(12, false));

  // Weight 0 or below skips a sample; any other leaves an unseen one at 2.0.
  quietSamples(evaluator, 6);
  const double weights[6] = {0.0, -1.0, 5.0, 0.25, 1.0, 3.0};
  for (size_t i = 0; i < 6; ++i) evaluator.samples[i].weight = weights[i];
  EXPECT_EQ(evaluator.scorePlacement(), 2.0 * 4 * 500.0 / 6);
  quietSamples(evaluator, 0);
  EXPECT_TRUE(std::isnan(evaluator.scorePlacement()));  // 0 times an infinite scale

  // Planes tilted so steeply that they reach no sensor: the Jacobian fails,
  // J stays 0, and every sample ends as not-a-number, at 2.0.
  model->cosMaxIncidence = 0.5;
  evaluator.stationConfig = {7, 1.5707963};
  evaluator.rebuildObservations();
  quietSamples(evaluator, 100);
  EXPECT_EQ(evaluator.scorePlacement(), 1000.0);

  // A black quality map weighs every sample 0.
  testing::TempDir dir;
  testing::writeFile(dir.file("black.pgm"), "P5\n4 2\n255\n" + std::string(8, '\0'));
  evaluator.loadQualityMap(dir.file("black.pgm"));
  quietSamples(evaluator, 200);
  EXPECT_EQ(evaluator.scorePlacement(), 0.0);
}

TEST(Score, IsThePlainMatrixFormula) {
  // Sample by sample: the sensors within the incidence limit, A = J^T W J with
  // W the block of the information matrix, Eigen's inverse of A, the two root
  // sums, the curve; the kept buffers must not change a bit of that.
  auto model = makeSphereSensors(20, 0.08f);
  CoverageEvaluator evaluator;
  attach(evaluator, model.get());
  quietSamples(evaluator, 150);
  double sum = 2.0;  // the pole sample sees nothing
  int solved = 0;
  for (size_t i = 1; i < evaluator.samples.size(); ++i) {
    const OrientationSample& s = evaluator.samples[i];
    const double value = sampleValue(evaluator, s);
    sum += value;
    const Eigen::Quaterniond q(s.quaternion[0], s.quaternion[1], s.quaternion[2], s.quaternion[3]);
    int visible = 0;
    for (size_t k = 0; k < 20; ++k) {
      const bool seen = (q * model->normals[k]).dot(-(q * model->points[k] - Eigen::Vector3d(0, 0, 2)).normalized()) > 0.5;
      EXPECT_EQ(evaluator.observations->visibleNow[k], seen) << i << " " << k;
      visible += seen ? 1 : 0;
    }
    if (visible == 0) {
      EXPECT_EQ(value, 2.0);
      continue;
    }
    const int rows = 2 * visible;
    const double pose[6] = {0, 0, -2, s.rotationVector[0], s.rotationVector[1], s.rotationVector[2]};
    double angles[64];
    Eigen::Matrix<double, Eigen::Dynamic, 6, Eigen::RowMajor> J(rows, 6);
    ASSERT_TRUE(differentiateObservations(*evaluator.observations, pose, rows, angles, J.data()));
    const Eigen::MatrixXd Jd = J;
    const Eigen::MatrixXd C = (Jd.transpose() * evaluator.measurementInformation.topLeftCorner(rows, rows) * Jd).inverse();
    const double x = std::sqrt(C(0, 0) + C(1, 1) + C(2, 2)) + std::sqrt(C(3, 3) + C(4, 4) + C(5, 5));
    EXPECT_EQ(value, std::isnan(x) ? 2.0 : std::tanh(100.0 * x - 2.0) + 0.9640275800758169) << i;
    solved += visible >= 3 ? 1 : 0;
  }
  EXPECT_GT(solved, 100);
  EXPECT_NEAR(evaluator.scorePlacement(), sum * 500.0 / 150.0, 1e-9);
  EXPECT_EQ(evaluator.observations->everVisible, std::vector<bool>(20, true));
}

TEST(Score, QualityCurve) {
  CoverageEvaluator evaluator;
  evaluator.setQualityRange(0.0018155, 0.0381845);
  EXPECT_NEAR(evaluator.qualityGain, 100.0, 1e-9);
  EXPECT_NEAR(evaluator.qualityBias, -2.0, 1e-12);
  EXPECT_NEAR(evaluator.qualityBase, 0.9640275800758169, 1e-12);

  // Read x through a curve of tanh alone, scale the noise so that x is 0.02,
  // and the default curve gives tanh(0) + tanh(2) there.
  auto model = makeSphereSensors(16, 0.08f);
  CoverageEvaluator scorer;
  attach(scorer, model.get());
  quietSamples(scorer, 40);
  const OrientationSample sample = scorer.samples[5];
  scorer.qualityGain = 1.0;
  scorer.qualityBias = scorer.qualityBase = 0.0;
  const double x = std::atanh(sampleValue(scorer, sample));
  ASSERT_GT(x, 0.0);
  scorer.setQualityRange(0.0018155, 0.0381845);
  scorer.measurementInformation *= (x / 0.02) * (x / 0.02);
  EXPECT_NEAR(sampleValue(scorer, sample), 0.9640275800758169, 1e-9);
}

TEST(Score, TheSurfaceHidesSensorsBehindObstacles) {
  // A 10 cm cube with five sensors on its +Z face. A plate 2 m wide 45 cm
  // above them hides them from every direction the 60 degree limit allows
  // (it reaches at most 0.45 tan 60 = 0.78 m sideways there).
  testing::TempDir dir;
  testing::writeStlBinary(dir.file("cube.stl"), testing::cubeMesh(0.1f, 2));
  testing::writeStlBinary(dir.file("plate.stl"), testing::plateMesh(2.0f, 0.5f));
  const std::vector<Eigen::Vector3f> points = {{0, 0, 0.05f}, {0.03f, 0.03f, 0.05f}, {-0.03f, 0.03f, 0.05f},
                                               {-0.03f, -0.03f, 0.05f}, {0.03f, -0.02f, 0.05f}};
  const std::vector<Eigen::Vector3f> up(5, Eigen::Vector3f(0, 0, 1));
  auto model = makeSensorModel(points, up);
  TrackedSurface bare(dir.file("cube.stl"), {}), covered(dir.file("cube.stl"), {dir.file("plate.stl")});
  ASSERT_GT(covered.faceCount(), 0u);

  auto scoreWith = [&](const TrackedSurface* surface) {
    CoverageEvaluator evaluator;
    attach(evaluator, model.get(), surface);
    quietSamples(evaluator, 300);
    return evaluator.scorePlacement();
  };
  const double open = scoreWith(nullptr);
  EXPECT_LT(open, 1000.0);
  EXPECT_EQ(scoreWith(&bare), open);  // a convex body never hides a sensor that faces the station
  EXPECT_EQ(scoreWith(&covered), 1000.0);
}

}  // namespace
}  // namespace sensorlay
