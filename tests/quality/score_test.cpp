#include <gtest/gtest.h>

#include <Eigen/Cholesky>
#include <Eigen/Geometry>

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
  const std::vector<OrientationSample> all = evaluator.samples;
  const double scale = evaluator.scoreScale;
  evaluator.samples = {sample};
  evaluator.scoreScale = 1.0;
  const double value = evaluator.scorePlacement();
  evaluator.samples = all;
  evaluator.scoreScale = scale;
  return value;
}

// An independent account of one sample, for the two-sweep station without a
// surface: visibility by the incidence limit, J by central differences of the
// angles, W as the block of the inverse covariance, C by a Cholesky solve.
struct Reference {
  int visible = 0;
  double x = 0.0;
};

Reference referenceSample(const SensorModel& model, const OrientationSample& s) {
  const Eigen::Quaterniond q(s.quaternion[0], s.quaternion[1], s.quaternion[2], s.quaternion[3]);
  const Eigen::Vector3d t(0, 0, -2);
  std::vector<Eigen::Vector3d> seen;
  for (size_t i = 0; i < model.points.size(); ++i) {
    const Eigen::Vector3d P = q * model.points[i] + t;
    if ((q * model.normals[i]).dot(-P.normalized()) > model.cosMaxIncidence) seen.push_back(model.points[i]);
  }
  Reference result;
  result.visible = static_cast<int>(seen.size());
  if (seen.empty()) return result;

  const int rows = 2 * result.visible;
  auto angles = [&](const Eigen::Matrix<double, 6, 1>& pose) {
    const Eigen::Vector3d r = pose.tail<3>();
    const Eigen::Matrix3d R = Eigen::AngleAxisd(r.norm(), r.normalized()).toRotationMatrix();
    Eigen::VectorXd out(rows);
    for (int k = 0; k < result.visible; ++k) {
      const Eigen::Vector3d X = R * seen[static_cast<size_t>(k)] + pose.head<3>();
      out(2 * k) = std::atan2(-X.z(), X.x());
      out(2 * k + 1) = std::atan2(-X.z(), -X.y());
    }
    return out;
  };
  Eigen::Matrix<double, 6, 1> pose;
  pose << t, s.rotationVector[0], s.rotationVector[1], s.rotationVector[2];
  Eigen::MatrixXd J(rows, 6);
  for (int c = 0; c < 6; ++c) {
    Eigen::Matrix<double, 6, 1> up = pose, down = pose;
    up(c) += 1e-6;
    down(c) -= 1e-6;
    J.col(c) = (angles(up) - angles(down)) / 2e-6;
  }
  Eigen::MatrixXd covariance(64, 64);
  for (int i = 0; i < 64; ++i)
    for (int j = 0; j < 64; ++j)
      covariance(i, j) = (i == j ? 2.2206609902451057e-9 : 0.0) + (i % 2 == j % 2 ? 1.579136704174297e-10 : 0.0);
  const Eigen::MatrixXd information = covariance.ldlt().solve(Eigen::MatrixXd::Identity(64, 64));
  const Eigen::MatrixXd A = J.transpose() * information.topLeftCorner(rows, rows) * J;
  const Eigen::MatrixXd C = A.ldlt().solve(Eigen::MatrixXd::Identity(6, 6));
  result.x = std::sqrt(C.diagonal().head<3>().sum()) + std::sqrt(C.diagonal().tail<3>().sum());
  return result;
}

