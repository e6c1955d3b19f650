// Geometry the program cannot work with, end to end: numbers that are not
// finite or out of range in surfaces and models, zero normals, and sensors too
// large for any surface. Each ends in a clear message, never in an abort of
// the ray caster or a search that runs on without a word.

#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "tests/support/frontend_fixtures.h"
#include "tests/support/meshes.h"
#include "tests/support/run_binary.h"

namespace sensorlay {
namespace {

using namespace sensorlay::testing;
using Args = std::vector<std::string>;

constexpr const char* kNoRoom = "WARNING: no room found for a sensor of size ";

// Unusable surfaces are refused with the first bad triangle, before any work.
TEST(HostileGeometry, SurfacesWithUnusableNumbersAreRefused) {
  TempDir dir;
  Mesh far = cubeMesh(30.0f);
  far[7].c.z() = 1.8e28f;  // a corrupt vertex, millimetres
  writeStlBinary(dir.file("far.stl"), far);
  Mesh holey = cubeMesh(0.1f);
  holey[0].a.x() = std::numeric_limits<float>::quiet_NaN();
  writeStlBinary(dir.file("nan.stl"), holey);
  writeStlBinary(dir.file("s.stl"), cubeMesh(0.1f));
  const std::string bound = "; coordinates and normals must be finite and at most 1e+09 in size\n";
  const std::vector<std::pair<Args, std::string>> cases = {
      {{"/generate", "/nsensors", "4", "/sensors", "far.stl", "/outmodel", "d.json"},
       "IOError: \"far.stl\": triangle 8 of 12 has the vertex coordinate 1.8e+28" + bound +
           "Could not build tracked surface from \"far.stl\"\n"},
      // One not-a-number vertex would have sent every sensor to the first triangle.
      {{"/generate", "/nsensors", "4", "/sensors", "nan.stl", "/outmodel", "d.json"},
       "IOError: \"nan.stl\": triangle 1 of 12 has the vertex coordinate nan" + bound +
           "Could not build tracked surface from \"nan.stl\"\n"},
      {{"/verifycoverage", "5", "/sensors", "s.stl", "/obstacles", "nan.stl", "/outscad", "v.scad"},
       "IOError: \"nan.stl\": triangle 1 of 12 has the vertex coordinate nan" + bound +
           "Could not build tracked surface from \"s.stl\" and \"nan.stl\"\n"},
  };
  for (const auto& [args, err] : cases) {
    const RunResult r = runSensorlay(args, dir.path());
    EXPECT_EQ(r.status, 1) << r.err;
    EXPECT_EQ(r.err, err);
  }
  EXPECT_FALSE(fileExists(dir.file("d.json")));
  EXPECT_FALSE(fileExists(dir.file("v.scad")));
}

TEST(HostileGeometry, ModelPositionsBeyondTheFloatRangeAreRefusedAndFarOnesAreNeverSeen) {
  TempDir dir;
  writeStlBinary(dir.file("s.stl"), cubeMesh(0.1f));
  Constellation c = threeSensorConstellation();
  c.modelPoints[1] = Eigen::Vector3f(1e20f, 0.0f, 0.0f);  // metres
  writeModelFile(dir.file("far.json"), c);
  writeFile(dir.file("beyond.json"), R"({ "channelMap": [0, 1], "modelPoints": [[0, 0, 0.05], [1e39, 0, 0]],
                                         "modelNormals": [[0, 0, 1], [1, 0, 0]] })");

  RunResult r = runSensorlay({"/model", "beyond.json", "/sensors", "s.stl"}, dir.path());
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "couldn't read beyond.json: modelPoints[1] is not a finite position in single precision\n");

  // 1e20 m is a number, if not a place: its rays count as blocked rather than
  // abort the ray caster, and the table is made.
  r = runSensorlay({"/model", "far.json", "/sensors", "s.stl", "/angleresolutiondegrees", "30"}, dir.path());
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.err.find("WARNING: Input model point 1 doesn't seem to be on the supplied sensor surface"),
            std::string::npos)
      << r.err;
  EXPECT_NE(r.err.find("did not see sensor id 1\n"), std::string::npos) << r.err;
  EXPECT_FALSE(r.out.empty());
}

// A sensor that fits nowhere keeps the search going, as it always has, but it
// is said why, and the ray caster never sees the absurd rays.
TEST(HostileGeometry, SearchesThatFindNoRoomSayWhy) {
  TempDir dir;
  writeStlBinary(dir.file("s.stl"), cubeMesh(0.1f, 2));
  Mesh flat = cubeMesh(0.1f, 2);
  for (Triangle& t : flat) t.normal = Eigen::Vector3f::Zero();
  writeStlBinary(dir.file("zero.stl"), flat);
  const std::vector<std::pair<Args, std::string>> cases = {
      {{"/verifycoverage", "5", "/sensors", "s.stl", "/outscad", "v.scad", "/sensorsize", "1e20"},
       "1e+20 on \"s.stl\" in 100000 attempts; still searching\n"},
      {{"/verifycoverage", "5", "/sensors", "zero.stl", "/outscad", "v.scad"},
       "0.006 on \"zero.stl\" in 100000 attempts: all normals of the surface are zero; still searching\n"},
  };
  for (const auto& [args, warning] : cases) {
    const RunResult r = runSensorlayUntil(args, "still searching\n", 120.0, dir.path());
    EXPECT_TRUE(r.stopped) << r.status << " " << r.err;
    EXPECT_EQ(r.err, kNoRoom + warning);
  }
  EXPECT_FALSE(fileExists(dir.file("v.scad")));
}

// A common export writes some facets with the normal 0 0 0. Such a triangle
// can never take a sensor, so the design ends as on a clean mesh.
TEST(HostileGeometry, ZeroNormalsOnSomeFacetsLeaveTheDesignToFinish) {
  TempDir dir;
  Mesh headset;
  {
    const std::string sample = readFile(std::string(SENSORLAY_SOURCE_DIR) + "/samples/headset.stl");
    ASSERT_GT(sample.size(), 84u);
    const size_t count = (sample.size() - 84) / 50;
    for (size_t t = 0; t < count; ++t) {
      float v[12];
      std::memcpy(v, sample.data() + 84 + 50 * t, sizeof v);
      Triangle triangle{{v[3], v[4], v[5]}, {v[6], v[7], v[8]}, {v[9], v[10], v[11]}, {v[0], v[1], v[2]}};
      if (t % 20 == 0) triangle.normal = Eigen::Vector3f::Zero();
      headset.push_back(triangle);
    }
  }
  writeStlBinary(dir.file("headset.stl"), headset);
  // Each run has its own clock seed; without the screening about half of
  // them came to a sensor that could never move again.
  for (int run = 0; run < 5; ++run) {
    const RunResult r = runSensorlayUntil(
        {"/generate", "/nsensors", "20", "/sensors", "headset.stl", "/outmodel", "d.json", "/norientations", "100",
         "/niterations", "3", "/coolingrate", "0.7", "/angleresolutiondegrees", "45"},
        kNoRoom, 300.0, dir.path());
    ASSERT_FALSE(r.stopped) << r.err;
    EXPECT_EQ(r.status, 0) << r.err;
    const std::string model = readFile(dir.file("d.json"));
    EXPECT_EQ(model.find("nan"), std::string::npos) << model;
    EXPECT_EQ(model.find("null"), std::string::npos) << model;
  }
}

}  // namespace
}  // namespace sensorlay
