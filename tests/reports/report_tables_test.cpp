#include "reports/report_tables.h"

#include <gtest/gtest.h>
#include <Eigen/Geometry>

#include <cmath>
#include <memory>
#include <sstream>

#include "quality/coverage_evaluator.h"
#include "tests/support/quality_fixtures.h"
#include "tests/support/table_runs.h"

namespace sensorlay {
namespace {

using Points = std::vector<Eigen::Vector3f>;
using testing::degrees;
using testing::makeSensorModel;
using testing::printTable;

// Facing the station, which stands on +z of a device at its default pose.
const Eigen::Vector3f kUp(0.0f, 0.0f, 1.0f);
const Eigen::Vector3f kDown(0.0f, 0.0f, -1.0f);
const Points kTetrahedron = {{0, 0, 0}, {0.05f, 0, 0}, {0, 0.05f, 0}, {0, 0, 0.03f}};

std::vector<std::string> columns(const std::string& line) {
  std::istringstream in(line);
  std::vector<std::string> out;
  for (std::string word; in >> word;) out.push_back(word);
  return out;
}

// The single row of a coverage table at the default pose with the device
// facing the station.
std::vector<std::string> facingRow(const Points& points, const Points& normals, double distance = 2.0) {
  auto model = makeSensorModel(points, normals);
  CoverageEvaluator evaluator;
  testing::attach(evaluator, model.get());
  evaluator.score.samples = {OrientationSample()};
  evaluator.position.z() = -distance;
  return columns(printTable(evaluator).out);
}

std::string grade(const std::vector<std::string>& row) { return row.at(8) + " " + row.at(9); }

TEST(ReportGrid, RowCountsFollowTheRunningSums) {
  CoverageEvaluator evaluator;
  evaluator.score.samples = buildReportGrid(6.283185307179586, degrees(0.5));
  EXPECT_EQ(evaluator.score.samples.size(), 361u * 721u);
  evaluator.score.samples = buildReportGrid(6.283185307179586, degrees(1.0));
  EXPECT_EQ(evaluator.score.samples.size(), 180u * 361u);  // the end latitude is missed
  evaluator.score.samples = buildReportGrid(6.283185307179586, degrees(5.0));
  ASSERT_EQ(evaluator.score.samples.size(), 37u * 73u);

  // Longitude outermost, latitude inner, both ascending from the low end.
  EXPECT_DOUBLE_EQ(evaluator.score.samples[0].latitude, -1.5707963267948966);
  EXPECT_DOUBLE_EQ(evaluator.score.samples[0].longitude, -3.141592653589793);
  EXPECT_EQ(evaluator.score.samples[36].longitude, evaluator.score.samples[0].longitude);
  EXPECT_GT(evaluator.score.samples[37].longitude, evaluator.score.samples[36].longitude);
  EXPECT_LT(evaluator.score.samples[37].latitude, evaluator.score.samples[36].latitude);

  // Each orientation carries its direction onto +z, with w never negative and
  // the rotation vector matching the quaternion.
  for (const OrientationSample& s : evaluator.score.samples) {
    const Eigen::Quaterniond q(s.quaternion[0], s.quaternion[1], s.quaternion[2], s.quaternion[3]);
    const Eigen::Vector3d d(s.direction[0], s.direction[1], s.direction[2]);
    const Eigen::AngleAxisd back(q);
    const Eigen::Vector3d v(s.rotationVector[0], s.rotationVector[1], s.rotationVector[2]);
    EXPECT_TRUE(q.w() >= 0.0 && std::abs(q.norm() - 1.0) < 1e-12 && (q * d - Eigen::Vector3d::UnitZ()).norm() < 1e-7 &&
                (back.angle() * back.axis() - v).norm() < 1e-9)
        << s.longitude << " " << s.latitude;
  }
}

TEST(ReportGrid, UnusableStepsLayNoGrid) {
  CoverageEvaluator evaluator;
  for (double step : {0.0, -0.1, std::nan(""), std::numeric_limits<double>::infinity(), 1e-20, degrees(0.05)}) {
    evaluator.score.samples.resize(3);
    evaluator.score.samples = buildReportGrid(6.283185307179586, step);
    EXPECT_TRUE(evaluator.score.samples.empty()) << step;
  }
  // 0.1 degrees, 6.5 million rows, is still allowed.
  EXPECT_LE(estimateReportRows(6.283185307179586, degrees(0.1)), kReportRowLimit);
  EXPECT_GT(estimateReportRows(6.283185307179586, degrees(0.08)), kReportRowLimit);
  evaluator.score.samples = buildReportGrid(6.283185307179586, degrees(400.0));
  EXPECT_EQ(evaluator.score.samples.size(), 1u);
}

TEST(CoverageTable, GradesFollowTheVisibleSensors) {
  const Points up5(5, kUp);
  EXPECT_EQ(grade(facingRow({kTetrahedron.begin(), kTetrahedron.begin() + 3}, {3, kUp})), "0 100");
  const auto four = facingRow(kTetrahedron, {4, kUp});
  EXPECT_EQ(grade(four), "99 1");
  Points five = kTetrahedron;
  five.push_back({0.05f, 0.05f, 0.01f});
  EXPECT_EQ(grade(facingRow(five, up5)), "100 0");
  // Four in one plane, and five that are nearly collinear: no triangle wide
  // enough, or none with a sensor off its plane.
  EXPECT_EQ(grade(facingRow({{0, 0, 0}, {0.05f, 0, 0}, {0, 0.05f, 0}, {0.05f, 0.05f, 0}}, {4, kUp})), "96 4");
  EXPECT_EQ(grade(facingRow({{0, 0, 0}, {0.05f, 0.004f, 0}, {0.1f, 0, 0.004f}, {0.15f, 0, 0}, {0.2f, 0.004f, 0}}, up5)),
            "96 4");

  // The whole line of a good view: sigmas small, channels listed.
  ASSERT_EQ(four.size(), 16u);
  EXPECT_EQ(four[2] + " " + four[3] + " " + four[4] + " " + four[5] + four[6] + four[7], "2.0 0.0 4 000");
  for (int column : {10, 11}) {
    EXPECT_GT(std::stod(four[column]), 0.0);
    EXPECT_LT(std::stod(four[column]), 0.1);
  }
  EXPECT_EQ(four[12] + four[13] + four[14] + four[15], "0123");
}

TEST(CoverageTable, SigmasAreClampedAndFailTheGrade) {
  Points five = kTetrahedron;
  five.push_back({0.05f, 0.05f, 0.01f});
  // A kilometre away the position is lost in metres.
  const auto far = facingRow(five, Points(5, kUp), 1000.0);
  EXPECT_EQ(far[2], "1000.0");
  EXPECT_EQ(grade(far), "0 100");
  EXPECT_EQ(far[11], "1.000000");
  // All sensors in one spot: the information is singular.
  const auto singular = facingRow(Points(5, Eigen::Vector3f(0.01f, 0, 0)), Points(5, kUp));
  EXPECT_EQ(grade(singular), "0 100");
  EXPECT_EQ(singular[10] + " " + singular[11], "1.000000 1.000000");
  // Nothing seen.
  const auto none = facingRow(kTetrahedron, Points(4, kDown));
  EXPECT_EQ(none.size(), 12u);
  EXPECT_EQ(none[4] + " " + grade(none) + " " + none[10] + " " + none[11], "0 0 100 1.000000 1.000000");
}

TEST(CoverageTable, NeverSeenSensorsAndTheStraightAheadRow) {
  // Over the whole sphere every sensor faces the station somewhere, but for
  // one with a zero normal (not a number after reading), on channel 9.
  auto model = makeSensorModel({{0, 0, 0}, {0.05f, 0, 0}, {0, 0.05f, 0}, {0, 0, 0.03f}}, {kUp, kUp, kDown, {0, 0, 0}},
                               {3, 4, 7, 9});
  CoverageEvaluator evaluator;
  testing::attach(evaluator, model.get());
  // At 45 degrees the running sums land on zero: one sample looks straight
  // ahead, and its orientation is not a number.
  evaluator.score.samples = buildReportGrid(6.283185307179586, degrees(45.0));
  ASSERT_EQ(evaluator.score.samples.size(), 45u);
  const testing::PrintedTable table = printTable(evaluator);
  EXPECT_NE(table.out.find("\n0.000000 0.000000 2.0 0.0 0 0 0 0 0 100 1.000000 1.000000\n"), std::string::npos);
  EXPECT_EQ(table.err, "did not see sensor id 9\n");
  size_t lines = 0;
  for (char c : table.out) lines += c == '\n';
  EXPECT_EQ(lines, 45u);
}

TEST(SensitivityTable, PositionTurnsWithTheDevice) {
  Points five = kTetrahedron;
  five.push_back({0.05f, 0.05f, 0.01f});
  auto model = makeSensorModel(five, Points(5, kUp));
  CoverageEvaluator evaluator;
  testing::attach(evaluator, model.get());
  // The second sample turns by 30 degrees about y.
  evaluator.score.samples = {OrientationSample(),
                             {0, 0, {0, M_PI / 6.0, 0}, {std::cos(M_PI / 12.0), 0, std::sin(M_PI / 12.0), 0}}};
  const testing::PrintedTable table = printTable(evaluator, true);
  std::istringstream lines(table.out);
  std::string ahead, turned;
  std::getline(lines, ahead);
  std::getline(lines, turned);
  const auto a = columns(ahead), t = columns(turned);
  ASSERT_EQ(a.size(), 5u);
  ASSERT_EQ(t.size(), 5u);
  // Straight ahead the depth error lies along z. Turned by 30 degrees about y,
  // the device stands off to the side, and its depth error, along the line of
  // sight, leans into x by tan 30 degrees.
  EXPECT_LT(std::stod(a[2]) / std::stod(a[4]), 0.1);
  EXPECT_NEAR(std::stod(t[2]) / std::stod(t[4]), std::tan(M_PI / 6.0), 0.08);
  EXPECT_TRUE(table.err.empty());
}

}  // namespace
}  // namespace sensorlay