TEST(Score, NothingVisibleCostsTheTopOfTheScale) {
  for (int32_t count : {100, 1250}) {
    // No sensors at all; and sensors that the incidence limit never passes.
    auto none = makeSensorModel({}, {});
    auto blind = makeSphereSensors(12, 0.08f);
    blind->cosMaxIncidence = 1.0;
    for (SensorModel* model : {none.get(), blind.get()}) {
      CoverageEvaluator evaluator;
      attach(evaluator, model);
      quietSamples(evaluator, count);
      EXPECT_EQ(evaluator.scorePlacement(), 1000.0) << count;
      EXPECT_EQ(evaluator.observations->everVisible, std::vector<bool>(model->points.size(), false));
    }
  }

  // No samples: 0 times an infinite scale.
  CoverageEvaluator evaluator;
  auto model = makeSphereSensors(12, 0.08f);
  attach(evaluator, model.get());
  quietSamples(evaluator, 0);
  EXPECT_TRUE(std::isnan(evaluator.scorePlacement()));
}

TEST(Score, WeightsAndTheUnweightedNoAnswer) {
  auto model = makeSphereSensors(12, 0.08f);
  model->cosMaxIncidence = 1.0;
  CoverageEvaluator evaluator;
  attach(evaluator, model.get());
  quietSamples(evaluator, 10);
  evaluator.scoreScale = 1.0;
  // Weight 0 (or below) skips a sample; any other weight leaves an unseen
  // sample at 2.0, however heavy or light it is.
  const double weights[10] = {0.0, -1.0, 5.0, 0.25, 1.0, 0.0, 3.0, 1.0, 1.0, 1.0};
  for (size_t i = 0; i < 10; ++i) evaluator.samples[i].weight = weights[i];
  EXPECT_EQ(evaluator.scorePlacement(), 2.0 * 7);

  // A black quality map: every weight 0, every sample skipped.
  testing::TempDir dir;
  testing::writeFile(dir.file("black.pgm"), "P5\n4 2\n255\n" + std::string(8, '\0'));
  evaluator.loadQualityMap(dir.file("black.pgm"));
  quietSamples(evaluator, 200);
  EXPECT_EQ(evaluator.scorePlacement(), 0.0);
}

TEST(Score, AgreesWithAnIndependentAccount) {
  auto model = makeSphereSensors(16, 0.08f);
  CoverageEvaluator evaluator;
  attach(evaluator, model.get());
  quietSamples(evaluator, 120);

  double sum = 0.0;
  int solved = 0, underdetermined = 0;
  for (size_t i = 0; i < evaluator.samples.size(); ++i) {
    const OrientationSample& s = evaluator.samples[i];
    const double value = sampleValue(evaluator, s);
    sum += value;
    if (i == 0) {
      EXPECT_EQ(value, 2.0);  // the not-a-number pole sees nothing
      continue;
    }
    const Reference reference = referenceSample(*model, s);
    if (reference.visible == 0) {
      EXPECT_EQ(value, 2.0) << i;
    } else if (reference.visible < 3) {
      // Fewer rows than parameters: A is singular, and the sample ends at
      // the curve's ceiling or at the no-answer value.
      EXPECT_TRUE(value == 2.0 || std::abs(value - (1.0 + std::tanh(2.0))) < 1e-6) << i << " " << value;
      ++underdetermined;
    } else {
      const double expected = std::tanh(100.0 * reference.x - 2.0) + std::tanh(2.0);
      EXPECT_NEAR(value, expected, 1e-6) << i << " visible " << reference.visible << " x " << reference.x;
      ++solved;
    }
  }
  EXPECT_GT(solved, 60);
  EXPECT_GT(underdetermined + solved, 100);
  // The whole is the plain sum of the samples times 500 / N.
  EXPECT_NEAR(evaluator.scorePlacement(), sum * 500.0 / 120.0, 1e-9);
  EXPECT_EQ(evaluator.observations->everVisible, std::vector<bool>(16, true));
}

