// sensorlay-lab sweep and summarize, run as the real program on the local
// pool and on GNU parallel: the plan, runs kept on a second sweep, a failing
// variant that stops nothing else, the summary against each run's own
// record, a stop, and the command lines refused before anything is written.

#include <gtest/gtest.h>
#include <json/json.h>

#include <csignal>
#include <filesystem>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "common/json_io.h"
#include "tests/support/meshes.h"
#include "tests/support/run_binary.h"

namespace sensorlay {
namespace {

using testing::RunResult;

// A design of a fraction of a second on the box.
const std::vector<std::string> kQuick = {"--orientations", "200", "--cooling-rate",  "0.7",
                                         "--iterations",   "2",   "--coverage-step", "6"};

struct SweepFixture {
  testing::TempDir dir;
  SweepFixture() {
    testing::writeStlBinary(dir.file("box.stl"), testing::boxMesh({-40, -30, -20}, {40, 30, 20}, 4));
    testing::writeFile(dir.file("bad.stl"), "not a mesh at all");
    testing::writeFile(dir.file("logins"), ":\n");
    std::filesystem::create_directory(dir.file("home"));
  }
  // A sweep of two counts and two seeds over a good and a broken variant.
  RunResult sweep(const std::string& out, std::vector<std::string> engine,
                  std::vector<std::string> design = kQuick) const {
    std::vector<std::string> args = {"sweep", "--out",     out,           "--counts",  "3,4",        "--seeds",
                                     "2",     "--variant", "box=box.stl", "--variant", "bad=bad.stl"};
    args.insert(args.end(), engine.begin(), engine.end());
    args.push_back("--");
    args.insert(args.end(), design.begin(), design.end());
    return lab(args);
  }
  RunResult lab(const std::vector<std::string>& args) const {
    testing::RunSetup setup;
    setup.workingDirectory = dir.path();
    setup.binary = SENSORLAY_LAB_BINARY;
    // GNU parallel must keep its files in the sweep's folder, not in the home.
    setup.environment = {"HOME=" + dir.file("home")};
    return testing::runSensorlay(args, setup);
  }
  Json::Value json(const std::string& name) const {
    Json::Value root;
    std::string errors;
    EXPECT_TRUE(parseJsonText(testing::readFile(dir.file(name)), root, errors)) << name << errors;
    return root;
  }
};

std::vector<std::vector<std::string>> csvRows(const std::string& text) {
  std::vector<std::vector<std::string>> rows;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    std::vector<std::string> cells;
    std::istringstream in(line + ",");
    for (std::string cell; std::getline(in, cell, ',');) cells.push_back(cell);
    rows.push_back(cells);
  }
  return rows;
}

// The summary without its wall times, which are all that differs between
// engines.
std::string withoutWallTimes(const std::string& csv) {
  std::string kept;
  for (std::vector<std::string> row : csvRows(csv)) {
    row.erase(row.begin() + 7);
    for (const std::string& cell : row) kept += cell + ",";
    kept += "\n";
  }
  return kept;
}

TEST(LabSweep, LocalAndParallelMakeTheSameRunsAndSummary) {
  SweepFixture f;
  const RunResult local = f.sweep("local", {"--jobs", "2"});
  // The broken variant fails each of its runs, and stops none of the others.
  EXPECT_EQ(local.status, 1) << local.err;
  EXPECT_EQ(testing::readFile(f.dir.file("local/plan.tsv")),
            "run\tvariant\tcount\tseed\tfolder\n"
            "0\tbox\t3\t1\truns/box-n3-s1\n1\tbox\t3\t2\truns/box-n3-s2\n2\tbox\t4\t1\truns/box-n4-s1\n"
            "3\tbox\t4\t2\truns/box-n4-s2\n4\tbad\t3\t1\truns/bad-n3-s1\n5\tbad\t3\t2\truns/bad-n3-s2\n"
            "6\tbad\t4\t1\truns/bad-n4-s1\n7\tbad\t4\t2\truns/bad-n4-s2\n");
  EXPECT_NE(local.err.find("8 runs: 4 failed, 4 finished\n  bad-n3-s1: failed\n    | sensorlay-lab design: IOError: "),
            std::string::npos)
      << local.err;
  const Json::Value first = f.json("local/runs/box-n3-s2/design.run.json");
  EXPECT_EQ(first["status"].asString(), "finished");
  EXPECT_EQ(first["seed"].asUInt(), 2u);
  EXPECT_EQ(first["count"].asInt(), 3);
  EXPECT_EQ(f.json("local/runs/bad-n4-s1/design.run.json")["status"].asString(), "failed");

  // Again: the finished runs are kept as they are, the failed ones run again.
  const RunResult again = f.sweep("local", {});
  EXPECT_EQ(again.status, 1);
  EXPECT_NE(again.err.find("resuming the sweep"), std::string::npos) << again.err;
  EXPECT_NE(again.err.find("8 runs, 4 finished before"), std::string::npos) << again.err;
  EXPECT_NE(again.err.find("bad-n4-s2: started"), std::string::npos);
  EXPECT_EQ(again.err.find("box-n3-s1: started"), std::string::npos);
  EXPECT_EQ(f.json("local/runs/box-n3-s2/design.run.json"), first);

  const RunResult summary = f.lab({"summarize", "local"});
  EXPECT_EQ(summary.status, 0) << summary.err;
  EXPECT_NE(summary.out.find("box: the best of all counts is "), std::string::npos) << summary.out;
  EXPECT_NE(summary.out.find("8 runs: 4 failed, 4 finished"), std::string::npos) << summary.out;

  // The summary's numbers are each run's own, and the best seed of a count
  // is the one with the lowest score.
  const std::vector<std::vector<std::string>> rows = csvRows(testing::readFile(f.dir.file("local/summary.csv")));
  ASSERT_EQ(rows.size(), 9u);
  EXPECT_EQ(rows[0], (std::vector<std::string>{"variant", "count", "seed", "score", "full_fix_share",
                                               "median_position_mm", "median_rotation_deg", "wall_seconds", "status"}));
  std::map<std::string, std::pair<double, std::string>> best;
  for (size_t i = 1; i < rows.size(); ++i) {
    const std::vector<std::string>& row = rows[i];
    const std::string run = "local/runs/" + row[0] + "-n" + row[1] + "-s" + row[2] + "/design";
    const Json::Value record = f.json(run + ".run.json");
    EXPECT_EQ(row[8], record["status"].asString());
    EXPECT_EQ(std::stod(row[7]), record["wallSeconds"].asDouble());
    if (row[0] == "bad") {
      EXPECT_EQ(row[3] + row[4] + row[5] + row[6], "");
      continue;
    }
    const Json::Value coverage = f.json(run + ".coverage.json");
    EXPECT_EQ(std::stod(row[3]), record["score"].asDouble());
    EXPECT_EQ(std::stod(row[4]), coverage["fullFixShare"].asDouble());
    if (coverage["fixShare"].asDouble() > 0.0) {
      EXPECT_DOUBLE_EQ(std::stod(row[5]), coverage["positionSigmaMeters"]["median"].asDouble() * 1000.0);
      EXPECT_DOUBLE_EQ(std::stod(row[6]), coverage["rotationSigmaRadians"]["median"].asDouble() * 180.0 / M_PI);
    }
    const std::string count = row[0] + "-n" + row[1];
    if (best.count(count) == 0 || std::stod(row[3]) < best[count].first) best[count] = {std::stod(row[3]), run};
  }
  for (const auto& [count, chosen] : best) {
    for (const char* suffix : {".json", ".scad", ".run.json"})
      EXPECT_EQ(testing::readFile(f.dir.file("local/best/" + count + suffix)),
                testing::readFile(f.dir.file(chosen.second + suffix)))
          << count << suffix;
    EXPECT_NE(summary.out.find("  local/best/" + count + ".html\n"), std::string::npos) << summary.out;
    EXPECT_NE(testing::readFile(f.dir.file("local/best/" + count + ".html")).find("<html"), std::string::npos);
  }
  const std::string png = testing::readFile(f.dir.file("local/score-vs-count.png"));
  EXPECT_EQ(png.substr(0, 8), "\x89PNG\r\n\x1a\n");
  EXPECT_GT(png.size(), 10000u);

  // GNU parallel, with this machine as its one ssh login, makes the same runs.
  const RunResult parallel = f.sweep("parallel", {"--engine", "parallel", "--sshloginfile", "logins"});
  EXPECT_EQ(parallel.status, 1) << parallel.err;
  EXPECT_EQ(f.lab({"summarize", "parallel"}).status, 0);
  EXPECT_EQ(withoutWallTimes(testing::readFile(f.dir.file("parallel/summary.csv"))),
            withoutWallTimes(testing::readFile(f.dir.file("local/summary.csv"))));
  EXPECT_EQ(testing::readFile(f.dir.file("parallel/runs/box-n4-s1/design.json")),
            testing::readFile(f.dir.file("local/runs/box-n4-s1/design.json")));
  EXPECT_TRUE(std::filesystem::is_empty(f.dir.file("home")));
}

TEST(LabSweep, AStopLeavesTheRunUnderWayInterrupted) {
  SweepFixture f;
  // A schedule of hours; the sweep alone is sent SIGINT once its run is under way.
  const RunResult r =
      testing::runLabUntil({"sweep", "--out", "long", "--counts", "3", "--seeds", "2", "--jobs", "1", "--", "--sensors",
                            "box.stl", "--orientations", "200", "--cooling-rate", "0.9999"},
                           "box-n3-s1: started", SIGINT, 60.0, f.dir.path());
  EXPECT_EQ(r.status, 130) << r.err;
  EXPECT_NE(r.err.find("2 runs: 1 interrupted, 1 planned\n  box-n3-s1: interrupted\n"), std::string::npos) << r.err;
  EXPECT_EQ(f.json("long/runs/box-n3-s1/design.json")["status"].asString(), "interrupted");
  EXPECT_FALSE(testing::fileExists(f.dir.file("long/runs/box-n3-s2")));
}

TEST(LabSweep, BadCommandLinesAndFoldersAreRefusedBeforeAnythingIsWritten) {
  SweepFixture f;
  ASSERT_EQ(f.sweep("kept", {}).status, 1);
  std::filesystem::create_directory(f.dir.file("other"));
  testing::writeFile(f.dir.file("other/notes.txt"), "mine");
  struct Case {
    std::vector<std::string> args;
    int status;
    std::string message;
  };
  const std::vector<std::string> box = {"--", "--sensors", "box.stl"};
  auto sweep = [&](std::vector<std::string> args, const std::vector<std::string>& tail) {
    args.insert(args.begin(), {"sweep", "--out", "new"});
    args.insert(args.end(), tail.begin(), tail.end());
    return args;
  };
  const std::vector<Case> cases = {
      {sweep({"--counts", "8", "--seeds", "1", "--engine", "condor"}, box), 2,
       "sweep: unknown engine 'condor': give local, parallel or slurm"},
      {sweep({"--counts", "8,33", "--seeds", "1"}, box), 2, "sweep: --counts must be sensor counts from 1 to 32"},
      {sweep({"--counts", "0:8:4", "--seeds", "1"}, box), 2, "sweep: --counts must be sensor counts from 1 to 32"},
      {sweep({"--counts", "16:8:4", "--seeds", "1"}, box), 2, "sweep: --counts 16:8:4 gives no count"},
      {sweep({"--counts", "8", "--seeds", "0"}, box), 2, "sweep: --seeds 0 gives no seed: the plan would be empty"},
      {sweep({"--counts", "8", "--seeds", "1"}, {"--", "--sensors", "box.stl", "--count", "8"}), 2,
       "sweep: --count is the sweep's to set for each run (--counts)"},
      {sweep({"--counts", "8", "--seeds", "1"}, {"--", "--sensors", "box.stl", "--orientations", "1"}), 2,
       "sweep: --orientations must be a whole number from 2 to "},
      {sweep({"--counts", "8", "--seeds", "1", "--wait"}, box), 2,
       "sweep: --wait is an option of --engine slurm, not of local"},
      {sweep({"--counts", "8", "--seeds", "1", "--variant", "a=box.stl"}, box), 2,
       "sweep: --sensors and --obstacles after -- and --variant cannot be mixed"},
      {sweep({"--counts", "8", "--seeds", "1", "--variant", "a/b=box.stl"}, {}), 2, "sweep: --variant must be NAME="},
      {sweep({"--counts", "8", "--seeds", "1"}, {"--", "--sensors", "missing.stl"}), 1,
       "sweep: cannot read missing.stl"},
      {{"sweep", "--out", "other", "--counts", "8", "--seeds", "1", "--", "--sensors", "box.stl"},
       1,
       "sweep: other is not empty and holds no sweep"},
      {{"sweep",
        "--out",
        "kept",
        "--counts",
        "3,4",
        "--seeds",
        "3",
        "--variant",
        "box=box.stl",
        "--variant",
        "bad=bad.stl",
        "--",
        "--orientations",
        "300",
        "--cooling-rate",
        "0.7",
        "--iterations",
        "2",
        "--coverage-step",
        "6"},
       1,
       "sweep: kept holds another sweep; what differs:\n  seeds: [1,2] in the folder, [1,2,3] asked\n"
       "  settings.orientations: 200 in the folder, 300 asked\n"},
      {{"summarize", "new"}, 1, "summarize: new holds no sweep: it has no sweep.json"},
  };
  for (const Case& c : cases) {
    const RunResult r = f.lab(c.args);
    EXPECT_EQ(r.status, c.status) << c.message << "\n" << r.err;
    EXPECT_EQ(r.err.rfind("sensorlay-lab " + c.message, 0), 0u) << r.err;
  }
  // An engine whose program is missing says which package brings it.
  for (const auto& [engine, package] :
       {std::pair<std::string, std::string>{"parallel", "parallel"}, {"slurm", "slurm-client (or slurm-wlm)"}}) {
    testing::RunSetup setup;
    setup.workingDirectory = f.dir.path();
    setup.binary = SENSORLAY_LAB_BINARY;
    setup.environment = {"PATH=/nonexistent"};
    const RunResult r = testing::runSensorlay(sweep({"--counts", "8", "--seeds", "1", "--engine", engine}, box), setup);
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("needs it; install the Debian package " + package), std::string::npos) << r.err;
  }
  EXPECT_FALSE(testing::fileExists(f.dir.file("new")));
  EXPECT_EQ(testing::readFile(f.dir.file("other/notes.txt")), "mine");
}

}  // namespace
}  // namespace sensorlay
