#include <gtest/gtest.h>
#include <unistd.h>

#include <Eigen/Geometry>

#include <algorithm>
#include <array>
#include <climits>
#include <cmath>
#include <cstring>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "common/random_draws.h"
#include "quality/coverage_evaluator.h"
#include "quality/nearest_directions.h"
#include "tests/support/run_binary.h"

namespace sensorlay {
namespace {

// The samples of an evaluator, and the factor that normalised their weights.
std::optional<double> sample(CoverageEvaluator& evaluator, int32_t count) {
  const Result<std::optional<double>> factor = evaluator.sampleOrientations(count);
  EXPECT_TRUE(factor.ok()) << factor.message();
  EXPECT_EQ(evaluator.score.scoreScale, 500.0 / count);
  return factor ? *factor : std::nullopt;
}

// The least squared distance from `c` to every direction in `all`, worked out
// as the grid works it out.
double nearestOfAll(const std::vector<std::array<double, 4>>& all, const double c[3]) {
  double best = 9999.0;
  for (const auto& p : all) {
    const double dx = c[0] - p[0], dy = c[1] - p[1], dz = c[2] - p[2];
    best = std::min(best, dx * dx + dy * dy + dz * dz);
  }
  return best;
}

// Directions spread at random, clustered closer than any cell, doubled, on
// the poles and at the azimuth's ends: after every one added, the grid's
// nearest distance of a few candidates (some of them directions already
// added) is the exhaustive one, bit for bit, through all rebuilds of the grid.
TEST(NearestDirections, FindTheExhaustiveNearestDistanceAtEveryCount) {
  std::mt19937 generator(7);
  auto randomDirection = [&](double spread) {
    const double z = std::max(-1.0, std::min(1.0, (drawUnitDouble(generator) * 2.0 - 1.0) * spread));
    const double phi = drawUnitDouble(generator) * 6.283185307179586 - 3.141592653589793;
    const double s = std::sqrt(1.0 - z * z);
    return std::array<double, 4>{std::cos(phi) * s, std::sin(phi) * s, z, phi};
  };
  std::vector<std::array<double, 4>> all = {
      {0, 0, 1, 0}, {0, 0, -1, 2.0}, {-1, 0, 0, 3.141592653589793}, {-1, 0, 0, -3.141592653589793}};
  NearestDirections grid(0);
  for (const auto& d : all) grid.add(d.data(), d[3]);
  for (int i = 0; i < 3000; ++i) {
    std::array<double, 4> d = randomDirection(1.0);
    if (i % 7 == 0) d = all[static_cast<size_t>(i) % all.size()];  // a double
    if (i % 11 == 0) {                                             // close to the last one
      const auto& last = all.back();
      const double z = std::max(-1.0, std::min(1.0, last[2] + 1e-9 * (i % 3)));
      const double s = std::sqrt(1.0 - z * z), phi = last[3] + 1e-9;
      d = {std::cos(phi) * s, std::sin(phi) * s, z, phi};
    }
    all.push_back(d);
    grid.add(d.data(), d[3]);
    for (int q = 0; q < 6; ++q) {
      const std::array<double, 4> c = q == 0 ? all[static_cast<size_t>(i) * 5 % all.size()]
                                             : randomDirection(q == 1   ? 1e-3
                                                               : q == 2 ? 0.9999
                                                                        : 1.0);
      const double exact = nearestOfAll(all, c.data());
      ASSERT_EQ(grid.nearest(c.data(), c[3], 0.0), exact) << i << " " << q;
      // Told what is enough, it may stop at any distance up to that.
      const double early = grid.nearest(c.data(), c[3], exact * 2.0);
      ASSERT_TRUE(early >= exact && early <= exact * 2.0) << i;
      ASSERT_EQ(grid.nearest(c.data(), c[3], exact * 0.5), exact) << i;
    }
  }
  EXPECT_EQ(grid.size(), all.size());
}

// The grid finds each candidate's nearest earlier sample among a few cells;
// the samples must be those of the comparison with every earlier one, all
// thirteen fields bit for bit, at counts that end just after a rebuild of the
// grid or far from one.
TEST(OrientationSamples, GridSearchGivesTheExhaustiveSamples) {
  for (const int32_t count : {1, 2, 9, 17, 1250, 20000}) {
    std::optional<double> gridFactor, exhaustiveFactor;
    const auto grid = sampleOrientations(count, QualityMap(), gridFactor, NearestSearch::Grid);
    const auto exhaustive = sampleOrientations(count, QualityMap(), exhaustiveFactor, NearestSearch::Exhaustive);
    ASSERT_TRUE(grid.ok() && exhaustive.ok());
    ASSERT_EQ(grid->size(), static_cast<size_t>(count));
    ASSERT_EQ(exhaustive->size(), static_cast<size_t>(count));
    for (size_t i = 0; i < grid->size(); ++i)
      ASSERT_EQ(std::memcmp(&(*grid)[i], &(*exhaustive)[i], sizeof(OrientationSample)), 0) << count << " " << i;
    EXPECT_EQ(gridFactor, exhaustiveFactor);
  }
}

// A count whose samples no memory can hold fails at once with a reason
// instead of running until the system ends the process.
TEST(OrientationSamples, ACountBeyondMemoryIsRefusedBeforeAnyWork) {
  const double memory = static_cast<double>(sysconf(_SC_PHYS_PAGES)) * static_cast<double>(sysconf(_SC_PAGESIZE));
  if (memory > 5e11) GTEST_SKIP() << "this machine could hold the samples";
  std::optional<double> factor = 1.0;
  const auto samples = sampleOrientations(INT32_MAX, QualityMap(), factor);
  ASSERT_FALSE(samples.ok());
  EXPECT_EQ(samples.message().find("Too many orientations: 2147483647 samples need 309.2 GB of memory, and this "
                                   "machine has "),
            0u)
      << samples.message();
  EXPECT_EQ(factor, std::nullopt);

  CoverageEvaluator evaluator;
  sample(evaluator, 10);
  EXPECT_FALSE(evaluator.sampleOrientations(INT32_MAX).ok());
  EXPECT_TRUE(evaluator.score.samples.empty());
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
