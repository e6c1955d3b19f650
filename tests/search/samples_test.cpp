// The bundled sample devices must be usable for a design: millimetre files,
// closed enough for rays, and with room for 6 mm sensors on most of their
// area, or a design on them would search for ever.

#include <gtest/gtest.h>

#include <string>

#include "surface/tracked_surface.h"

namespace sensorlay {
namespace {

TEST(SampleDevices, MillimetreMeshesWithRoomForSensors) {
  const std::string samples = std::string(SENSORLAY_SOURCE_DIR) + "/samples/";
  using Sample = std::pair<std::string, std::vector<std::string>>;
  for (const auto& [name, obstacles] : {Sample{"headset.stl", {"headset_head.stl"}}, Sample{"controller.stl", {}}}) {
    SCOPED_TRACE(name);
    std::vector<std::string> obstaclePaths;
    for (const std::string& o : obstacles) obstaclePaths.push_back(samples + o);
    TrackedSurface surface(samples + name, obstaclePaths);
    ASSERT_GT(surface.faceCount(), 10000u);
    EXPECT_EQ(surface.getScale(), 0.001);
    // Positions drawn by area, with the face's own normal, as in a design.
    // A fitting one finds its surface right below, unless something lies
    // within a centimetre above: the head covers part of the headset's back.
    surface.seedGenerator(1);
    int fits = 0, onSurface = 0;
    for (int i = 0; i < 2000; ++i) {
      const int32_t face = surface.randomFace();
      const Eigen::Vector3f point = surface.randomPointOnFace(face);
      const Eigen::Vector3f normal = surface.faceNormals.row(face).transpose();
      if (!surface.sensorFits(point, normal)) continue;
      ++fits;
      onSurface += surface.isOnSurface(point, normal) ? 1 : 0;
    }
    EXPECT_GE(fits, 1600);
    EXPECT_GE(onSurface, 0.9 * fits);
  }
}

}  // namespace
}  // namespace sensorlay
