// The gnuplot maps of real tables: the scripts make PNG files of the size asked.

#include <gtest/gtest.h>

#include <sys/wait.h>

#include <cstdlib>
#include <string>

#include "tests/support/frontend_fixtures.h"
#include "tests/support/run_binary.h"

namespace sensorlay {
namespace {

using testing::readFile;
using testing::TempDir;

// Width and height from the IHDR chunk, or 0 x 0 for anything that is not a PNG.
std::pair<unsigned, unsigned> pngSize(const std::string& path) {
  const std::string data = readFile(path);
  if (data.size() < 24 || data.compare(0, 8, "\x89PNG\r\n\x1a\n") != 0 || data.compare(12, 4, "IHDR") != 0)
    return {0, 0};
  auto word = [&](size_t at) {
    unsigned v = 0;
    for (size_t i = 0; i < 4; ++i) v = (v << 8) | static_cast<unsigned char>(data[at + i]);
    return v;
  };
  return {word(16), word(20)};
}

int shell(const std::string& command) {
  const int status = std::system(command.c_str());
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(PlotScripts, RealTablesBecomeMapsOfTheAskedSize) {
  if (shell("command -v gnuplot >/dev/null 2>&1") != 0) GTEST_SKIP() << "gnuplot is not installed";
  TempDir dir;
  Constellation c;
  c.valid = true;
  c.channelMap = {0, 1, 2, 3, 4};
  c.modelPoints = {{0, 0, 0}, {0.05f, 0, 0}, {0, 0.05f, 0}, {0, 0, 0.03f}, {0.05f, 0.05f, 0.01f}};
  c.modelNormals = {{0, 0, 1}, {1, 0, 0}, {0, 1, 0}, {0, 0, 1}, {-1, 0, 0}};
  testing::writeModelFile(dir.file("m.json"), c);
  const auto coverage = testing::runSensorlay({"/model", "m.json", "/angleresolutiondegrees", "10"}, dir.path());
  const auto sensitivity = testing::runSensorlay(
      {"/model", "m.json", "/angleresolutiondegrees", "10", "/basestationsensitivity"}, dir.path());
  ASSERT_EQ(coverage.status, 0);
  ASSERT_EQ(sensitivity.status, 0);
  testing::writeFile(dir.file("coverage.txt"), coverage.out);
  testing::writeFile(dir.file("sensitivity.txt"), sensitivity.out);

  const std::string scripts = std::string(SENSORLAY_SOURCE_DIR) + "/scripts/";
  const std::string size = "PLOT_WIDTH=640 PLOT_HEIGHT=400 ";
  ASSERT_EQ(
      shell(size + scripts + "plot-coverage.sh " + dir.file("coverage.txt") + " " + dir.file("maps") + " >/dev/null"),
      0);
  for (const char* name : {"visible-sensors", "grade", "rotation-sigma", "position-sigma"})
    EXPECT_EQ(pngSize(dir.file("maps/") + name + ".png"), std::make_pair(640u, 400u)) << name;

  ASSERT_EQ(shell(scripts + "plot-sensitivity.sh " + dir.file("sensitivity.txt") + " " + dir.file("s") + " >/dev/null"),
            0);
  for (const char* name : {"sigma-x", "sigma-y", "sigma-z"})
    EXPECT_EQ(pngSize(dir.file("s/") + name + ".png"), std::make_pair(1200u, 700u)) << name;

  // Each script refuses the other's table, and an empty one, and draws nothing.
  testing::writeFile(dir.file("empty.txt"), "");
  EXPECT_EQ(shell(scripts + "plot-coverage.sh " + dir.file("sensitivity.txt") + " " + dir.file("x") + " 2>/dev/null"),
            1);
  EXPECT_EQ(shell(scripts + "plot-sensitivity.sh " + dir.file("coverage.txt") + " " + dir.file("x") + " 2>/dev/null"),
            1);
  EXPECT_EQ(shell(scripts + "plot-coverage.sh " + dir.file("empty.txt") + " " + dir.file("x") + " 2>/dev/null"), 1);
  EXPECT_FALSE(testing::fileExists(dir.file("x")));
}

}  // namespace
}  // namespace sensorlay
