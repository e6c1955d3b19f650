#include "quality/fast_score.h"
#include "common/worker_pool.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "observation/sweep_model.h"
#include "quality/coverage_evaluator.h"
#include "quality/placement_score.h"
#include "quality/score_lanes.h"
#include "quality/score_scratch.h"
#include "surface/tracked_surface.h"
#include "surface/visibility.h"
#include "tests/support/samples.h"
#include "tests/support/score_runs.h"

namespace sensorlay {
namespace {

using testing::attach;
using testing::makeSensorModel;

// A model on a surface (or without one), its evaluator, and the moves of a
// search: one sensor to a new place, kept or put back.
struct Search {
  std::unique_ptr<TrackedSurface> surface;
  std::unique_ptr<SensorModel> model;
  std::unique_ptr<CoverageEvaluator> evaluator = std::make_unique<CoverageEvaluator>();
  std::mt19937 draws{17};

  Search(std::unique_ptr<TrackedSurface> s, std::unique_ptr<SensorModel> m, int32_t orientations)
      : surface(std::move(s)), model(std::move(m)) {
    model->cosMaxIncidence = 0.5;
    attach(*evaluator, model.get(), surface.get());
    evaluator->sampleOrientations(orientations);
  }

  // `count` sensors drawn where they fit on a bundled device, with an
  // obstacle unless it is "".
  static Search onDevice(const std::string& mesh, const std::string& obstacle, uint32_t seed, int count,
                         int32_t orientations) {
    auto surface = std::make_unique<TrackedSurface>(
        testing::samplePath(mesh),
        obstacle.empty() ? std::vector<std::string>{} : std::vector<std::string>{testing::samplePath(obstacle)});
    surface->seedGenerator(seed);
    std::vector<Eigen::Vector3f> points(static_cast<size_t>(count)), normals(points.size());
    for (size_t i = 0; i < points.size(); ++i) surface->randomPlacement(points[i], normals[i]);
    auto model = makeSensorModel(points, normals);
    return Search(std::move(surface), std::move(model), orientations);
  }

  int32_t pick() { return static_cast<int32_t>(draws() % model->points.size()); }

