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

void writeModel(const TempDir& dir, const std::string& name, const std::vector<Eigen::Vector3f>& points,
                const std::vector<int32_t>& channels) {
  Constellation c;
  c.valid = true;
  c.channelMap = channels;
  c.modelPoints = points;
  c.modelNormals.assign(points.size(), Eigen::Vector3f(0, 0, 1));
  writeModelFile(dir.file(name), c);
}

// A failed check ends the run with status 1, nothing on the standard output
// and no model file; a warning lets the analysis print its table.
TEST(RunPreparation, FailuresAndWarnings) {
  TempDir dir;
  writeStlBinary(dir.file("s.stl"), plateMesh(0.1f));
  writeStlAscii(dir.file("o.stl"), plateMesh(0.1f, 0.5f));
  writeStlBinary(dir.file("empty.stl"), {});
  writeModel(dir, "two.json", {{0, 0, 0}, {0.01f, 0.02f, 0}}, {0, 1});
  writeModel(dir, "off.json", {{0.01f, 0.02f, 0.5f}, {0, 0, 0.002f}, {-0.25f, 0, 0}}, {0, 1, 2});
  writeModel(dir, "none.json", {{0, 0, 0}}, {-1});
  std::vector<Eigen::Vector3f> far(40, Eigen::Vector3f(0, 0, 0.5f));
  std::vector<int32_t> channels(40);
  for (int32_t i = 0; i < 40; ++i) channels[static_cast<size_t>(i)] = i;
  writeModel(dir, "many.json", far, channels);
  const std::string noPoints =
      "WARNING: model does not define any points. Confirm channelMap, modelNormals, modelPoints exist in json\n";
  struct Case {
    Args args;
    std::string err;
    int status = 1;
  };
  const std::vector<Case> cases = {
      {{"/model", "two.json", "/sensors", "s.stl", "/obstacles", "o.stl", "/obstacles", "missing.stl"},
       "IOError: \"missing.stl\": cannot be opened: No such file or directory\n"
       "Could not build tracked surface from \"s.stl\" and \"o.stl\" and \"missing.stl\"\n"},
      // A surface without triangles reads well but builds nothing; it is checked before the model.
      {{"/generate", "/nsensors", "2", "/sensors", "empty.stl", "/outmodel", "x.json", "/model", "two.json"},
       "Could not build tracked surface from \"empty.stl\"\n"},
      {{"/model", "two.json", "/generate", "/sensors", "s.stl", "/outmodel", "x.json", "/nsensors", "2"},
       "Model of immutable sensors has the same count as /nsensors 2.  Nothing would change!\n"},
      {{"/model", "two.json", "/generate", "/sensors", "s.stl", "/outmodel", "x.json", "/nsensors", "1"},
       "Model of immutable sensors has more than /nsensors 1!\n"},
      {{"/model", "none.json"}, noPoints},
      {{"/model", "none.json", "/sensors", "s.stl"}, noPoints},
      {{"/model", "none.json", "/generate", "/sensors", "s.stl", "/outmodel", "x.json", "/nsensors", "3"}, noPoints},
      // More sensors than the tables take are refused before the model is
      // made and held against the surface (no warnings).
      {{"/model", "many.json", "/sensors", "s.stl"},
       "Cannot analyse many.json: it has 40 sensors, and the tables take at most 32.\n"},
      // Outside a design run the count is not compared.
      {{"/model", "two.json", "/nsensors", "1", "/sensors", "s.stl", "/angleresolutiondegrees", "30"}, "", 0},
      // Sensors off the surface only warn; the position is a column,
      // right-aligned to a common width.
      {{"/model", "off.json", "/sensors", "s.stl", "/angleresolutiondegrees", "30"},
       "WARNING: Input model point 0 doesn't seem to be on the supplied sensor surface at 0.01\n0.02\n 0.5\n"
       "WARNING: Input model point 2 doesn't seem to be on the supplied sensor surface at -0.25\n    0\n    0\n",
       0},
  };
  for (const Case& c : cases) {
    const RunResult r = runSensorlay(c.args, dir.path());
    const std::string what = ::testing::PrintToString(c.args);
    EXPECT_EQ(r.status, c.status) << what;
    EXPECT_EQ(r.err, c.err) << what;
    EXPECT_EQ(r.out.empty(), c.status == 1) << what;
  }
  EXPECT_FALSE(fileExists(dir.file("x.json")));
}

}  // namespace
}  // namespace sensorlay
