#include <gtest/gtest.h>

#include <Eigen/Geometry>

#include <cmath>
#include <cstring>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "quality/coverage_evaluator.h"
#include "tests/support/run_binary.h"

namespace sensorlay {
namespace {

// The samples of an evaluator, and the factor that normalised their weights.
std::optional<double> sample(CoverageEvaluator& evaluator, int32_t count) {
  const std::optional<double> factor = evaluator.sampleOrientations(count);
  EXPECT_EQ(evaluator.score.scoreScale, 500.0 / count);
  return factor;
}

TEST(OrientationSamples, FixedSetOfShortestRotations) {
  CoverageEvaluator a, b, shorter;
  EXPECT_EQ(sample(a, 400), 1.0);
  sample(b, 400);
  sample(shorter, 250);
  for (size_t i = 0; i < 400; ++i)
    ASSERT_EQ(std::memcmp(&a.score.samples[i], &b.score.samples[i], sizeof(OrientationSample)), 0) << i;
  for (size_t i = 0; i < 250; ++i)
    ASSERT_EQ(std::memcmp(&a.score.samples[i], &shorter.score.samples[i], sizeof(OrientationSample)), 0);

  // The first sample is the unguarded pole: its rotation is not a number.
  EXPECT_EQ(a.score.samples[0].direction[2], 1.0);
  EXPECT_EQ(a.score.samples[0].latitude, 0.0);
  EXPECT_TRUE(std::isnan(a.score.samples[0].quaternion[0]) && std::isnan(a.score.samples[0].rotationVector[2]));

  // Every other rotation brings its direction onto +Z the shortest way.
  Eigen::Vector3d mean = Eigen::Vector3d::Zero();
  for (size_t i = 1; i < 400; ++i) {
    const OrientationSample& s = a.score.samples[i];
    const Eigen::Vector3d d(s.direction[0], s.direction[1], s.direction[2]);
    mean += d;
    EXPECT_NEAR(s.latitude, std::asin(d.y()), 1e-9);
    EXPECT_NEAR(s.longitude, std::atan2(d.x(), d.z()), 1e-12);
    const Eigen::Quaterniond q(s.quaternion[0], s.quaternion[1], s.quaternion[2], s.quaternion[3]);
    EXPECT_GE(q.w(), 0.0);
    EXPECT_LT((q * d - Eigen::Vector3d::UnitZ()).norm(), 1e-9) << i;
    EXPECT_NEAR(q.z(), 0.0, 1e-12) << i;  // no roll about the line of sight
    const Eigen::Vector3d r(s.rotationVector[0], s.rotationVector[1], s.rotationVector[2]);
    EXPECT_NEAR(std::abs(Eigen::Quaterniond(Eigen::AngleAxisd(r.norm(), r.normalized())).dot(q)), 1.0, 1e-12) << i;
  }
  EXPECT_LT((mean / 400.0).norm(), 0.03);  // spread evenly

  EXPECT_EQ(sample(a, 0), std::nullopt);  // no samples, no factor, an infinite scale
  EXPECT_TRUE(a.score.samples.empty());
}

TEST(OrientationSamples, WeightsComeFromTheMapAndAverageOne) {
  testing::TempDir dir;
  std::string image = "P5\n8 4\n255\n";  // longitudes below 0 black, the rest 51
  for (int i = 0; i < 32; ++i) image += static_cast<char>(i % 8 < 4 ? 0 : 51);
  testing::writeFile(dir.file("half.pgm"), image);
  CoverageEvaluator evaluator;
  evaluator.loadQualityMap(dir.file("half.pgm"));
  const std::optional<double> factor = sample(evaluator, 300);
  int bright = 0;
  for (const OrientationSample& s : evaluator.score.samples) bright += s.weight > 0.0 ? 1 : 0;
  ASSERT_GT(bright, 100);
  ASSERT_LT(bright, 200);
  for (const OrientationSample& s : evaluator.score.samples)
    EXPECT_NEAR(s.weight, evaluator.qualityMap.at(s.latitude, s.longitude) > 0.0f ? 300.0 / bright : 0.0, 1e-12);
  EXPECT_EQ(factor, 300.0 / (bright * static_cast<double>(51 * 0.003921569f)));

  // A black map: nothing to normalise.
  testing::writeFile(dir.file("black.pgm"), "P5\n2 2\n255\n" + std::string(4, '\0'));
  evaluator.loadQualityMap(dir.file("black.pgm"));
  EXPECT_EQ(sample(evaluator, 50), std::nullopt);
  // A missing map is no map: equal weights, factor 1.
  EXPECT_FALSE(evaluator.loadQualityMap(dir.file("missing.png")).ok());
  EXPECT_EQ(sample(evaluator, 50), 1.0);
  for (const OrientationSample& s : evaluator.score.samples) EXPECT_EQ(s.weight, 1.0);
}

}  // namespace
}  // namespace sensorlay