  // Moves `sensor` to a drawn place on the surface; yields the old place.
  std::pair<Eigen::Vector3d, Eigen::Vector3d> move(int32_t sensor) {
    Eigen::Vector3f p, n;
    surface->randomPlacement(p, n);
    return place(sensor, p.cast<double>(), n.cast<double>());
  }
  std::pair<Eigen::Vector3d, Eigen::Vector3d> place(int32_t sensor, const Eigen::Vector3d& p,
                                                    const Eigen::Vector3d& n) {
    std::pair<Eigen::Vector3d, Eigen::Vector3d> old = {model->points[sensor], model->normals[sensor]};
    model->points[sensor] = p;
    model->normals[sensor] = n;
    return old;
  }
};

// The fast score against the reference on the same evaluator, and what each
// leaves in the evaluator: the bits of the last sample, and the sensors ever
// seen.
void expectAgreement(Search& search, double fast, double tolerance, const std::string& where) {
  CoverageEvaluator& evaluator = *search.evaluator;
  const std::vector<bool> visibleNow = evaluator.observations->visibleNow;
  const std::vector<bool> everVisible = evaluator.observations->everVisible;
  const double reference = evaluator.scorePlacement();
  if (tolerance == 0.0)
    EXPECT_EQ(fast, reference) << where;
  else
    EXPECT_NEAR(fast, reference, tolerance * std::abs(reference)) << where;
  EXPECT_EQ(visibleNow, evaluator.observations->visibleNow) << where;
  EXPECT_EQ(everVisible, evaluator.observations->everVisible) << where;
}

// Random moves, each scored both ways, kept or put back at random. Every
// `freshEvery` moves a new scorer set up on the placement reached must give
// the kept score bit for bit: the cached sums do not depend on the history.
void walk(Search& search, FastScorer& scorer, WorkerPool& pool, int moves, double tolerance, int freshEvery = 0) {
  double current = scorer.scoreAll();
  expectAgreement(search, current, tolerance, "start");
  for (int i = 1; i <= moves; ++i) {
    const int32_t sensor = search.pick();
    const auto old = search.move(sensor);
    const double score = scorer.scoreMove(sensor);
    expectAgreement(search, score, tolerance, "move " + std::to_string(i));
    if (search.draws() % 2 == 0) {
      scorer.accept();
      current = score;
    } else {
      search.place(sensor, old.first, old.second);
      scorer.reject();
    }
    if (freshEvery > 0 && i % freshEvery == 0) {
      FastScorer fresh(*search.evaluator, pool);
      EXPECT_EQ(fresh.scoreAll(), current) << "move " << i;
    }
  }
}

TEST(FastScore, AgreesWithTheReferenceOnTheBundledDevices) {
  // Thousands of placements, each one sensor away from the last, on the
  // headset with the head in the way and on the controller.
  WorkerPool pool(2);
  for (const auto& [mesh, obstacle, sensors] :
       {std::tuple<std::string, std::string, int>{"headset.stl", "headset_head.stl", 20}, {"controller.stl", "", 14}}) {
    SCOPED_TRACE(mesh);
    Search search = Search::onDevice(mesh, obstacle, 3, sensors, 300);
    FastScorer scorer(*search.evaluator, pool);
    walk(search, scorer, pool, 1200, 1e-9, 150);
    EXPECT_TRUE(scorer.incremental());
  }
}

// The lanes round alike at every vector width the processor has: the same
// scores bit for bit, move after move.
TEST(FastScore, EveryVectorWidthGivesTheSameBits) {
  WorkerPool pool(1);
  const LaneWidth widest = laneKernelsInUse();
  std::vector<double> scores[3];
  for (LaneWidth width : {LaneWidth::Base, LaneWidth::Avx2, LaneWidth::Avx512}) {
    if (!useLaneKernels(width)) continue;
    Search search = Search::onDevice("headset.stl", "headset_head.stl", 5, 20, 300);
    FastScorer scorer(*search.evaluator, pool);
    std::vector<double>& out = scores[static_cast<int>(width)];
    out.push_back(scorer.scoreAll());
    for (int i = 0; i < 200; ++i) {
      const int32_t sensor = search.pick();
      const auto old = search.move(sensor);
      out.push_back(scorer.scoreMove(sensor));
      if (i % 2 == 1) {
        search.place(sensor, old.first, old.second);
        scorer.reject();
      }
    }
  }
  useLaneKernels(widest);
  for (int w = 1; w < 3; ++w) {
    if (scores[w].empty()) continue;
    EXPECT_EQ(scores[w], scores[0]) << w;
  }
}

// Eight views at once solve as each alone does, to the bit, also where the
// pivots are zero, tiny or not a number, at every vector width: the lanes
// pick their own pivots and rows.
TEST(FastScore, LanesOfViewsSolveAsOneView) {
  const Eigen::MatrixXd W = angleNoiseInformation();
  std::mt19937 draws(5);
  auto draw = [&] { return static_cast<double>(draws() % 2001) / 1000.0 - 1.0; };
  const LaneWidth widest = laneKernelsInUse();
  for (int rows = 2; rows <= kSmallViewRows; rows += 2) {
    alignas(64) double J[kLanes][kCovarianceJacobianSize] = {};
    for (int lane = 0; lane < kLanes; ++lane)
      for (int e = 0; e < rows * 6; ++e) {
        // Lanes 0-3 general, 4 a zero view, 5 two equal rows, 6 one huge
        // entry, 7 a not-a-number.
        J[lane][e] = lane == 4 ? 0.0 : lane == 5 && e >= 6 ? J[lane][e - 6] : draw();
      }
    J[6][3] = 1e200;
    J[7][rows * 6 - 1] = std::nan("");
    const double* views[kLanes];
    for (int lane = 0; lane < kLanes; ++lane) views[lane] = J[lane];
    for (LaneWidth width : {LaneWidth::Base, LaneWidth::Avx2, LaneWidth::Avx512}) {
      if (!useLaneKernels(width)) continue;
      LaneCovariance lanes;
      covarianceLanes(W.data(), static_cast<long>(W.outerStride()), views, rows, lanes);
      for (int lane = 0; lane < kLanes; ++lane) {
        double one[6];
        covarianceDiagonal(W, J[lane], rows, one);
        for (int i = 0; i < 6; ++i)
          EXPECT_EQ(std::memcmp(&one[i], &lanes.diagonal[i][lane], sizeof(double)), 0)
              << rows << " rows, lane " << lane << ", entry " << i << ", width " << static_cast<int>(width) << ": "
              << one[i] << " against " << lanes.diagonal[i][lane];
      }
    }
  }
  useLaneKernels(widest);
}

// The facing test of eight samples at once answers as the visibility test's
// own steps do, ray directions to the bit, at every vector width, also at the
// edge of the limit and for a not-a-number pose.
TEST(FastScore, LanesFaceTheStationAsOneSampleDoes) {
  std::mt19937 draws(9);
  auto draw = [&] { return static_cast<double>(draws() % 2001) / 1000.0 - 1.0; };
  const LaneWidth widest = laneKernelsInUse();
  FacingSensor sensor = {{0.03, -0.02, 0.05}, {0.6, 0.0, 0.8}, {0.1, -0.2, -2.0}, 0.0};
  for (int round = 0; round < 40; ++round) {
    alignas(64) double frames[kLanes][8];
    for (int lane = 0; lane < kLanes; ++lane) {
      double q[4] = {draw(), draw(), draw(), draw()};
      const double length = std::sqrt(q[0] * q[0] + q[1] * q[1] + q[2] * q[2] + q[3] * q[3]);
      for (double& c : q) c /= length;
      if (round == 0 && lane == 7) q[2] = std::nan("");
      std::copy(q, q + 4, frames[lane]);
      objectRotation(q, frames[lane] + 4);
    }
    const double* frame[kLanes];
    for (int lane = 0; lane < kLanes; ++lane) frame[lane] = frames[lane];
    // Each lane as the visibility test's steps see it: its pose, and its
    // incidence, n . towards.
    auto steps = [&](int lane, double towards[3]) {
      StationPose pose = {{sensor.position[0], sensor.position[1], sensor.position[2]}, {}};
      std::copy(frames[lane], frames[lane] + 4, pose.quaternion);
      const bool faces = facesStation(sensor.point, sensor.normal, sensor.cosMaxIncidence, pose, towards);
      double M[3];
      ceres::UnitQuaternionRotatePoint(pose.quaternion, sensor.normal, M);
      return std::make_pair(faces, M[0] * towards[0] + M[1] * towards[1] + M[2] * towards[2]);
    };
    double towards[3];
    // Now and then the limit exactly at a lane's incidence, which it must
    // then miss.
    if (round % 4 == 1) sensor.cosMaxIncidence = steps(3, towards).second;
    uint32_t expected = 0;
    float directions[kLanes][3];
    for (int lane = 0; lane < kLanes; ++lane) {
      if (steps(lane, towards).first) expected |= 1u << lane;
      rayDirection(frames[lane] + 4, towards, directions[lane]);
    }
    for (LaneWidth width : {LaneWidth::Base, LaneWidth::Avx2, LaneWidth::Avx512}) {
      if (!useLaneKernels(width)) continue;
      LaneDirections lanes;
      EXPECT_EQ(facingLanes(frame, sensor, lanes), expected) << round << ", width " << static_cast<int>(width);
      for (int lane = 0; lane < kLanes; ++lane) {
        if ((expected >> lane & 1) == 0) continue;
        for (int c = 0; c < 3; ++c)
          EXPECT_EQ(std::memcmp(&directions[lane][c], &lanes.value[c][lane], sizeof(float)), 0)
              << round << ", lane " << lane << ", width " << static_cast<int>(width);
      }
    }
    sensor.cosMaxIncidence = 0.3 * draw();
  }
  useLaneKernels(widest);
}

TEST(FastScore, DegenerateFewAndFlatViewsAgree) {
  // Views of one or two sensors, of sensors on one point, or on one line,
  // have a singular information matrix: the fast path must reach the very
  // value that the rounding of the reference's LU gives them, and moves that
  // turn a sensor on its place keep them singular. Three sensors give square
  // Jacobians, the smallest solvable views; nine on a flat patch are seen all
  // together or not at all; moves shift a sensor.
  std::vector<Eigen::Vector3f> turned;
  for (int i = 0; i < 8; ++i) turned.push_back(Eigen::Vector3f(std::cos(0.8f * i), std::sin(0.8f * i), 0.6f));
  const Eigen::Vector3f onePoint(0.05f, 0.01f, 0.02f);
  struct Case {
    std::string name;
    std::vector<Eigen::Vector3f> points;
    bool singular;
  };
  std::vector<Case> cases = {{"one sensor", {onePoint}, true},
                             {"two sensors", {onePoint, {-0.04f, 0.02f, 0.03f}}, true},
                             {"on one point", std::vector<Eigen::Vector3f>(8, onePoint), true},
                             {"on one line", {}, true},
                             {"three", {{0.05f, 0, 0.02f}, {-0.03f, 0.04f, 0.02f}, {-0.02f, -0.05f, 0.01f}}, false},
                             {"flat", {}, false}};
  for (int i = 0; i < 9; ++i) {
    if (i < 8) cases[3].points.push_back(Eigen::Vector3f(0.01f * i - 0.04f, 0.02f, 0.03f));
    cases[5].points.push_back(Eigen::Vector3f(0.03f * (i % 3) - 0.03f, 0.03f * (i / 3) - 0.03f, 0.02f));
  }
  WorkerPool pool(2);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const size_t n = c.points.size();
    auto model =
        makeSensorModel(c.points, c.singular ? std::vector<Eigen::Vector3f>(turned.begin(), turned.begin() + n)
                                             : std::vector<Eigen::Vector3f>(n, Eigen::Vector3f(0.1f, 0.2f, 1)));
    Search search(nullptr, std::move(model), c.singular ? 300 : 400);
    FastScorer scorer(*search.evaluator, pool);
    const double tolerance = c.singular ? 0.0 : 1e-9;
    expectAgreement(search, scorer.scoreAll(), tolerance, "start");
    if (c.singular) {
      // Every view that sees a sensor went the reference's way.
      int seen = 0;
      for (const OrientationSample& sample : search.evaluator->score.samples) {
        const StationPose pose = {
            {0, 0, -2}, {sample.quaternion[0], sample.quaternion[1], sample.quaternion[2], sample.quaternion[3]}};
        bool any = false;
        for (const SensorVisibilityTest& test : search.evaluator->observations->visibilityTests)
          any = any || isSensorVisible(test, pose);
        seen += any ? 1 : 0;
      }
      EXPECT_GT(seen, 50);
      EXPECT_EQ(scorer.lastReferenceSamples(), seen);
    } else {
      EXPECT_LT(scorer.lastReferenceSamples(), scorer.lastEvaluatedSamples() / 2);
    }
    for (int i = 0; i < 30; ++i) {
      const int32_t k = search.pick();
      const Eigen::Vector3d shift(0.01 * std::cos(i), 0.01 * std::sin(i), 0.0);
      const auto old =
          c.singular ? search.place(k, search.model->points[k], turned[search.draws() % 8].cast<double>().normalized())
                     : search.place(k, search.model->points[k] + shift, search.model->normals[k]);
      expectAgreement(search, scorer.scoreMove(k), tolerance, "move " + std::to_string(i));
      if (i % 3 == 0) {
        search.place(k, old.first, old.second);
        scorer.reject();
      }
    }
  }
}

TEST(FastScore, WeightsAndUnusableSetUps) {
  Search search = Search::onDevice("controller.stl", "", 8, 10, 200);
  CoverageEvaluator& evaluator = *search.evaluator;

  // Samples of weight 0 or below are skipped, others weigh in, an unseen
  // sample costs 2 whatever its weight.
  for (size_t s = 0; s < evaluator.score.samples.size(); ++s)
    evaluator.score.samples[s].weight = 0.25 * static_cast<double>(s % 7) - 0.5;
  WorkerPool pool(2);
  FastScorer scorer(evaluator, pool);
  walk(search, scorer, pool, 60, 1e-9);

  // With the weighted unseen cost both count an unseen sample at its weight.
  const double flat = evaluator.scorePlacement();
  evaluator.score.unseenCost = UnseenCost::Weighted;
  EXPECT_NE(evaluator.scorePlacement(), flat);
  walk(search, scorer, pool, 60, 1e-9);
  evaluator.score.unseenCost = UnseenCost::Flat;

  // A weight that is not a number spoils the sum in both.
  evaluator.score.samples[7].weight = std::nan("");
  EXPECT_TRUE(std::isnan(scorer.scoreAll()));

  // The rotor station and sensors that share a channel are scored by the
  // reference itself.
  evaluator.score.samples[7].weight = 1.0;
  evaluator.stationConfig.stationKind = StationKind::TiltedRotor;
  evaluator.rebuildObservations();
  EXPECT_EQ(scorer.scoreAll(), evaluator.scorePlacement());
  EXPECT_FALSE(scorer.incremental());
  EXPECT_EQ(scorer.scoreMove(2), evaluator.scorePlacement());

  auto shared = makeSensorModel({{0.02f, 0, 0.03f}, {0, 0.02f, 0.03f}}, {{0, 0, 1}, {0, 0, 1}}, {4, 4});
  CoverageEvaluator sharing;
  attach(sharing, shared.get());
  sharing.sampleOrientations(50);
  FastScorer sharingScorer(sharing, pool);
  EXPECT_EQ(sharingScorer.scoreAll(), sharing.scorePlacement());
  EXPECT_FALSE(sharingScorer.incremental());
}

}  // namespace
}  // namespace sensorlay
