// File names that try to get out of where the program prints them: into the
// code of an OpenSCAD script, or into the terminal as escape sequences.

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/frontend_fixtures.h"
#include "tests/support/meshes.h"
#include "tests/support/run_binary.h"

namespace sensorlay {
namespace {

using namespace sensorlay::testing;
using Args = std::vector<std::string>;

// Each path closes the string or the comment it stands in and adds a cube of
// its own; OpenSCAD must see the paths as they are and draw no cube.
TEST(HostilePaths, StayInsideTheStringsAndCommentsOfTheScript) {
  TempDir dir;
  const std::string surface = "s.stl\", convexity = 4); cube(500); import(\"s.stl";
  // A backslash before the quote: escaping the quote alone is not enough.
  const std::string obstacle = "o\\\"); cube(600); import(\"o.stl";
  const std::string model = "m*/cube(800);/*.json";
  writeStlBinary(dir.file(surface), cubeMesh(0.1f));
  writeStlBinary(dir.file(obstacle), cubeMesh(0.02f));
  std::filesystem::create_directories(dir.file("m*/cube(800);"));
  writeModelFile(dir.file(model), threeSensorConstellation());

  const RunResult r =
      runSensorlay({"/model", model, "/outscad", "x.scad", "/sensors", surface, "/obstacles", obstacle}, dir.path());
  ASSERT_EQ(r.status, 0) << r.err;
  const std::string script = readFile(dir.file("x.scad"));
  EXPECT_EQ(script.rfind("/* From m*\\/cube(800);/*.json*/\n\n", 0), 0u) << script;
  EXPECT_NE(script.find("import(\"s.stl\\\", convexity = 4); cube(500); import(\\\"s.stl\", convexity = 4);"),
            std::string::npos);
  EXPECT_NE(script.find("import(\"o\\\\\\\"); cube(600); import(\\\"o.stl\", convexity = 4);"), std::string::npos);

  if (std::system("command -v openscad > /dev/null 2>&1") != 0) GTEST_SKIP() << "openscad is not installed";
  const std::string command = "cd '" + dir.path() + "' && openscad -o x.csg x.scad > openscad.log 2>&1";
  ASSERT_EQ(std::system(command.c_str()), 0) << readFile(dir.file("openscad.log"));
  const std::string tree = readFile(dir.file("x.csg"));
  EXPECT_EQ(countOf(tree, "cube(size"), 0u) << tree;
  EXPECT_EQ(countOf(tree, "import(file"), 2u) << tree;
}

// Control characters in a path reach the terminal escaped, in the messages of
// every reader and writer and in the echo of a bad switch.
TEST(HostilePaths, ReachTheTerminalEscaped) {
  TempDir dir;
  const std::string red = "\x1b[31m";
  const std::string shown = "\\x1b[31m";
  std::filesystem::create_directories(dir.file(red + "dir"));
  const std::vector<std::pair<Args, std::string>> cases = {
      {{"/model", red + ".json"}, "couldn't read " + shown + ".json: file is empty or does not exist\n"},
      {{"/verifycoverage", "3", "/sensors", red + ".stl", "/outscad", "v.scad"},
       "IOError: \"" + shown +
           ".stl\": cannot be opened: No such file or directory\n"
           "Could not build tracked surface from \"" +
           shown + ".stl\"\n"},
      {{"/verifycoverage", "3", "/sensors", "s.stl", "/outscad", "no" + red + "/v.scad"},
       "cannot write no" + shown + "/v.scad: its folder no" + shown + " does not exist\n"},
      {{"/formatconvert", "1", red + "dir"}, "couldn't read " + shown + "dir: file is empty or does not exist\n"},
      {{"/trackref_from_imu", red + "dir"}, "couldn't read " + shown + "dir: not a regular file\n"},
      {{"/model", "m.json", red + "\x07"}, "Unrecognized command line argument [ " + shown + "\\x07 ].\n"},
  };
  for (const auto& [args, err] : cases) {
    const RunResult r = runSensorlay(args, dir.path());
    EXPECT_EQ(r.status, args[0] == "/formatconvert" ? 0 : 1) << err;  // a missing device file is no failure
    // The usage that follows a bad argument is checked elsewhere.
    EXPECT_EQ(r.err.substr(0, err.size()), err);
  }
}

}  // namespace
}  // namespace sensorlay
