// The bundled sample devices must be usable for a design: millimetre files,
// closed enough for rays, and with room for 6 mm sensors on most of their
// area, or a design on them would search for ever.

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "surface/tracked_surface.h"

namespace sensorlay {
namespace {

struct SampleCase {
  const char* name;
  const char* obstacle;
  double minimumFitShare;
};

// Draws positions by area with the face's own normal and counts how many
// have room for a sensor, the test that every placement in a design passes.
double fitShare(TrackedSurface& surface, int draws, int& onSurface) {
  int fits = 0;
  onSurface = 0;
  for (int i = 0; i < draws; ++i) {
    const int32_t face = surface.randomFace();
    const Eigen::Vector3f point = surface.randomPointOnFace(face);
    const Eigen::Vector3f normal = surface.faceNormals.row(face).transpose();
    if (!surface.sensorFits(point, normal)) continue;
    ++fits;
    if (surface.isOnSurface(point, normal)) ++onSurface;
  }
  return static_cast<double>(fits) / draws;
}

TEST(SampleDevices, MillimetreMeshesWithRoomForSensors) {
  const std::string samples = std::string(SENSORLAY_SOURCE_DIR) + "/samples/";
  for (const SampleCase& c : {SampleCase{"headset.stl", "headset_head.stl", 0.8},
                              SampleCase{"controller.stl", nullptr, 0.8}}) {
    SCOPED_TRACE(c.name);
    std::vector<std::string> obstacles;
    if (c.obstacle) obstacles.push_back(samples + c.obstacle);
    TrackedSurface surface(samples + c.name, obstacles);
    ASSERT_GT(surface.faceCount(), 10000u);
    EXPECT_EQ(surface.getScale(), 0.001);
    surface.seedGenerator(1);
    int onSurface = 0;
    const int draws = 2000;
    const double share = fitShare(surface, draws, onSurface);
    EXPECT_GE(share, c.minimumFitShare);
    // A fitting position finds its surface right below, unless something
    // lies within a centimetre above it: the head covers part of the back
    // of the headset.
    EXPECT_GE(onSurface, 0.9 * share * draws);
    std::printf("%s: %.1f%% of positions fit, %d of %d on the surface\n", c.name, 100.0 * share, onSurface,
                static_cast<int>(share * draws));
  }
}

}  // namespace
}  // namespace sensorlay
