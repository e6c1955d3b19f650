// The run preparation end to end: the surface build and the checks of a
// loaded model against the options and the surface.

#include <gtest/gtest.h>

#include "tests/support/frontend_fixtures.h"
#include "tests/support/meshes.h"
#include "tests/support/run_binary.h"

namespace sensorlay {
namespace {

using namespace sensorlay::testing;

Constellation sensorsAt(const std::vector<Eigen::Vector3f>& points, const std::vector<int32_t>& channels) {
  Constellation c;
  c.valid = true;
  c.channelMap = channels;
  c.modelPoints = points;
  c.modelNormals.assign(points.size(), Eigen::Vector3f(0, 0, 1));
  return c;
}

class RunPreparation : public ::testing::Test {
 protected:
  void SetUp() override {
    writeStlBinary(dir.file("s.stl"), plateMesh(0.1f));
    writeStlAscii(dir.file("o.stl"), plateMesh(0.1f, 0.5f));
    writeStlBinary(dir.file("empty.stl"), {});
    writeModelFile(dir.file("two.json"), sensorsAt({{0, 0, 0}, {0.01f, 0.02f, 0}}, {0, 1}));
  }
  RunResult run(const std::vector<std::string>& args) { return runSensorlay(args, dir.path()); }
  TempDir dir;
};

TEST_F(RunPreparation, FailedBuildNamesEveryPath) {
  RunResult r = run({"/model", "two.json", "/sensors", "s.stl", "/obstacles", "o.stl", "/obstacles", "missing.stl"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err.rfind("IOError: ", 0), 0u) << r.err;
  EXPECT_NE(r.err.find("missing.stl"), std::string::npos);
  const std::string last = "Could not build tracked surface from \"s.stl\" and \"o.stl\" and \"missing.stl\"\n";
  ASSERT_GE(r.err.size(), last.size());
  EXPECT_EQ(r.err.substr(r.err.size() - last.size()), last);

  // A surface without triangles reads well but builds nothing; the surface is
  // checked before the model.
  r = run({"/generate", "/nsensors", "2", "/sensors", "empty.stl", "/outmodel", "x.json", "/model", "two.json"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "Could not build tracked surface from \"empty.stl\"\n");
  EXPECT_FALSE(fileExists(dir.file("x.json")));
}

TEST_F(RunPreparation, ImmutableModelMustLeaveSensorsToPlace) {
  RunResult r = run({"/generate", "/nsensors", "2", "/sensors", "s.stl", "/outmodel", "x.json", "/model", "two.json"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "Model of immutable sensors has the same count as /nsensors 2.  Nothing would change!\n");
  r = run({"/generate", "/nsensors", "1", "/sensors", "s.stl", "/outmodel", "x.json", "/model", "two.json"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "Model of immutable sensors has more than /nsensors 1!\n");
  EXPECT_FALSE(fileExists(dir.file("x.json")));
  // Outside a design run the count is not compared.
  r = run({"/model", "two.json", "/nsensors", "1", "/sensors", "s.stl", "/angleresolutiondegrees", "30"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.err.find("immutable"), std::string::npos) << r.err;
}

TEST_F(RunPreparation, SensorsOffTheSurfaceOnlyWarn) {
  writeModelFile(dir.file("off.json"),
                 sensorsAt({{0.01f, 0.02f, 0.5f}, {0, 0, 0.002f}, {-0.25f, 0, 0}}, {0, 1, 2}));
  RunResult r = run({"/model", "off.json", "/sensors", "s.stl", "/angleresolutiondegrees", "30"});
  EXPECT_EQ(r.status, 0) << r.err;
  // The position is printed as a column, right-aligned to a common width.
  EXPECT_EQ(r.err,
            "WARNING: Input model point 0 doesn't seem to be on the supplied sensor surface at 0.01\n0.02\n 0.5\n"
            "WARNING: Input model point 2 doesn't seem to be on the supplied sensor surface at -0.25\n    0\n    0\n");
  EXPECT_FALSE(r.out.empty());
}

TEST_F(RunPreparation, ModelWithoutSensorsIsFatalInEveryMode) {
  writeModelFile(dir.file("none.json"), sensorsAt({{0, 0, 0}}, {-1}));
  const std::string message =
      "WARNING: model does not define any points. Confirm channelMap, modelNormals, modelPoints exist in json\n";
  for (const auto& args : std::vector<std::vector<std::string>>{
           {"/model", "none.json"},
           {"/model", "none.json", "/sensors", "s.stl"},
           {"/generate", "/nsensors", "3", "/sensors", "s.stl", "/outmodel", "x.json", "/model", "none.json"}}) {
    RunResult r = run(args);
    EXPECT_EQ(r.status, 1) << args.size();
    EXPECT_EQ(r.err, message);
    EXPECT_EQ(r.out, "");
  }
}

}  // namespace
}  // namespace sensorlay
