// Counts far beyond the usual ones, end to end: tens of thousands of obstacle
// files, and orientations that no memory can hold, which end with a message
// instead of a crash or a silent hang.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/frontend_fixtures.h"
#include "tests/support/meshes.h"
#include "tests/support/run_binary.h"

namespace sensorlay {
namespace {

using namespace sensorlay::testing;

bool endsWith(const std::string& text, const std::string& end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

// Each obstacle is one file of one triangle; the script imports them in the
// order given, and a file that cannot be read fails the build with every
// path named.
TEST(LargeInputs, ThirtyThousandObstacles) {
  TempDir dir;
  writeStlBinary(dir.file("s.stl"), plateMesh(0.1f));
  writeModelFile(dir.file("m.json"), threeSensorConstellation());
  writeStlBinary(dir.file("o0"), {makeTriangle({0, 0, 0.01f}, {0.01f, 0, 0.01f}, {0, 0.01f, 0.01f})});
  const std::string triangle = readFile(dir.file("o0"));
  std::vector<std::string> args = {"/model", "m.json", "/outscad", "m.scad", "/sensors", "s.stl"};
  std::string named = "Could not build tracked surface from \"s.stl\"";
  for (int i = 0; i < 30000; ++i) {
    const std::string name = "o" + std::to_string(i);
    if (i > 0) writeFile(dir.file(name), triangle);
    args.insert(args.end(), {"/obstacles", name});
    named += " and \"" + name + "\"";
  }
  const RunResult run = runSensorlay(args, dir.path());
  ASSERT_EQ(run.status, 0) << run.err.substr(0, 2000);
  const std::string script = readFile(dir.file("m.scad"));
  const size_t first = script.find("import(\"o0\","), last = script.find("import(\"o29999\",");
  EXPECT_TRUE(first != std::string::npos && last != std::string::npos && first < last);

  args.insert(args.end(), {"/obstacles", "missing"});
  const RunResult failed = runSensorlay(args, dir.path());
  EXPECT_EQ(failed.status, 1);
  EXPECT_EQ(failed.err,
            "IOError: \"missing\": cannot be opened: No such file or directory\n" + named + " and \"missing\"\n");
}

TEST(LargeInputs, OrientationsBeyondMemoryEndWithAMessage) {
  TempDir dir;
  writeStlBinary(dir.file("box.stl"), shellBox());
  const auto design = [&](const std::string& sensors, const std::string& orientations,
                          const std::vector<std::string>& launcher) {
    RunSetup setup;
    setup.workingDirectory = dir.path();
    setup.launcher = launcher;
    return runSensorlay({"/generate", "/nsensors", sensors, "/sensors", "box.stl", "/outmodel", "d.json",
                         "/norientations", orientations, "/niterations", "1", "/coolingrate", "0.1"},
                        setup);
  };

  // The samples alone are beyond any machine: refused before any work.
  const RunResult all = design("4", "2147483647", {});
  EXPECT_EQ(all.status, 1);
  EXPECT_EQ(all.err.find("Too many orientations: 2147483647 samples need 309.2 GB of memory, and this machine has "),
            0u)
      << all.err;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "a sanitizer's shadow memory needs more address space than the limit leaves";
#endif
  // The samples fit, but the scorer's tables (about 1 kB per orientation)
  // do not fit what the process's address space leaves.
  const RunResult tables = design("32", "100000", {"prlimit", "--as=265000000"});
  EXPECT_EQ(tables.status, 1);
  EXPECT_TRUE(endsWith(tables.err, "\nNot enough memory to search 32 sensors over 100000 orientations\n"))
      << tables.err;
  EXPECT_FALSE(fileExists(dir.file("d.json")));
}

}  // namespace
}  // namespace sensorlay
