#include "reports/coverage_summary.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "common/rotation.h"
#include "common/worker_pool.h"
#include "quality/coverage_evaluator.h"
#include "tests/support/quality_fixtures.h"

namespace sensorlay {
namespace {

constexpr double kFullTurn = 6.283185307179586;

TEST(CoverageSummary, RowsAreTheTablesOnAnyThreadCount) {
  // Twelve sensors on a sphere, some of them seen together from most sides.
  auto model = testing::makeSphereSensors(12, 0.05f);
  model->cosMaxIncidence = 0.5;
  CoverageEvaluator evaluator;
  testing::attach(evaluator, model.get());
  const std::vector<OrientationSample> grid = buildReportGrid(kFullTurn, degreesToRadians(9.0));

  WorkerPool one(1), two(2);
  char* buffer = nullptr;
  size_t size = 0;
  std::FILE* memory = open_memstream(&buffer, &size);
  ASSERT_TRUE(printCoverageTable(evaluator, grid, one, memory).ok());
  std::fclose(memory);
  std::istringstream table(std::string(buffer, size));
  std::free(buffer);

  const auto rows = computeCoverageRows(evaluator, grid, one);
  const auto threaded = computeCoverageRows(evaluator, grid, two);
  ASSERT_TRUE(rows.ok() && threaded.ok());
  ASSERT_EQ(rows->size(), grid.size());
  std::string line;
  for (size_t r = 0; r < grid.size() && std::getline(table, line); ++r) {
    const DirectionCoverage& row = (*rows)[r];
    char text[160];
    std::snprintf(text, sizeof text, "%d 0 0 0 %d %d %lf %lf", row.visibleCount, row.grade.first, row.grade.second,
                  row.rotationSigma, row.positionSigma);
    ASSERT_NE(line.find(text), std::string::npos) << "row " << r << ": " << line;
    EXPECT_EQ(__builtin_popcount(row.visibleMask), row.visibleCount);
    const DirectionCoverage& other = (*threaded)[r];
    EXPECT_TRUE(other.visibleMask == row.visibleMask && other.positionSigma == row.positionSigma &&
                other.rotationSigma == row.rotationSigma && other.grade.first == row.grade.first)
        << "row " << r;
  }
}

TEST(CoverageSummary, SharesAreSharesOfTheSphere) {
  // A sensor facing +Y within 60 degrees of incidence is seen from the cap
  // within 60 degrees of the pole: a quarter of the sphere, though only a
  // sixth of an equal-angle grid's rows (up to the grid's step at the cap's
  // rim). One sensor faces +Y, one -Y.
  auto model = testing::makeSensorModel({{0, 0.01f, 0}, {0, -0.01f, 0}}, {{0, 1, 0}, {0, -1, 0}}, {3, 8});
  model->cosMaxIncidence = 0.5;
  CoverageEvaluator evaluator;
  testing::attach(evaluator, model.get());
  WorkerPool pool(2);
  const Result<CoverageSummary> apart = summarizeModelCoverage(evaluator, 2.0, pool);
  ASSERT_TRUE(apart.ok()) << apart.message();
  ASSERT_EQ(apart->shareByVisibleCount.size(), 3u);
  EXPECT_NEAR(apart->shareByVisibleCount[1], 0.5, 0.02);
  EXPECT_NEAR(apart->shareByVisibleCount[0], 0.5, 0.02);
  EXPECT_EQ(apart->shareByVisibleCount[2], 0.0);
  EXPECT_EQ(apart->fullFixShare, 0.0);
  EXPECT_NEAR(apart->shareByGrade[0], 1.0, 1e-12);
  EXPECT_EQ(apart->directions, 90 * 180);  // the running sums miss +90 and +180
  EXPECT_EQ(apart->distanceMeters, 2.0);
  EXPECT_TRUE(apart->neverSeen.empty());

  // Both facing +Y: seen together from the one cap.
  model->normals[1] = Eigen::Vector3d(0, 1, 0);
  const Result<CoverageSummary> together = summarizeModelCoverage(evaluator, 2.0, pool);
  ASSERT_TRUE(together.ok());
  EXPECT_NEAR(together->shareByVisibleCount[2], 0.25, 0.02);
  EXPECT_NEAR(together->shareByVisibleCount[0], 0.75, 0.02);

  // Too fine a grid is refused, not laid.
  EXPECT_FALSE(summarizeModelCoverage(evaluator, 0.01, pool).ok());
}

TEST(CoverageSummary, QuantilesAreWeightedAndOverTheDirectionsWithAFix) {
  // Five directions on the equator (weight 1) and one near the pole (weight
  // cos 84 degrees, about 0.1) with a fix, and one without: by weight the 95th
  // percentile is the equator's largest, where by count it would be the
  // pole's.
  std::vector<OrientationSample> grid(6);
  for (OrientationSample& s : grid) s.latitude = 0.0;
  grid[5].latitude = degreesToRadians(84.0);
  std::vector<DirectionCoverage> rows(6);
  const double sigmas[6] = {0.004, 0.001, 0.003, 0.002, 1.0, 0.5};
  for (size_t r = 0; r < 6; ++r) {
    rows[r].visibleCount = 5;
    rows[r].grade = {100, 0};
    rows[r].positionSigma = sigmas[r];
    rows[r].rotationSigma = 2.0 * sigmas[r];
    rows[r].visibleMask = 0x1d;  // sensors 0, 2, 3 and 4
  }
  rows[4].grade = {0, 100};
  rows[5].grade = {99, 1};
  auto model = testing::makeSensorModel(std::vector<Eigen::Vector3f>(6, Eigen::Vector3f(0, 0, 0.01f)),
                                        std::vector<Eigen::Vector3f>(6, Eigen::Vector3f(0, 0, 1)));
  const CoverageSummary s = summarizeCoverage(rows, grid, *model, 9.0, 2.0);
  EXPECT_DOUBLE_EQ(s.positionSigma.median, 0.003);
  EXPECT_DOUBLE_EQ(s.positionSigma.p95, 0.004);
  EXPECT_DOUBLE_EQ(s.rotationSigma.p95, 0.008);
  const double pole = std::cos(degreesToRadians(84.0));
  EXPECT_DOUBLE_EQ(s.fixShare, (4.0 + pole) / (5.0 + pole));
  EXPECT_DOUBLE_EQ(s.fullFixShare, 4.0 / (5.0 + pole));
  EXPECT_EQ(s.neverSeen, (std::vector<int32_t>{1, 5}));

  // The document keeps every number at full width under its key.
  const std::string text = writeStyledJson(coverageSummaryJson(s));
  EXPECT_NE(text.find("\"100\" : 0.7"), std::string::npos) << text;
  EXPECT_NE(text.find("\"neverSeen\" : [ 1, 5 ]"), std::string::npos) << text;
  EXPECT_NE(text.find("\"median\" : 0.0030000000000000001"), std::string::npos) << text;
}

}  // namespace
}  // namespace sensorlay
