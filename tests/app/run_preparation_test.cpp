// The run preparation end to end: the surface build, and the checks of a
// loaded model against the options and the surface.

#include <gtest/gtest.h>

#include "tests/support/frontend_fixtures.h"
#include "tests/support/meshes.h"
#include "tests/support/run_binary.h"

namespace sensorlay {
namespace {

using namespace sensorlay::testing;
using Args = std::vector<std::string>;

Args concatArgs(Args args, const std::string& last) {
  args.push_back(last);
  return args;
}

class RunPreparation : public ::testing::Test {
 protected:
  void SetUp() override {
    writeStlBinary(dir.file("s.stl"), plateMesh(0.1f));
    writeStlAscii(dir.file("o.stl"), plateMesh(0.1f, 0.5f));
    writeStlBinary(dir.file("empty.stl"), {});
    writeModel("two.json", {{0, 0, 0}, {0.01f, 0.02f, 0}}, {0, 1});
  }
  void writeModel(const std::string& name, const std::vector<Eigen::Vector3f>& points,
                  const std::vector<int32_t>& channels) {
    Constellation c;
    c.valid = true;
    c.channelMap = channels;
    c.modelPoints = points;
    c.modelNormals.assign(points.size(), Eigen::Vector3f(0, 0, 1));
    writeModelFile(dir.file(name), c);
  }
  RunResult run(const Args& args) { return runSensorlay(args, dir.path()); }
  TempDir dir;
};

TEST_F(RunPreparation, FailedBuildNamesEveryPath) {
  RunResult r = run({"/model", "two.json", "/sensors", "s.stl", "/obstacles", "o.stl", "/obstacles", "missing.stl"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "");
  const std::string read = "IOError: \"missing.stl\": cannot be opened: No such file or directory\n";
  EXPECT_EQ(r.err, read + "Could not build tracked surface from \"s.stl\" and \"o.stl\" and \"missing.stl\"\n");
  // A surface without triangles reads well but builds nothing; it is checked before the model.
  r = run({"/generate", "/nsensors", "2", "/sensors", "empty.stl", "/outmodel", "x.json", "/model", "two.json"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "Could not build tracked surface from \"empty.stl\"\n");
  EXPECT_FALSE(fileExists(dir.file("x.json")));
}

TEST_F(RunPreparation, ImmutableModelMustLeaveSensorsToPlace) {
  const Args design = {"/generate", "/sensors", "s.stl", "/outmodel", "x.json", "/model", "two.json", "/nsensors"};
  RunResult r = run(concatArgs(design, "2"));
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "Model of immutable sensors has the same count as /nsensors 2.  Nothing would change!\n");
  r = run(concatArgs(design, "1"));
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "Model of immutable sensors has more than /nsensors 1!\n");
  EXPECT_FALSE(fileExists(dir.file("x.json")));
  // Outside a design run the count is not compared.
  r = run({"/model", "two.json", "/nsensors", "1", "/sensors", "s.stl", "/angleresolutiondegrees", "30"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.err, "");
}

TEST_F(RunPreparation, SensorsOffTheSurfaceOnlyWarn) {
  writeModel("off.json", {{0.01f, 0.02f, 0.5f}, {0, 0, 0.002f}, {-0.25f, 0, 0}}, {0, 1, 2});
  RunResult r = run({"/model", "off.json", "/sensors", "s.stl", "/angleresolutiondegrees", "30"});
  EXPECT_EQ(r.status, 0) << r.err;
  // The position is a column, right-aligned to a common width.
  EXPECT_EQ(r.err,
            "WARNING: Input model point 0 doesn't seem to be on the supplied sensor surface at 0.01\n0.02\n 0.5\n"
            "WARNING: Input model point 2 doesn't seem to be on the supplied sensor surface at -0.25\n    0\n    0\n");
  EXPECT_FALSE(r.out.empty());
}

TEST_F(RunPreparation, ModelWithoutSensorsIsFatalInEveryMode) {
  writeModel("none.json", {{0, 0, 0}}, {-1});
  for (const Args& args : {Args{"/model", "none.json"}, Args{"/model", "none.json", "/sensors", "s.stl"},
                           Args{"/generate", "/nsensors", "3", "/sensors", "s.stl", "/outmodel", "x.json", "/model",
                                "none.json"}}) {
    RunResult r = run(args);
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "WARNING: model does not define any points. "
                     "Confirm channelMap, modelNormals, modelPoints exist in json\n");
    EXPECT_EQ(r.out, "");
  }
}

}  // namespace
}  // namespace sensorlay
