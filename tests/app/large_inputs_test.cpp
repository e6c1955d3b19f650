// Counts far beyond the usual ones, end to end: orientations that no memory
// can hold end with a message instead of a crash or a silent hang.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/meshes.h"
#include "tests/support/run_binary.h"

namespace sensorlay {
namespace {

using namespace sensorlay::testing;

bool endsWith(const std::string& text, const std::string& end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
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
  // The samples fit, but the scorer's tables (32 sensors by 100,000
  // orientations, 0.8 GB) do not fit the process's address space.
  const RunResult tables = design("32", "100000", {"prlimit", "--as=800000000"});
  EXPECT_EQ(tables.status, 1);
  EXPECT_TRUE(endsWith(tables.err, "\nNot enough memory to search 32 sensors over 100000 orientations\n"))
      << tables.err;
  EXPECT_FALSE(fileExists(dir.file("d.json")));
}

}  // namespace
}  // namespace sensorlay
