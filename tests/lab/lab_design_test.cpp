// sensorlay-lab design, run as the real program: reproducible seeds, files
// that load where they should, the spacing, the unseen cost, and a run
// stopped by a signal.

#include <dirent.h>
#include <gtest/gtest.h>
#include <json/json.h>

#include <cmath>
#include <csignal>
#include <cstdio>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "common/json_io.h"
#include "tests/lab/lab_fixtures.h"
#include "tests/support/meshes.h"
#include "tests/support/run_binary.h"

namespace sensorlay {
namespace {

using testing::RunResult;

using testing::parsedJson;

// A short schedule over few orientations: a design takes a fraction of a
// second.
const std::vector<std::string> kQuick = {"--orientations",  "200", "--cooling-rate", "0.7", "--iterations", "2",
                                         "--coverage-step", "6",   "--quiet"};

struct DesignFixture {
  testing::TempDir dir;
  DesignFixture() { testing::writeStlBinary(dir.file("box.stl"), testing::labBox()); }
  RunResult lab(const std::vector<std::string>& args) const { return testing::runLab(args, dir.path()); }
  RunResult design(const std::string& out, std::vector<std::string> more,
                   std::vector<std::string> environment = {}) const {
    std::vector<std::string> args = {"design", "--sensors", "box.stl", "--out", out};
    args.insert(args.end(), kQuick.begin(), kQuick.end());
    args.insert(args.end(), more.begin(), more.end());
    testing::RunSetup setup;
    setup.workingDirectory = dir.path();
    setup.environment = std::move(environment);
    return testing::runLab(args, setup);
  }
  Json::Value json(const std::string& name) const { return parsedJson(testing::readFile(dir.file(name))); }
  std::string read(const std::string& name) const { return testing::readFile(dir.file(name)); }
  std::set<std::string> files() const {
    std::set<std::string> names;
    if (DIR* d = opendir(dir.path().c_str())) {
      while (dirent* e = readdir(d)) names.insert(e->d_name);
      closedir(d);
    }
    return names;
  }
};

// The score that `score --json` gives the model with the design's settings,
// as the text of the number.
std::string scoreText(const DesignFixture& f, const std::string& model, std::vector<std::string> settings) {
  std::vector<std::string> args = {"score", model, "--sensors", "box.stl", "--json"};
  args.insert(args.end(), settings.begin(), settings.end());
  const RunResult r = f.lab(args);
  EXPECT_EQ(r.status, 0) << r.err;
  return parsedJson(r.out)["score"].toStyledString();
}

// The least distance between two sensors of a model file, in metres.
double closestPair(const Json::Value& model) {
  const Json::Value& points = model["modelPoints"];
  double closest = INFINITY;
  for (Json::ArrayIndex i = 0; i < points.size(); ++i)
    for (Json::ArrayIndex j = 0; j < i; ++j) {
      double d2 = 0.0;
      for (int c = 0; c < 3; ++c) d2 += std::pow(points[i][c].asDouble() - points[j][c].asDouble(), 2);
      closest = std::min(closest, std::sqrt(d2));
    }
  return closest;
}

TEST(LabDesign, ASeedGivesTheSameFilesOnAnyThreadCount) {
  DesignFixture f;
  const RunResult one = f.design("one", {"--count", "8", "--seed", "7", "--threads", "1"});
  ASSERT_EQ(one.status, 0) << one.err;
  const RunResult two = f.design("two", {"--count", "8", "--seed", "7", "--threads", "2"});
  ASSERT_EQ(two.status, 0) << two.err;
  for (const char* suffix : {".json", ".scad", ".coverage.json"})
    EXPECT_EQ(f.read(std::string("one") + suffix), f.read(std::string("two") + suffix)) << suffix;
#ifdef SENSORLAY_NO_THREADS
  // Where no thread can be started (a process limit), the run goes on, on
  // one, and says so.
  const RunResult none = f.design("none", {"--count", "8", "--seed", "7", "--threads", "2"},
                                  {std::string("LD_PRELOAD=") + SENSORLAY_NO_THREADS});
  ASSERT_EQ(none.status, 0) << none.err;
  EXPECT_NE(none.err.find("note: running on one thread, as no more could be started"), std::string::npos) << none.err;
  EXPECT_EQ(f.read("one.json"), f.read("none.json"));
#endif
  Json::Value a = f.json("one.run.json"), b = f.json("two.run.json");
  EXPECT_EQ(a["threads"].asInt(), 1);
  EXPECT_EQ(b["threads"].asInt(), 2);
  for (const char* varying : {"threads", "commandLine", "wallSeconds", "started", "outputs"}) {
    a.removeMember(varying);
    b.removeMember(varying);
  }
  EXPECT_EQ(a, b);

  // The record holds what made the design.
  EXPECT_EQ(a["status"].asString(), "finished");
  EXPECT_EQ(a["seed"].asUInt(), 7u);
  EXPECT_EQ(a["trials"]["done"].asInt(), a["trials"]["planned"].asInt());
  EXPECT_EQ(a["trials"]["planned"].asInt(), 23 * 8 * 2);  // 23 levels at 0.7
  EXPECT_EQ(a["settings"]["orientations"].asInt(), 200);
  EXPECT_EQ(a["inputs"]["sensors"]["bytes"].asInt(), 84 + 50 * 192);
  if (std::FILE* hash = popen(("sha256sum " + f.dir.file("box.stl")).c_str(), "r")) {
    char digest[65] = {};
    ASSERT_EQ(std::fread(digest, 1, 64, hash), 64u);
    pclose(hash);
    EXPECT_EQ(a["inputs"]["sensors"]["sha256"].asString(), digest);
  }

  // The model is plain JSON that sensorlay analyses and `score` scores as the
  // design did; the script imports the mesh by its absolute path.
  const Json::Value model = f.json("one.json");
  EXPECT_EQ(model["channelMap"].size(), 8u);
  EXPECT_EQ(model["score"].toStyledString(), a["score"].toStyledString());
  EXPECT_EQ(scoreText(f, "one.json", {"--orientations", "200"}), model["score"].toStyledString());
  const RunResult analysis = testing::runSensorlay(
      {"/model", "one.json", "/sensors", "box.stl", "/angleresolutiondegrees", "30"}, f.dir.path());
  EXPECT_EQ(analysis.status, 0) << analysis.err;
  EXPECT_GT(std::count(analysis.out.begin(), analysis.out.end(), '\n'), 50);
  EXPECT_NE(f.read("one.scad").find("import(\"" + f.dir.file("box.stl") + "\""), std::string::npos);

  // Without a seed one is drawn, told and recorded.
  const RunResult drawn = f.design("drawn", {"--count", "3"});
  ASSERT_EQ(drawn.status, 0) << drawn.err;
  const Json::Value record = f.json("drawn.run.json");
  EXPECT_EQ(record["seedFrom"].asString(), "clock");
  EXPECT_EQ(drawn.err,
            "sensorlay-lab design: seed " + std::to_string(record["seed"].asUInt()) + ", drawn from the clock\n");
}

TEST(LabDesign, SpacingIsKeptOrTheRunSaysItCannotBe) {
  DesignFixture f;
  RunResult r = f.design("spaced", {"--count", "12", "--seed", "3", "--min-spacing", "8", "--sensor-size", "4"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_GE(closestPair(f.json("spaced.json")), 0.008);
  EXPECT_EQ(f.json("spaced.run.json")["settings"]["minSpacingMm"].asDouble(), 8.0);

  // Twelve sensors 60 mm apart do not fit on an 80 mm box: the run fails
  // after its bounded tries, records why, and leaves the older files be.
  testing::writeFile(f.dir.file("crowded.json"), "older");
  r = f.design("crowded", {"--count", "12", "--seed", "3", "--min-spacing", "60"});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("keeps 60 mm from the sensors before it in 2000 draws: the spacing cannot be kept"),
            std::string::npos)
      << r.err;
  EXPECT_EQ(f.read("crowded.json"), "older");
  const Json::Value record = f.json("crowded.run.json");
  EXPECT_EQ(record["status"].asString(), "failed");
  EXPECT_NE(record["error"].asString().find("cannot be kept"), std::string::npos);
}

TEST(LabDesign, OutputsAndInputsAreCheckedBeforeTheSearch) {
  DesignFixture f;
  testing::writeStlBinary(f.dir.file("empty.stl"), {});
  testing::writeFile(f.dir.file("garbage.json"), "[ 1, 2");
  testing::writeFile(f.dir.file("two.json"),
                     "{ \"channelMap\" : [ 0, 1 ], \"modelPoints\" : [ [ 0.04, 0, 0 ], "
                     "[ 0.04, 0.01, 0 ] ], \"modelNormals\" : [ [ 1, 0, 0 ], [ 1, 0, 0 ] ] }");
  const std::vector<std::pair<std::vector<std::string>, std::string>> failures = {
      {{"box.stl", "--count", "4", "--out", "gone/x"}, "cannot write gone/x.json: its folder gone does not exist"},
      {{"box.stl", "--count", "4", "--out", "y", "--fixed", "missing.json"}, "cannot read missing.json"},
      {{"box.stl", "--count", "4", "--out", "y", "--fixed", "garbage.json"}, "couldn't parse standalone"},
      {{"box.stl", "--count", "2", "--out", "y", "--fixed", "two.json"},
       "the fixed model two.json has 2 sensors, and --count 2 leaves none to place"},
      {{"box.stl", "--count", "4", "--out", "y", "--sensor-size", "150"},
       "a sensor of 150 mm is larger than the surface"},
      {{"box.stl", "--count", "4", "--out", "y", "--obstacles", "nothing.stl"}, "cannot read nothing.stl"},
      {{"empty.stl", "--count", "4", "--out", "y"}, "empty.stl: the surface holds no triangles"},
  };
  for (const auto& [args, message] : failures) {
    std::vector<std::string> all = {"design", "--seed", "1", "--sensors"};
    all.insert(all.end(), args.begin(), args.end());
    const RunResult r = f.lab(all);
    EXPECT_EQ(r.status, 1) << message;
    EXPECT_EQ(r.err.rfind("sensorlay-lab design: " + message, 0), 0u) << r.err;
  }
  // Nothing but the run records of the runs that got past the check.
  EXPECT_EQ(f.files(),
            (std::set<std::string>{".", "..", "box.stl", "empty.stl", "garbage.json", "two.json", "y.run.json"}));
  EXPECT_EQ(f.json("y.run.json")["status"].asString(), "failed");
}

TEST(LabDesign, AStoppedDesignLeavesAModelThatScoreReads) {
  for (const int signal : {SIGINT, SIGTERM}) {
    DesignFixture f;
    testing::writeFile(f.dir.file("long.json"), "older");
    // A schedule of hours, stopped once the progress shows trials.
    const RunResult r = testing::runLabUntil({"design", "--sensors", "box.stl", "--count", "10", "--seed", "11",
                                              "--orientations", "200", "--cooling-rate", "0.9999", "--out", "long"},
                                             " trials (", signal, 60.0, f.dir.path());
    EXPECT_EQ(r.status, 128 + signal) << r.err;
    const Json::Value model = f.json("long.json");
    EXPECT_EQ(model["status"].asString(), "interrupted");
    EXPECT_EQ(model["modelPoints"].size(), 10u);
    const Json::Value record = f.json("long.run.json");
    EXPECT_EQ(record["status"].asString(), "interrupted");
    EXPECT_LT(record["trials"]["done"].asInt(), record["trials"]["planned"].asInt());
    EXPECT_EQ(scoreText(f, "long.json", {"--orientations", "200"}), model["score"].toStyledString());
    // Every file whole, and no temporary left beside them.
    EXPECT_EQ(f.files(), (std::set<std::string>{".", "..", "box.stl", "long.json", "long.scad", "long.coverage.json",
                                                "long.run.json"}));
  }
}

// A map that is black but for a spot around +X (longitude 90 degrees,
// latitude 0), as a binary PGM.
std::string spotMap() {
  const int width = 72, height = 36;
  std::string pgm = "P5\n72 36\n255\n";
  for (int row = 0; row < height; ++row)
    for (int column = 0; column < width; ++column) {
      const double longitude = (column / (width - 1.0) - 0.5) * 360.0;
      const double latitude = (0.5 - row / (height - 1.0)) * 180.0;
      pgm += static_cast<char>(std::hypot(longitude - 90.0, latitude) < 20.0 ? 255 : 0);
    }
  return pgm;
}

// The mean number of sensors seen from the directions within 15 degrees of +X
// in sensorlay's analysis table of the model.
double seenAroundPlusX(const DesignFixture& f, const std::string& model) {
  const RunResult table =
      testing::runSensorlay({"/model", model, "/sensors", "box.stl", "/angleresolutiondegrees", "5"}, f.dir.path());
  EXPECT_EQ(table.status, 0) << table.err;
  std::istringstream rows(table.out);
  std::string line;
  double seen = 0.0;
  int count = 0;
  while (std::getline(rows, line)) {
    double longitude, latitude, distance, zero;
    int visible;
    if (std::sscanf(line.c_str(), "%lf %lf %lf %lf %d", &longitude, &latitude, &distance, &zero, &visible) != 5)
      continue;
    if (std::hypot(longitude - M_PI / 2, latitude) > 15.0 * M_PI / 180.0) continue;
    seen += visible;
    ++count;
  }
  EXPECT_GT(count, 0);
  return seen / count;
}

TEST(LabDesign, WeightedUnseenCostSeesTheSpotThatFlatLeavesBlind) {
  // Only the spot counts. Seen poorly, a spot direction costs its large
  // weight; unseen, a flat 2. So the flat rule steers every sensor away from
  // the spot, while the weighted rule, under which unseen costs the most,
  // gathers them there.
  DesignFixture f;
  testing::writeFile(f.dir.file("spot.pgm"), spotMap());
  for (const char* rule : {"flat", "weighted"}) {
    const RunResult r = f.design(rule, {"--count", "8", "--seed", "5", "--quality-map", "spot.pgm", "--unseen-cost",
                                        rule, "--cooling-rate", "0.8", "--iterations", "3"});
    ASSERT_EQ(r.status, 0) << r.err;
  }
  // Over seeds the weighted designs see the spot with 2 to 6 sensors; the
  // flat ones never see it.
  EXPECT_EQ(seenAroundPlusX(f, "flat.json"), 0.0);
  EXPECT_GE(seenAroundPlusX(f, "weighted.json"), 2.0);
}

}  // namespace
}  // namespace sensorlay
