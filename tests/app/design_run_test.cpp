// The design run from the command line: the search, the script and the model
// file with their score headers, and the analysis that follows.

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <string>

#include "app/entry.h"
#include "app/modes.h"
#include "common/json_io.h"
#include "common/worker_pool.h"
#include "device/model_loading.h"
#include "model/scad_writer.h"
#include "surface/tracked_surface.h"
#include "tests/support/meshes.h"
#include "tests/support/run_binary.h"
#include "tests/support/score_runs.h"

namespace sensorlay {
namespace {

using testing::RunResult;

RunResult quickDesign(const testing::TempDir& dir, std::vector<std::string> args,
                      const std::vector<std::string>& launcher = {}) {
  for (const char* a : {"/generate", "/norientations", "30", "/coolingrate", "0.5", "/niterations", "1",
                        "/angleresolutiondegrees", "15"})
    args.push_back(a);
  testing::RunSetup setup;
  setup.workingDirectory = dir.path();
  setup.launcher = launcher;
  return testing::runSensorlay(args, setup);
}

std::string firstLine(const std::string& text) { return text.substr(0, text.find('\n')); }

// The score of the written model as both files print it, recomputed with the
// search's settings: 30 orientations, the incidence bound less its margin.
std::string recomputedScore(const std::string& modelPath, const std::string& surfacePath,
                            const std::vector<std::string>& obstaclePaths = {}) {
  auto loaded = loadSensorModel(modelPath);
  if (!loaded) return "unreadable model";
  std::unique_ptr<SensorModel>& model = *loaded;
  TrackedSurface surface(surfacePath, obstaclePaths);
  model->cosMaxIncidence = std::cos((60.0 - std::asin(1.9 / std::sqrt(30.0))) * 0.017453292519943295);
  std::ostringstream text;
  text << testing::freshScore(model.get(), &surface, 30);
  return text.str();
}

// A coverage row holds longitude, latitude, the distance and 0.0.
void expectCoverageTable(const RunResult& run) { EXPECT_NE(firstLine(run.out).find(" 2.0 0.0 "), std::string::npos); }

TEST(DesignRun, EightSensorsAroundFiveFixedOnes) {
  testing::TempDir dir;
  testing::writeStlBinary(dir.file("box.stl"), testing::shellBox());
  Constellation fixed;
  fixed.valid = true;
  fixed.channelMap = {4, 7, 9, 12, 20};
  fixed.modelPoints = {{0, 0, 0.03f}, {0.03f, -0.01f, 0.03f}, {0.06f, 0, 0}, {-0.06f, 0.01f, 0}, {0, 0.04f, 0.01f}};
  fixed.modelNormals = {{0, 0, 1}, {0, 0, 1}, {1, 0, 0}, {-1, 0, 0}, {0, 1, 0}};
  testing::writeFile(dir.file("fixed.json"), writeStyledJson(constellationToJson(fixed)));

  const RunResult run = quickDesign(dir, {"/nsensors", "8", "/model", "fixed.json", "/sensors", "box.stl", "/outmodel",
                                          "out.json", "/outscad", "out.scad"});
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.err.find("quality map normalization: 1\nanneal duration: "), 0u) << run.err;
  expectCoverageTable(run);

  // The model file: the score in a comment line, then the JSON; it reads as a
  // model, with the five fixed sensors first and all renumbered from 0.
  const std::string modelText = testing::readFile(dir.file("out.json"));
  const std::string score = recomputedScore(dir.file("out.json"), dir.file("box.stl"));
  EXPECT_EQ(firstLine(modelText), "// Final Quality Score: " + score + " / 1000 (lower is better)");
  const Result<Constellation> read = readModelFile(dir.file("out.json"));
  ASSERT_TRUE(read.ok()) << read.message();
  const Constellation& designed = *read;
  EXPECT_EQ(designed.channelMap, (std::vector<int32_t>{0, 1, 2, 3, 4, 5, 6, 7}));
  for (size_t i = 0; i < 5; ++i) EXPECT_EQ(designed.modelPoints[i], fixed.modelPoints[i]) << i;