TEST(Score, IsThePlainMatrixFormula) {
  // Sample by sample, the score is the textbook expression: A = J^T W J with
  // W the block of the information matrix, Eigen's inverse of A, the two
  // root sums, the curve. The buffers it keeps must not change a bit of that.
  auto model = makeSphereSensors(20, 0.08f);
  CoverageEvaluator evaluator;
  attach(evaluator, model.get());
  quietSamples(evaluator, 150);
  int compared = 0;
  for (size_t i = 1; i < evaluator.samples.size(); ++i) {
    const OrientationSample& s = evaluator.samples[i];
    const double value = sampleValue(evaluator, s);  // leaves visibleNow for this sample
    int visible = 0;
    for (bool bit : evaluator.observations->visibleNow) visible += bit ? 1 : 0;
    if (visible == 0) continue;
    const int rows = 2 * visible;
    const double pose[6] = {0, 0, -2, s.rotationVector[0], s.rotationVector[1], s.rotationVector[2]};
    std::vector<double> angles(static_cast<size_t>(rows));
    Eigen::Matrix<double, Eigen::Dynamic, 6, Eigen::RowMajor> J(rows, 6);
    ASSERT_TRUE(differentiateObservations(*evaluator.observations, pose, rows, angles.data(), J.data()));
    const Eigen::MatrixXd Jd = J;
    const Eigen::MatrixXd A = Jd.transpose() * evaluator.measurementInformation.topLeftCorner(rows, rows) * Jd;
    const Eigen::MatrixXd C = A.inverse();
    const double x = std::sqrt(C(0, 0) + C(1, 1) + C(2, 2)) + std::sqrt(C(3, 3) + C(4, 4) + C(5, 5));
    const double expected = std::isnan(x) ? 2.0 : std::tanh(100.0 * x - 2.0) + 0.9640275800758169;
    EXPECT_EQ(value, expected) << i << " with " << visible << " visible";
    ++compared;
  }
  EXPECT_GT(compared, 100);
}

TEST(Score, QualityCurve) {
  CoverageEvaluator evaluator;
  evaluator.setQualityRange(0.0018155, 0.0381845);
  EXPECT_NEAR(evaluator.qualityGain, 100.0, 1e-9);
  EXPECT_NEAR(evaluator.qualityBias, -2.0, 1e-12);
  EXPECT_NEAR(evaluator.qualityBase, 0.9640275800758169, 1e-12);

  // Bring one sample's uncertainty to exactly 0.02 by scaling the noise, and
  // read the default curve there through the score: tanh(0) + tanh(2).
  auto model = makeSphereSensors(16, 0.08f);
  CoverageEvaluator scorer;
  attach(scorer, model.get());
  quietSamples(scorer, 40);
  size_t chosen = 1;
  while (chosen < scorer.samples.size() && referenceSample(*model, scorer.samples[chosen]).visible < 4) ++chosen;
  ASSERT_LT(chosen, scorer.samples.size());
  const OrientationSample sample = scorer.samples[chosen];
  scorer.qualityGain = 1.0;
  scorer.qualityBias = 0.0;
  scorer.qualityBase = 0.0;
  const double x = std::atanh(sampleValue(scorer, sample));
  ASSERT_GT(x, 0.0);
  scorer.qualityGain = 100.0;
  scorer.qualityBias = -2.0;
  scorer.qualityBase = 0.9640275800758169;
  scorer.measurementInformation *= (x / 0.02) * (x / 0.02);
  EXPECT_NEAR(sampleValue(scorer, sample), 0.9640275800758169, 1e-12);

  // Another range: 0 at x = 0, the base at the range's middle.
  scorer.setQualityRange(0.01, 0.05);
  EXPECT_NEAR(scorer.qualityBase, -std::tanh(scorer.qualityBias), 0.0);
  EXPECT_NEAR(std::tanh(scorer.qualityGain * 0.0 + scorer.qualityBias) + scorer.qualityBase, 0.0, 1e-15);
  EXPECT_NEAR(scorer.qualityGain * 0.03 + scorer.qualityBias, 0.0, 1e-12);
  EXPECT_NEAR(scorer.qualityGain * 0.05 + scorer.qualityBias, 1.81845, 1e-12);
}

