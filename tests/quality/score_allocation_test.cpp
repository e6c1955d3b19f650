// The score runs for every annealing trial over every sample and sensor; once
// its buffers exist it must not allocate.

#include <gtest/gtest.h>

#include <tuple>

#include "surface/coverage_evaluator.h"
#include "surface/tracked_surface.h"
#include "tests/support/allocation_counter.h"
#include "tests/support/meshes.h"
#include "tests/support/quality_fixtures.h"
#include "tests/support/run_binary.h"

namespace sensorlay {
namespace {

long allocationsDuring(CoverageEvaluator& evaluator, double& score) {
  return testing::countAllocations([&] { score = evaluator.scorePlacement(); });
}

TEST(ScoreAllocation, RepeatedScoresAllocateNothing) {
  if (!testing::allocationCountingAvailable()) GTEST_SKIP() << "the allocator is not ours to count";
  ASSERT_GT(testing::countAllocations([] { delete new std::vector<int>(100); }), 0);  // the counter works

  testing::TempDir dir;
  testing::writeStlBinary(dir.file("sphere.stl"), testing::sphereMesh(0.08f, 24, 32));
  testing::writeStlBinary(dir.file("wall.stl"), testing::plateMesh(0.3f, 0.12f));
  TrackedSurface surface(dir.file("sphere.stl"), {dir.file("wall.stl")});
  ASSERT_GT(surface.faceCount(), 0u);

  // 20 sensors give views of a dozen or so, ray-cast against the surface; 40
  // seen at once exceed the 32 that the noise model has rows for.
  auto twenty = testing::makeSphereSensors(20, 0.0805f), forty = testing::makeSphereSensors(40, 0.0805f);
  twenty->cosMaxIncidence = 0.2;
  forty->cosMaxIncidence = -1.0;
  for (auto [model, occluder, expected] : {std::tuple<SensorModel*, const TrackedSurface*, double>{twenty.get(), &surface, 0},
                                           {forty.get(), nullptr, 1000.0}}) {
    CoverageEvaluator evaluator;
    testing::attach(evaluator, model, occluder);
    ::testing::internal::CaptureStderr();
    evaluator.sampleOrientations(200);
    ::testing::internal::GetCapturedStderr();
    double first = 0.0, second = 0.0;
    allocationsDuring(evaluator, first);  // makes the buffers
    EXPECT_EQ(allocationsDuring(evaluator, second), 0) << model->sensorCount() << " sensors";
    EXPECT_EQ(first, second);
    EXPECT_TRUE(expected > 0.0 ? first == expected : first > 0.0 && first < 1000.0) << first;
  }
}

}  // namespace
}  // namespace sensorlay