  // The script: the same score, the whole JSON in a block comment, then the
  // script of the design with the surface imported.
  const std::string json = modelText.substr(modelText.find('\n') + 1, modelText.size() - modelText.find('\n') - 2);
  EXPECT_EQ(testing::readFile(dir.file("out.scad")), "/* Final Quality Score: " + score +
                                                         " / 1000 (lower is better) */\n/*\n" + json + "*/\n\n" +
                                                         writeScad(designed, "box.stl", {}, 1.0, false, true));
}

TEST(DesignRun, ScriptAloneAndOpenScad) {
  testing::TempDir dir;
  testing::writeStlBinary(dir.file("shell.stl"), testing::scaled(testing::shellBox(), 1000.0f));
  testing::writeStlBinary(dir.file("cap.stl"), testing::boxMesh({-20, -20, 40}, {20, 20, 60}));

  RunResult run = quickDesign(dir, {"/nsensors", "6", "/sensors", "shell.stl", "/obstacles", "cap.stl", "/outscad",
                                    "only.scad", "/withscadnormals"});
  ASSERT_EQ(run.status, 0) << run.err;
  expectCoverageTable(run);
  const std::string script = testing::readFile(dir.file("only.scad"));
  EXPECT_NE(script.find("drawnormals = true;"), std::string::npos);
  EXPECT_NE(script.find("modelscale = 1.000000;"), std::string::npos);
  EXPECT_NE(script.find("import(\"shell.stl\", convexity = 4);\n     color(\"white\") import(\"cap.stl\""),
            std::string::npos);

  // A model path that cannot be created is refused before the search; the
  // older script at the other path is kept. The preview, which wins over the
  // design, writes no model file, so its path is not looked at.
  testing::writeFile(dir.file("keep.scad"), "older");
  run = quickDesign(dir,
                    {"/nsensors", "4", "/sensors", "shell.stl", "/outscad", "keep.scad", "/outmodel", "gone/m.json"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "cannot write gone/m.json: its folder gone does not exist\n");
  EXPECT_EQ(testing::readFile(dir.file("keep.scad")), "older");
  run = testing::runSensorlay({"/generate", "/verifycoverage", "3", "/nsensors", "4", "/sensors", "shell.stl",
                               "/outscad", "fit.scad", "/outmodel", "gone/m.json"},
                              dir.path());
  EXPECT_EQ(run.status, 0) << run.err;

  if (std::system("command -v openscad > /dev/null 2>&1") != 0) GTEST_SKIP() << "openscad is not installed";
  const std::string command = "cd '" + dir.path() + "' && openscad -o out.csg only.scad > openscad.log 2>&1";
  EXPECT_EQ(std::system(command.c_str()), 0) << testing::readFile(dir.file("openscad.log"));
}

// A disk that fills while the design is written, whichever of the two files
// it stops, leaves both older files as they were and no temporary behind; the
// run ends with status 1 before the analysis.
TEST(DesignRun, AFullDiskKeepsTheOlderPair) {
  testing::TempDir dir;
  testing::writeStlBinary(dir.file("box.stl"), testing::shellBox());
  testing::writeFile(dir.file("d.scad"), "older script");
  testing::writeFile(dir.file("d.json"), "older model");
  const std::vector<std::string> design = {"/nsensors", "4", "/sensors", "box.stl"};
  auto expectOlderPair = [&](const RunResult& run, const std::string& messages) {
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.out, "");
    // The progress dots end without a line end; the messages follow on lines of their own.
    const std::string tail = "\n" + messages;
    EXPECT_EQ(run.err.substr(run.err.size() - std::min(run.err.size(), tail.size())), tail) << run.err;
    EXPECT_EQ(testing::readFile(dir.file("d.scad")), "older script");
    EXPECT_EQ(testing::readFile(dir.file("d.json")), "older model");
    size_t entries = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(dir.path())) ++entries;
    EXPECT_EQ(entries, 3u);
  };

  // The script holds the model's JSON and the drawing code: a file size limit
  // between the two sizes stops the script alone.
  std::vector<std::string> args = design;
  for (const char* a : {"/outscad", "d.scad", "/outmodel", "d.json"}) args.push_back(a);
  expectOlderPair(quickDesign(dir, args, {"prlimit", "--fsize=2000"}),
                  "Could not write the whole script to d.scad.\n"
                  "Left d.json as it was too: these files are replaced together or not at all.\n");

  args = design;
  for (const char* a : {"/outscad", "d.scad", "/outmodel", "/dev/full"}) args.push_back(a);
  expectOlderPair(quickDesign(dir, args),
                  "Could not write the whole model file to /dev/full.\n"
                  "Left d.scad as it was too: these files are replaced together or not at all.\n");

  // Without the limit both are replaced.
  args = design;
  for (const char* a : {"/outscad", "d.scad", "/outmodel", "d.json"}) args.push_back(a);
  ASSERT_EQ(quickDesign(dir, args).status, 0);
  EXPECT_GT(testing::readFile(dir.file("d.scad")).size(), 2000u);
  EXPECT_LT(testing::readFile(dir.file("d.json")).size(), 2000u);
}

// In a child, as a design lowers its thread's priority for good: the model
// handed on is the one written, and the thread ends at the lowest priority.
int designInProcess(const std::string& folder) {
  testing::writeStlBinary(folder + "/box.stl", testing::shellBox());
  TrackedSurface surface(folder + "/box.stl", {});
  DesignOptions options;
  options.nSensors = 5;
  options.nOrientations = 20;
  options.coolingRate = 0.5;
  options.nIterations = 1;
  options.outModelPath = folder + "/m.json";
  WorkerPool pool(2);
  const std::unique_ptr<SensorModel> designed = runDesign(options, surface, nullptr, pool);
  const Result<Constellation> read = readModelFile(folder + "/m.json");
  if (!designed || !read) return 1;
  const Constellation& written = *read;
  for (size_t i = 0; i < 5; ++i)
    if (designed->channels[i] != static_cast<int32_t>(i) ||
        designed->points[i] != written.modelPoints[i].cast<double>())
      return 2;
  if (getpriority(PRIO_PROCESS, static_cast<id_t>(syscall(SYS_gettid))) != 0) return 3;

  std::vector<std::string> args = {"sensorlay",
                                   "/generate",
                                   "/nsensors",
                                   "5",
                                   "/sensors",
                                   folder + "/box.stl",
                                   "/norientations",
                                   "20",
                                   "/coolingrate",
                                   "0.5",
                                   "/niterations",
                                   "1",
                                   "/outmodel",
                                   folder + "/m.json",
                                   "/angleresolutiondegrees",
                                   "30"};
  std::vector<char*> argv;
  for (std::string& arg : args) argv.push_back(arg.data());
  if (!std::freopen("/dev/null", "w", stdout) || runEntry(static_cast<int>(argv.size()), argv.data()) != 0) return 4;
  return getpriority(PRIO_PROCESS, static_cast<id_t>(syscall(SYS_gettid)));
}

TEST(DesignRun, LowersItsPriorityAndHandsOnTheDesign) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  testing::TempDir dir;
  EXPECT_EXIT(std::exit(designInProcess(dir.path())), ::testing::ExitedWithCode(19), "anneal duration: ");
}

}  // namespace
}  // namespace sensorlay