TEST(Score, TheSurfaceHidesSensorsBehindObstacles) {
  // A 10 cm cube with five sensors on its +Z face. A plate 2 m wide, 45 cm
  // above that face, hides them from every direction the 60 degree incidence
  // limit lets them see; a plate over the +X half hides some.
  testing::TempDir dir;
  testing::writeStlBinary(dir.file("cube.stl"), testing::cubeMesh(0.1f, 2));
  testing::writeStlBinary(dir.file("plate.stl"), testing::plateMesh(2.0f, 0.5f));
  testing::writeStlBinary(dir.file("half.stl"), testing::translated(testing::plateMesh(2.0f, 0.5f), {1.0f, 0, 0}));
  const std::vector<Eigen::Vector3f> points = {
      {0, 0, 0.05f}, {0.03f, 0.03f, 0.05f}, {-0.03f, 0.03f, 0.05f}, {-0.03f, -0.03f, 0.05f}, {0.03f, -0.02f, 0.05f}};
  const std::vector<Eigen::Vector3f> normals(5, Eigen::Vector3f(0, 0, 1));
  auto model = makeSensorModel(points, normals);

  TrackedSurface bare(dir.file("cube.stl"), {});
  TrackedSurface covered(dir.file("cube.stl"), {dir.file("plate.stl")});
  TrackedSurface halfCovered(dir.file("cube.stl"), {dir.file("half.stl")});
  ASSERT_GT(bare.faceCount(), 0u);
  ASSERT_GT(covered.faceCount(), 0u);
  ASSERT_GT(halfCovered.faceCount(), 0u);

  auto scoreWith = [&](const TrackedSurface* surface) {
    CoverageEvaluator evaluator;
    attach(evaluator, model.get(), surface);
    quietSamples(evaluator, 300);
    return evaluator.scorePlacement();
  };
  const double open = scoreWith(nullptr);
  EXPECT_LT(open, 1000.0);
  // A convex body never hides its own sensors from a direction they face.
  EXPECT_EQ(scoreWith(&bare), open);
  EXPECT_EQ(scoreWith(&covered), 1000.0);

  // Under the half plate, sample by sample: the score equals that of a
  // model of only the sensors whose ray to the station misses the plate,
  // worked out by hand as the crossing of the ray with z = 0.5.
  CoverageEvaluator evaluator;
  attach(evaluator, model.get(), &halfCovered);
  quietSamples(evaluator, 300);
  int partial = 0;
  for (size_t i = 1; i < evaluator.samples.size(); ++i) {
    const OrientationSample& s = evaluator.samples[i];
    const Eigen::Quaterniond q(s.quaternion[0], s.quaternion[1], s.quaternion[2], s.quaternion[3]);
    std::vector<Eigen::Vector3f> open_points;
    for (size_t k = 0; k < points.size(); ++k) {
      const Eigen::Vector3d p = points[k].cast<double>();
      const Eigen::Vector3d P = q * p + Eigen::Vector3d(0, 0, -2);
      const Eigen::Vector3d e = q.conjugate() * (-P.normalized());
      if (e.z() <= 0.5) continue;  // outside the incidence limit anyway
      const Eigen::Vector3d o = p + Eigen::Vector3d(0, 0, 0.001);
      const Eigen::Vector3d crossing = o + e * ((0.5 - o.z()) / e.z());
      const bool hidden = crossing.x() >= 0.0 && crossing.x() <= 2.0 && std::abs(crossing.y()) <= 1.0;
      if (!hidden) open_points.push_back(points[k]);
    }
    auto subset = makeSensorModel(open_points, std::vector<Eigen::Vector3f>(open_points.size(), {0, 0, 1}));
    CoverageEvaluator reference;
    attach(reference, subset.get());
    EXPECT_EQ(sampleValue(evaluator, s), sampleValue(reference, s)) << i;
    if (!open_points.empty() && open_points.size() < points.size()) ++partial;
  }
  EXPECT_GT(partial, 0);
}

}  // namespace
}  // namespace sensorlay
