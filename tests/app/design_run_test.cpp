// The design run from the command line: the search, the script and the model
// file with their score headers, and the analysis that follows.

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <locale>
#include <sstream>
#include <string>

#include "app/modes.h"
#include "model/json_io.h"
#include "model/model_file.h"
#include "model/scad_writer.h"
#include "surface/coverage_evaluator.h"
#include "surface/tracked_surface.h"
#include "tests/support/meshes.h"
#include "tests/support/run_binary.h"

namespace sensorlay {
namespace {

using testing::RunResult;

// A box of 12 x 8 x 6 cm in metres, and five sensors well inside its faces.
testing::Mesh designBox() { return testing::boxMesh({-0.06f, -0.04f, -0.03f}, {0.06f, 0.04f, 0.03f}, 4); }

Constellation fiveFixedSensors() {
  Constellation c;
  c.valid = true;
  c.channelMap = {4, 7, 9, 12, 20};
  c.modelPoints = {{0.0f, 0.0f, 0.03f}, {0.03f, -0.01f, 0.03f}, {0.06f, 0.0f, 0.0f}, {-0.06f, 0.01f, 0.0f},
                   {0.0f, 0.04f, 0.01f}};
  c.modelNormals = {{0, 0, 1}, {0, 0, 1}, {1, 0, 0}, {-1, 0, 0}, {0, 1, 0}};
  return c;
}

const std::vector<std::string> quickSearch = {"/norientations", "30", "/coolingrate", "0.5", "/niterations", "1",
                                              "/angleresolutiondegrees", "15"};

std::vector<std::string> withQuickSearch(std::vector<std::string> args) {
  args.insert(args.end(), quickSearch.begin(), quickSearch.end());
  return args;
}

std::string firstLine(const std::string& text) { return text.substr(0, text.find('\n')); }

// The score as both files print it, recomputed from the written model with
// the search's settings: 30 orientations and the incidence bound less its
// margin.
std::string recomputedScore(const std::string& modelPath, const std::string& surfacePath, int nOrientations,
                            const std::vector<std::string>& obstaclePaths = {}) {
  auto model = loadSensorModel(modelPath);
  if (!model) return "unreadable model";
  TrackedSurface surface(surfacePath, obstaclePaths);
  const double bound = 60.0 - 0.5 * (2.0 * std::asin(1.9 / std::sqrt(static_cast<double>(nOrientations))));
  model->cosMaxIncidence = std::cos(bound * 0.017453292519943295);
  CoverageEvaluator evaluator;
  evaluator.model = model.get();
  evaluator.rebuildObservations();
  evaluator.surface = &surface;
  evaluator.rebuildObservations();
  ::testing::internal::CaptureStderr();
  evaluator.sampleOrientations(nOrientations);
  ::testing::internal::GetCapturedStderr();
  std::ostringstream text;
  text.imbue(std::locale::classic());
  text << evaluator.scorePlacement();
  return text.str();
}

// Each coverage row starts with longitude, latitude, the distance and 0.0.
void expectCoverageTable(const RunResult& run) {
  ASSERT_FALSE(run.out.empty()) << run.err;
  EXPECT_NE(firstLine(run.out).find(" 2.0 0.0 "), std::string::npos) << firstLine(run.out);
}

TEST(DesignRun, EightSensorsAroundFiveFixedOnes) {
  testing::TempDir dir;
  testing::writeStlBinary(dir.file("box.stl"), designBox());
  testing::writeFile(dir.file("fixed.json"), writeStyledJson(constellationToJson(fiveFixedSensors())));

  const RunResult run = testing::runSensorlay(
      withQuickSearch({"/generate", "/nsensors", "8", "/model", "fixed.json", "/sensors", "box.stl", "/outmodel",
                       "out.json", "/outscad", "out.scad"}),
      dir.path());
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.err.find("quality map normalization: 1\nanneal duration: "), 0u) << run.err.substr(0, 200);
  expectCoverageTable(run);

