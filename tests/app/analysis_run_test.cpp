// The analysis, the model-to-script conversion and the surface-fit preview end
// to end: the real binary on generated models and meshes.

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/frontend_fixtures.h"
#include "tests/support/meshes.h"
#include "tests/support/run_binary.h"

namespace sensorlay {
namespace {

using testing::countOf;
using testing::readFile;
using testing::runSensorlay;
using testing::TempDir;

// A 10 cm cube with a sensor in the middle of each face, one more on top, a
// sensor with a zero normal (seen from nowhere) on channel 9, and one on a
// negative channel that the analysis leaves out but the script shows.
Constellation cubeSensors() {
  Constellation c;
  c.valid = true;
  c.channelMap = {0, 1, 2, 3, 4, 5, 6, 9, -1};
  c.modelPoints = {{0.05f, 0, 0},  {-0.05f, 0, 0}, {0, 0.05f, 0},         {0, -0.05f, 0},         {0.02f, 0.03f, 0.05f},
                   {0, 0, -0.05f}, {0, 0, 0.05f},  {0.03f, 0.01f, 0.05f}, {-0.02f, -0.02f, 0.05f}};
  c.modelNormals = {{1, 0, 0},  {-1, 0, 0}, {0, 1, 0}, {0, -1, 0}, {0, 0, 1},
                    {0, 0, -1}, {0, 0, 1},  {0, 0, 0}, {0, 0, 1}};
  return c;
}

struct Fixture {
  TempDir dir;
  Fixture() {
    testing::writeModelFile(dir.file("m.json"), cubeSensors());
    testing::writeStlBinary(dir.file("cube.stl"), testing::cubeMesh(0.1f, 2));
    // A closed box over the top sensor of channel 6: it sees nothing.
    testing::writeStlBinary(dir.file("cap.stl"), testing::boxMesh({-0.01f, -0.01f, 0.045f}, {0.01f, 0.01f, 0.06f}));
  }
  testing::RunResult run(std::vector<std::string> args) const { return runSensorlay(args, dir.path()); }
};

std::vector<std::vector<std::string>> rowsOf(const std::string& out) {
  std::vector<std::vector<std::string>> rows;
  std::istringstream lines(out);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    rows.emplace_back();
    for (std::string w; words >> w;) rows.back().push_back(w);
  }
  return rows;
}

long visibleTotal(const std::string& out) {
  long total = 0;
  for (const auto& row : rowsOf(out)) total += std::stol(row.at(4));
  return total;
}

TEST(AnalysisRunEndToEnd, TableAndTheOptionsThatChangeIt) {
  Fixture f;
  auto with = [&](std::vector<std::string> more) {
    more.insert(more.begin(), {"/model", "m.json", "/angleresolutiondegrees", "10"});
    const auto r = f.run(more);
    EXPECT_EQ(r.status, 0) << r.err;
    return r;
  };
  const std::string plain = with({}).out;
  const auto far = with({"/distancebasemeters", "-2.5"});
  EXPECT_EQ(far.err, "did not see sensor id 9\n");
  const auto rows = rowsOf(far.out);
  ASSERT_EQ(rows.size(), 18u * 37u);
  for (const auto& row : rows) {
    ASSERT_GE(row.size(), 12u);
    EXPECT_EQ(row[2], "2.5");  // the sign of the distance is ignored
    EXPECT_EQ(row.size(), 12u + std::stoul(row[4]));
  }
  // Longitude first, then latitude, radians with six decimals.
  EXPECT_EQ(rows[0][0] + " " + rows[0][1], "-3.141593 -1.570796");
  EXPECT_LT(visibleTotal(with({"/maxincidenceangle", "30"}).out), visibleTotal(plain));

  // The cap also covers the sensor from above: it is not on the surface, as
  // far as the check can tell, and is never seen.
  const auto occluded = with({"/sensors", "cube.stl", "/obstacles", "cap.stl"});
  EXPECT_NE(occluded.err.find("WARNING: Input model point 6 doesn't seem to be on the supplied sensor surface at"),
            std::string::npos);
  EXPECT_NE(occluded.err.find("did not see sensor id 6\ndid not see sensor id 9\n"), std::string::npos);
  for (const auto& row : rowsOf(occluded.out))
    for (size_t i = 12; i < row.size(); ++i) EXPECT_NE(row[i], "6");
  EXPECT_LT(visibleTotal(occluded.out), visibleTotal(plain));

  // The tilted rotor sees the same sensors, with other uncertainties.
  const std::string tilted = with({"/srbtiltdegrees", "10"}).out;
  EXPECT_EQ(visibleTotal(tilted), visibleTotal(plain));
  EXPECT_NE(tilted, plain);

  const auto sensitivity = rowsOf(with({"/basestationsensitivity"}).out);
  ASSERT_EQ(sensitivity.size(), 18u * 37u);
  for (const auto& row : sensitivity) {
    ASSERT_EQ(row.size(), 5u);
    for (size_t i = 2; i < 5; ++i) EXPECT_LE(std::stod(row[i]), 1.0);
  }
}

// Each ends with status 1, nothing on the standard output and no script; a
// message that does not end in a line end is only the start of the message.
TEST(AnalysisRunEndToEnd, RefusalsAndOutputCutShort) {
  Fixture f;
  Constellation big;
  big.valid = true;
  for (int i = 0; i < 33; ++i) {
    big.channelMap.push_back(i);
    big.modelPoints.push_back({0.01f * i, 0, 0});
    big.modelNormals.push_back({0, 0, 1});
  }
  testing::writeModelFile(f.dir.file("big.json"), big);
  big.channelMap = {0, 1, 2, 32};
  big.modelPoints.resize(4);
  big.modelNormals.resize(4);
  testing::writeModelFile(f.dir.file("high.json"), big);
  const std::string cutShort = "Could not write the whole script to /dev/full.\n";
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
      {{"/model", "big.json", "/angleresolutiondegrees", "10"},
       "Cannot analyse big.json: it has 33 sensors, and the tables take at most 32.\n"},
      {{"/model", "high.json", "/angleresolutiondegrees", "10"},
       "Cannot analyse high.json: it uses channel 32, and the tables take the channels 0 to 31.\n"},
      {{"/model", "m.json", "/angleresolutiondegrees", "0"},
       "/angleresolutiondegrees must be a number of degrees above 0, not 0.\n"},
      {{"/model", "m.json", "/angleresolutiondegrees", "0.01"},
       "/angleresolutiondegrees 0.01 would make a table of about"},
      {{"/model", "missing.json", "/outscad", "y.scad"},
       "couldn't read missing.json: file is empty or does not exist\n"},
      {{"/verifycoverage", "2000000", "/sensors", "cube.stl", "/outscad", "y.scad"},
       "/verifycoverage 2000000 is more than the 1000000 placements that one preview can show.\n"},
      {{"/model", "m.json", "/outscad", "/dev/full"}, cutShort},
      {{"/verifycoverage", "5", "/sensors", "cube.stl", "/outscad", "/dev/full"}, cutShort},
      // Outputs that cannot be created are refused before any work.
      {{"/model", "m.json", "/outscad", "no/such/folder/y.scad"},
       "cannot write no/such/folder/y.scad: its folder no/such/folder does not exist\n"},
      {{"/verifycoverage", "5", "/sensors", "cube.stl", "/outscad", "."}, "cannot write .: it is a folder\n"},
  };
  for (const auto& [args, err] : cases) {
    const auto r = f.run(args);
    EXPECT_EQ(r.status, 1) << err;
    EXPECT_EQ(r.out, "") << err;
    if (err.back() == '\n')
      EXPECT_EQ(r.err, err);
    else
      EXPECT_EQ(r.err.rfind(err, 0), 0u) << r.err;
  }
  EXPECT_FALSE(testing::fileExists(f.dir.file("y.scad")));

