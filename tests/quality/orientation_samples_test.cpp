#include <gtest/gtest.h>

#include <Eigen/Geometry>

#include <cmath>
#include <cstring>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "surface/coverage_evaluator.h"
#include "tests/support/run_binary.h"

namespace sensorlay {
namespace {

bool sameBits(const OrientationSample& a, const OrientationSample& b) {
  return std::memcmp(&a, &b, sizeof(OrientationSample)) == 0;
}

std::vector<OrientationSample> makeSamples(int32_t count, std::string* err = nullptr) {
  CoverageEvaluator evaluator;
  ::testing::internal::CaptureStderr();
  evaluator.sampleOrientations(count);
  const std::string text = ::testing::internal::GetCapturedStderr();
  if (err != nullptr) *err = text;
  EXPECT_EQ(evaluator.scoreScale, 500.0 / count);
  return evaluator.samples;
}

TEST(OrientationSamples, FixedSetAndPrefixOfALargerOne) {
  std::string err;
  const std::vector<OrientationSample> a = makeSamples(400, &err);
  EXPECT_EQ(err, "quality map normalization: 1\n");
  const std::vector<OrientationSample> b = makeSamples(400);
  const std::vector<OrientationSample> shorter = makeSamples(250);
  ASSERT_EQ(a.size(), 400u);
  ASSERT_EQ(shorter.size(), 250u);
  for (size_t i = 0; i < a.size(); ++i) ASSERT_TRUE(sameBits(a[i], b[i])) << i;
  for (size_t i = 0; i < shorter.size(); ++i) ASSERT_TRUE(sameBits(a[i], shorter[i])) << i;

  // The second sample is, of ten candidates drawn from MT19937 seeded 5489
  // (two outputs for each uniform double, z first, then the angle), the one
  // farthest from the pole (0, 0, 1): the one of lowest z.
  std::mt19937 g(5489u);
  double best[3] = {0, 0, 2};
  for (int c = 0; c < 10; ++c) {
    auto unit = [&g] {
      const double g0 = g(), g1 = g();
      return (g0 + g1 * 4294967296.0) / 18446744073709551616.0;
    };
    const double z = unit() * 2.0 - 1.0;
    const double phi = unit() * 6.283185307179586 - 3.141592653589793;
    const double s = std::sqrt(1.0 - z * z);
    if (z < best[2]) best[0] = std::cos(phi) * s, best[1] = std::sin(phi) * s, best[2] = z;
  }
  for (int k = 0; k < 3; ++k) EXPECT_EQ(a[1].direction[k], best[k]);

  // The set depends on the count alone, not on the evaluator's state.
  CoverageEvaluator other;
  other.pose = {1, 2, 3, 0, 1, 0, 0};
  ::testing::internal::CaptureStderr();
  other.sampleOrientations(3);
  ::testing::internal::GetCapturedStderr();
  for (size_t i = 0; i < 3; ++i) EXPECT_TRUE(sameBits(other.samples[i], a[i]));
}

TEST(OrientationSamples, FirstSampleIsTheUnguardedPole) {
  std::string err;
  const std::vector<OrientationSample> one = makeSamples(1, &err);
  ASSERT_EQ(one.size(), 1u);
  const OrientationSample& s = one[0];
  EXPECT_EQ(s.direction[0], 0.0);
  EXPECT_EQ(s.direction[1], 0.0);
  EXPECT_EQ(s.direction[2], 1.0);
  EXPECT_EQ(s.latitude, 0.0);
  EXPECT_EQ(s.longitude, 0.0);
  EXPECT_EQ(s.weight, 1.0);
  for (double q : s.quaternion) EXPECT_TRUE(std::isnan(q));
  for (double r : s.rotationVector) EXPECT_TRUE(std::isnan(r));
  EXPECT_EQ(err, "quality map normalization: 1\n");

  // No count, no samples, no line, and an infinite scale.
  CoverageEvaluator evaluator;
  ::testing::internal::CaptureStderr();
  evaluator.sampleOrientations(0);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
  EXPECT_TRUE(evaluator.samples.empty());
  EXPECT_TRUE(std::isinf(evaluator.scoreScale));
  evaluator.sampleOrientations(-5);
  EXPECT_TRUE(evaluator.samples.empty());
}

TEST(OrientationSamples, EachRotationTurnsItsDirectionOntoZ) {
  const std::vector<OrientationSample> samples = makeSamples(600);
  int octants[8] = {};
  Eigen::Vector3d mean = Eigen::Vector3d::Zero();
  for (size_t i = 1; i < samples.size(); ++i) {
    const OrientationSample& s = samples[i];
    const Eigen::Vector3d d(s.direction[0], s.direction[1], s.direction[2]);
    ASSERT_NEAR(d.norm(), 1.0, 1e-12) << i;
    mean += d;
    ++octants[(d.x() > 0) + 2 * (d.y() > 0) + 4 * (d.z() > 0)];

    EXPECT_NEAR(s.latitude, std::asin(d.y()), 1e-9) << i;
    EXPECT_NEAR(s.longitude, std::atan2(d.x(), d.z()), 1e-12) << i;

    const Eigen::Quaterniond q(s.quaternion[0], s.quaternion[1], s.quaternion[2], s.quaternion[3]);
    EXPECT_GE(q.w(), 0.0);
    EXPECT_NEAR(q.norm(), 1.0, 1e-9) << i;
    EXPECT_LT((q * d - Eigen::Vector3d::UnitZ()).norm(), 1e-9) << i;
    // The shortest such rotation: no turn about the line of sight, so its
    // axis is perpendicular to both d and +Z.
    EXPECT_NEAR(q.vec().dot(d), 0.0, 1e-9) << i;
    EXPECT_NEAR(q.z(), 0.0, 1e-9) << i;

    const Eigen::Vector3d r(s.rotationVector[0], s.rotationVector[1], s.rotationVector[2]);
    const Eigen::Quaterniond fromVector(Eigen::AngleAxisd(r.norm(), r.normalized()));
    EXPECT_NEAR(std::abs(fromVector.dot(q)), 1.0, 1e-9) << i;
    EXPECT_NEAR(r.norm(), std::acos(std::min(1.0, d.z())), 1e-7) << i;
  }
  // Spread evenly: no lopsided mean, every octant near an eighth.
  EXPECT_LT((mean / 600.0).norm(), 0.03);
  for (int count : octants) {
    EXPECT_GT(count, 60);
    EXPECT_LT(count, 90);
  }
}

TEST(OrientationSamples, WeightsComeFromTheMapAndAverageOne) {
  testing::TempDir dir;
  // Left half black (longitude below 0), right half of brightness 51.
  std::string pgm = "P5\n8 4\n255\n";
  for (int row = 0; row < 4; ++row)
    for (int column = 0; column < 8; ++column) pgm += static_cast<char>(column < 4 ? 0 : 51);
  testing::writeFile(dir.file("half.pgm"), pgm);

  CoverageEvaluator evaluator;
  evaluator.loadQualityMap(dir.file("half.pgm"));
  ::testing::internal::CaptureStderr();
  evaluator.sampleOrientations(300);
  const std::string err = ::testing::internal::GetCapturedStderr();

  int bright = 0;
  for (const OrientationSample& s : evaluator.samples)
    if (s.weight > 0.0) ++bright;
  ASSERT_GT(bright, 100);
  ASSERT_LT(bright, 200);
  double sum = 0.0;
  for (const OrientationSample& s : evaluator.samples) {
    const double raw = static_cast<double>(evaluator.qualityAt(s.latitude, s.longitude));
    if (raw == 0.0) {
      EXPECT_EQ(s.weight, 0.0);
    } else {
      EXPECT_NEAR(s.weight, 300.0 / bright, 1e-12);
    }
    sum += s.weight;
  }
  EXPECT_NEAR(sum, 300.0, 1e-9);
  // The factor is the count over the raw total, printed in the default format.
  std::ostringstream expected;
  expected << "quality map normalization: " << 300.0 / (bright * static_cast<double>(51 * 0.003921569f)) << "\n";
  EXPECT_EQ(err, expected.str());

  // A black map: nothing to normalise, nothing said, every weight 0.
  testing::writeFile(dir.file("black.pgm"), "P5\n2 2\n255\n" + std::string(4, '\0'));
  evaluator.loadQualityMap(dir.file("black.pgm"));
  ::testing::internal::CaptureStderr();
  evaluator.sampleOrientations(50);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
  for (const OrientationSample& s : evaluator.samples) EXPECT_EQ(s.weight, 0.0);

  // A missing map behaves as none: equal weights, factor 1.
  ::testing::internal::CaptureStderr();
  evaluator.loadQualityMap(dir.file("missing.png"));
  evaluator.sampleOrientations(50);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "Error loading quality map image '" + dir.file("missing.png") +
                                                          "' : can't fopen\nquality map normalization: 1\n");
  for (const OrientationSample& s : evaluator.samples) EXPECT_EQ(s.weight, 1.0);
}

}  // namespace
}  // namespace sensorlay