  // The model file: a comment line with the score, then the JSON, and it
  // still reads as a model.
  const std::string modelText = testing::readFile(dir.file("out.json"));
  const std::string header = firstLine(modelText);
  const std::string prefix = "// Final Quality Score: ", suffix = " / 1000 (lower is better)";
  ASSERT_EQ(header.substr(0, prefix.size()), prefix);
  ASSERT_EQ(header.substr(header.size() - suffix.size()), suffix);
  const std::string score = header.substr(prefix.size(), header.size() - prefix.size() - suffix.size());
  Constellation designed;
  ASSERT_TRUE(readModelFile(dir.file("out.json"), designed));
  ASSERT_TRUE(designed.valid);

  // Three sensors were added; the five fixed ones kept their places and lost
  // their channels: the design numbers its sensors from 0.
  EXPECT_EQ(designed.channelMap, (std::vector<int32_t>{0, 1, 2, 3, 4, 5, 6, 7}));
  const Constellation fixed = fiveFixedSensors();
  for (size_t i = 0; i < 5; ++i) {
    EXPECT_EQ(designed.modelPoints[i], fixed.modelPoints[i]) << i;
    EXPECT_EQ(designed.modelNormals[i], fixed.modelNormals[i]) << i;
  }
  TrackedSurface surface(dir.file("box.stl"), {});
  for (size_t i = 5; i < 8; ++i) {
    EXPECT_TRUE(surface.isOnSurface(designed.modelPoints[i], designed.modelNormals[i])) << i;
    EXPECT_TRUE(surface.sensorFits(designed.modelPoints[i], designed.modelNormals[i])) << i;
  }

  // The score is that of the written placement.
  EXPECT_EQ(score, recomputedScore(dir.file("out.json"), dir.file("box.stl"), 30));