  // A full disk under the table.
  const std::string command = "cd " + f.dir.path() + " && " + SENSORLAY_BINARY +
                              " /model m.json /angleresolutiondegrees 10 >/dev/full 2>err.txt";
  const int status = std::system(command.c_str());
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 1);
  EXPECT_NE(readFile(f.dir.file("err.txt")).find("couldn't write the table to the standard output stream"),
            std::string::npos);
}

TEST(ModelConversionEndToEnd, ScriptWithoutTable) {
  Fixture f;
  auto r = f.run({"/model", "m.json", "/outscad", "x.scad"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "");
  std::string script = readFile(f.dir.file("x.scad"));
  EXPECT_EQ(script.rfind("/* From m.json*/\n\n\ndrawsensors = true;\ndrawlabels = true;\n", 0), 0u) << script;
  EXPECT_EQ(countOf(script, "\"lime\""), 9u);  // the negative channel too
  EXPECT_EQ(countOf(script, "import("), 0u);

  r = f.run({"/model", "m.json", "/outscad", "x.scad", "/sensors", "cube.stl", "/obstacles", "cap.stl"});
  ASSERT_EQ(r.status, 0) << r.err;
  script = readFile(f.dir.file("x.scad"));
  EXPECT_NE(script.find("import(\"cube.stl\""), std::string::npos);
  EXPECT_NE(script.find("import(\"cap.stl\""), std::string::npos);
}

TEST(VerifyCoverageEndToEnd, PlacementsLieOnTheSurface) {
  Fixture f;
  auto r = f.run({"/verifycoverage", "25", "/sensors", "cube.stl", "/outscad", "v.scad"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "");
  std::string script = readFile(f.dir.file("v.scad"));
  EXPECT_EQ(script.rfind("\ndrawsensors = true;\ndrawlabels = false;\n", 0), 0u);
  EXPECT_EQ(countOf(script, "\"lime\""), 25u);
  // Each on a face of the cube, clear of its edges by the sensor's radius.
  std::istringstream lines(script);
  int channel = 0;
  for (std::string line; std::getline(lines, line);) {
    int c;
    float x, y, z;
    if (std::sscanf(line.c_str(), " [ [ %d, \"lime\" ], [ %f, %f, %f]", &c, &x, &y, &z) != 4) continue;
    EXPECT_EQ(c, channel++);
    int onFace = 0;
    for (float v : {x, y, z}) {
      if (std::fabs(std::fabs(v) - 0.05f) < 1e-5f)
        ++onFace;
      else
        EXPECT_LT(std::fabs(v), 0.05f - 0.0029f);  // a sensor of 6 mm stays off the edge
    }
    EXPECT_EQ(onFace, 1);
  }
  EXPECT_EQ(channel, 25);

  r = f.run({"/verifycoverage", "-3", "/sensors", "cube.stl", "/outscad", "v.scad"});
  ASSERT_EQ(r.status, 0) << r.err;
  script = readFile(f.dir.file("v.scad"));
  EXPECT_EQ(countOf(script, "\"lime\""), 0u);
  EXPECT_NE(script.find("sensors = [\n\n];"), std::string::npos);
}

}  // namespace
}  // namespace sensorlay