  // The script: the same score, the whole JSON in a block comment, then the
  // script of the design with the surface imported.
  const std::string json = modelText.substr(header.size() + 1, modelText.size() - header.size() - 2);
  EXPECT_EQ(modelText.back(), '\n');
  const std::string expectedScript = "/* Final Quality Score: " + score + " / 1000 (lower is better) */\n/*\n" +
                                     json + "*/\n\n" + writeScad(designed, "box.stl", {}, 1.0, false, true);
  EXPECT_EQ(testing::readFile(dir.file("out.scad")), expectedScript);
}

TEST(DesignRun, EachOutputAloneAndTheScriptOpensInOpenScad) {
  testing::TempDir dir;
  // Millimetres this time, with an obstacle above the top face.
  testing::writeStlBinary(dir.file("shell.stl"), testing::scaled(designBox(), 1000.0f));
  testing::writeStlBinary(dir.file("cap.stl"),
                          testing::boxMesh({-20.0f, -20.0f, 40.0f}, {20.0f, 20.0f, 60.0f}, 1));

  // Model file only; a quality range with a bound at zero is dropped, so the
  // score is that of the default curve.
  RunResult run = testing::runSensorlay(withQuickSearch({"/generate", "/nsensors", "6", "/sensors", "shell.stl",
                                                         "/obstacles", "cap.stl", "/outmodel", "only.json",
                                                         "/qualityrange", "0", "5"}),
                                        dir.path());
  ASSERT_EQ(run.status, 0) << run.err;
  expectCoverageTable(run);
  EXPECT_TRUE(testing::fileExists(dir.file("only.json")));
  EXPECT_FALSE(testing::fileExists(dir.file("only.scad")));
  const std::string header = firstLine(testing::readFile(dir.file("only.json")));
  EXPECT_EQ(header, "// Final Quality Score: " + recomputedScore(dir.file("only.json"), dir.file("shell.stl"), 30, {dir.file("cap.stl")}) +
                        " / 1000 (lower is better)");

  // Script only, with normals drawn.
  run = testing::runSensorlay(withQuickSearch({"/generate", "/nsensors", "6", "/sensors", "shell.stl", "/obstacles",
                                               "cap.stl", "/outscad", "only.scad", "/withscadnormals"}),
                              dir.path());
  ASSERT_EQ(run.status, 0) << run.err;
  expectCoverageTable(run);
  const std::string script = testing::readFile(dir.file("only.scad"));
  EXPECT_EQ(script.find("/* Final Quality Score: "), 0u);
  EXPECT_NE(script.find("drawnormals = true;"), std::string::npos);
  EXPECT_NE(script.find("drawlabels = true;"), std::string::npos);
  EXPECT_NE(script.find("modelscale = 1.000000;"), std::string::npos);
  EXPECT_NE(script.find("color(\"orange\") import(\"shell.stl\", convexity = 4);\n"
                        "     color(\"white\") import(\"cap.stl\", convexity = 4);\n"),
            std::string::npos);
  EXPECT_EQ(script.find("only.json"), std::string::npos);

  if (std::system("command -v openscad > /dev/null 2>&1") != 0) GTEST_SKIP() << "openscad is not installed";
  const std::string command = "cd '" + dir.path() + "' && openscad -o out.csg only.scad > openscad.log 2>&1";
  EXPECT_EQ(std::system(command.c_str()), 0) << testing::readFile(dir.file("openscad.log"));
  EXPECT_NE(testing::readFile(dir.file("out.csg")).find("import("), std::string::npos);
}

// In a child process, as the run lowers its thread's priority for good: the
// thread ends at the lowest priority, and the model handed to the analysis
// holds the designed sensors, numbered from 0, as the run wrote them.
int designInProcess(const std::string& folder) {
  testing::writeStlBinary(folder + "/box.stl", designBox());
  TrackedSurface surface(folder + "/box.stl", {});
  DesignOptions options;
  options.generate = true;
  options.nSensors = 5;
  options.nOrientations = 20;
  options.coolingRate = 0.5;
  options.nIterations = 1;
  options.outModelPath = folder + "/m.json";
  const std::unique_ptr<SensorModel> designed = runDesign(options, surface, nullptr);
  Constellation written;
  if (!designed || !readModelFile(folder + "/m.json", written)) return 1;
  if (designed->channels != std::vector<int32_t>{0, 1, 2, 3, 4}) return 2;
  for (size_t i = 0; i < 5; ++i)
    if (designed->points[i] != written.modelPoints[i].cast<double>()) return 3;
  return getpriority(PRIO_PROCESS, static_cast<id_t>(syscall(SYS_gettid)));
}

TEST(DesignRun, LowersItsPriorityAndHandsOnTheDesign) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  testing::TempDir dir;
  EXPECT_EXIT(std::exit(designInProcess(dir.path())), ::testing::ExitedWithCode(19), "anneal duration: ");
}

// An unwritable path loses its output without a word; a file cut short by a
// full disk ends the run with a message and status 1, before the analysis.
TEST(DesignRun, OutputThatCannotBeWritten) {
  testing::TempDir dir;
  testing::writeStlBinary(dir.file("box.stl"), designBox());
  RunResult run = testing::runSensorlay(withQuickSearch({"/generate", "/nsensors", "4", "/sensors", "box.stl",
                                                         "/outmodel", "no/such/folder/m.json", "/outscad", "d.scad"}),
                                        dir.path());
  EXPECT_EQ(run.status, 0) << run.err;
  expectCoverageTable(run);
  EXPECT_TRUE(testing::fileExists(dir.file("d.scad")));

  if (!testing::fileExists("/dev/full")) GTEST_SKIP() << "no /dev/full";
  run = testing::runSensorlay(withQuickSearch({"/generate", "/nsensors", "4", "/sensors", "box.stl", "/outmodel",
                                               "/dev/full", "/outscad", "d.scad"}),
                              dir.path());
  EXPECT_EQ(run.status, 1);
  EXPECT_NE(run.err.find("\nCould not write the whole model file to /dev/full.\n"), std::string::npos) << run.err;
  EXPECT_EQ(run.out, "");
}

}  // namespace
}  // namespace sensorlay
