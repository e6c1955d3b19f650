// sensorlay-lab's command line, check and score, run as the real program on
// generated meshes and models.

#include <gtest/gtest.h>
#include <json/json.h>

#include <string>
#include <vector>

#include "common/json_io.h"
#include "lab/sha256.h"
#include "tests/lab/lab_fixtures.h"
#include "tests/support/frontend_fixtures.h"
#include "tests/support/meshes.h"
#include "tests/support/run_binary.h"

namespace sensorlay {
namespace {

using testing::Mesh;
using testing::RunResult;

using testing::parsedJson;

// The same triangles wound and facing the other way: an inside-out shell.
Mesh insideOut(Mesh mesh) {
  for (testing::Triangle& t : mesh) {
    std::swap(t.b, t.c);
    t.normal = -t.normal;
  }
  return mesh;
}

struct LabFixture {
  testing::TempDir dir;
  LabFixture() { testing::writeStlBinary(dir.file("box.stl"), testing::labBox()); }
  RunResult lab(const std::vector<std::string>& args) const { return testing::runLab(args, dir.path()); }
};

TEST(LabCommandLine, HelpVersionAndUsageErrors) {
  LabFixture f;
  const RunResult help = f.lab({"--help"});
  EXPECT_EQ(help.status, 0);
  for (const char* sub : {"check", "score", "design", "view"}) {
    EXPECT_NE(help.out.find(std::string("  ") + sub + " "), std::string::npos) << sub;
    const RunResult subHelp = f.lab({sub, "--help"});
    EXPECT_EQ(subHelp.status, 0) << sub;
    for (const std::string& part :
         {"usage: sensorlay-lab " + std::string(sub), std::string("Options:"), std::string("--sensor-size MM"),
          std::string("millimetres"), std::string("Examples:")})
      EXPECT_NE(subHelp.out.find(part), std::string::npos) << sub << ": " << part;
  }
  EXPECT_EQ(f.lab({"--version"}).out.rfind("sensorlay-lab 1.", 0), 0u);

  // One line says what is wrong, one where to look; status 2, nothing done.
  const std::vector<std::string> design = {"design", "--sensors", "box.stl", "--count", "4", "--out", "x"};
  auto with = [](std::vector<std::string> args, std::vector<std::string> more) {
    args.insert(args.end(), more.begin(), more.end());
    return args;
  };
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
      {{"design", "--sensors", "box.stl", "--count", "33", "--out", "x"},
       "design: --count must be a whole number from 1 to 32, not '33'"},
      {with(design, {"--iterations", "0"}), "design: --iterations must be a whole number from 1 to 1000, not '0'"},
      {with(design, {"--orientations", "1"}), "design: --orientations must be a whole number from 2 to 100000"},
      {with(design, {"--cooling-rate", "1"}), "design: --cooling-rate must be above 0 and below 1, not '1'"},
      {with(design, {"--unseen-cost", "sometimes"}), "design: --unseen-cost must be weighted or flat"},
      {with(design, {"--seed"}), "design: --seed needs a value"},
      {with(design, {"--seed", "12abc"}), "design: --seed must be a whole number from 0 to 4294967295"},
      {{"check", "--sensors", "box.stl", "--sensor-size", "0"}, "check: --sensor-size must be a diameter"},
      {{"check", "--sensors", "box.stl", "--sensor-size", "-2"}, "check: --sensor-size must be a diameter"},
      {{"check", "--sensors", "box.stl", "--units", "furlong"}, "check: --units must be auto, mm, cm, m or in"},
      {{"score", "m.json", "--sensors", "box.stl", "--quality-range", "5,1"}, "score: --quality-range must be"},
      {{"score", "m.json", "--sensors", "box.stl", "--frobnicate"}, "score: unknown option --frobnicate"},
      {{"score", "--sensors", "box.stl"}, "score: which model? give MODEL.json"},
      {{"design", "--sensors", "box.stl", "--count", "4"}, "design: --out is required"},
  };
  for (const auto& [args, expected] : cases) {
    const RunResult r = f.lab(args);
    EXPECT_EQ(r.status, 2) << expected;
    EXPECT_EQ(r.err.rfind("sensorlay-lab " + expected, 0), 0u) << r.err;
    EXPECT_NE(r.err.find("\ntry 'sensorlay-lab " + args[0] + " --help'\n"), std::string::npos) << r.err;
    EXPECT_EQ(r.out, "");
  }
  const RunResult unknown = f.lab({"frob"});
  EXPECT_EQ(unknown.status, 2);
  EXPECT_EQ(unknown.err, "sensorlay-lab: unknown subcommand 'frob'\ntry 'sensorlay-lab --help'\n");
}

TEST(LabCheck, EachFindingSaysWhatToDo) {
  LabFixture f;
  struct Case {
    std::string name;
    Mesh mesh;
    std::vector<std::string> extra;
    int status;
    std::string finding;  // "" for none
  };
  Mesh someZero = testing::labBox(), allZero = testing::labBox();
  for (size_t i = 0; i < allZero.size(); ++i) {
    allZero[i].normal = Eigen::Vector3f::Zero();
    if (i % 10 == 0) someZero[i].normal = Eigen::Vector3f::Zero();
  }
  testing::writeStlBinary(f.dir.file("head-in-m.stl"), testing::boxMesh({-0.1f, -0.1f, 0.05f}, {0.1f, 0.1f, 0.25f}));
  testing::writeStlBinary(f.dir.file("empty.stl"), {});
  testing::writeFile(f.dir.file("garbage.stl"), "solid x\nfacet normal 1 2\n");
  const std::vector<Case> cases = {
      {"box.stl", {}, {}, 0, ""},
      // A 7 x 7 x 1.5 cm puck exported in centimetres reads as 10 mm across.
      {"puck-cm.stl",
       testing::boxMesh({-3.5f, -3.5f, 0}, {3.5f, 3.5f, 1.5f}),
       {},
       0,
       "warning: puck-cm.stl: taken in mm, the device is 10.01 mm across, small for a tracked device; in cm it would "
       "be 100.1 mm (--units cm); in in it would be 254.3 mm (--units in)"},
      {"puck-cm.stl", testing::boxMesh({-3.5f, -3.5f, 0}, {3.5f, 3.5f, 1.5f}), {"--units", "cm"}, 0, ""},
      {"box.stl",
       {},
       {"--obstacles", "head-in-m.stl"},
       0,
       "warning: head-in-m.stl: taken in mm, the obstacle is 0.3464 mm across beside a surface of 107.7 mm; if it is "
       "in m, give --obstacle-units m (it is then 346.4 mm across)"},
      {"box.stl", {}, {"--obstacles", "head-in-m.stl", "--obstacle-units", "m"}, 0, ""},
      {"some-zero.stl",
       someZero,
       {},
       0,
       "warning: some-zero.stl: 20 triangles have a zero normal; sensorlay never puts a sensor there"},
      {"all-zero.stl", allZero, {}, 1, "fatal: all-zero.stl: all normals are zero"},
      {"inside-out.stl",
       insideOut(testing::labBox()),
       {},
       1,
       "fatal: inside-out.stl: the closed shell's normals point into"},
      {"box.stl",
       {},
       {"--sensor-size", "120"},
       1,
       "fatal: a sensor of 120 mm fits at none of 2000 random spots on box.stl; give a smaller --sensor-size"},
      {"empty.stl", {}, {}, 1, "fatal: empty.stl: the file holds no triangles"},
  };
  for (const Case& c : cases) {
    if (!c.mesh.empty()) testing::writeStlBinary(f.dir.file(c.name), c.mesh);
    std::vector<std::string> args = {"check", "--sensors", c.name};
    args.insert(args.end(), c.extra.begin(), c.extra.end());
    const RunResult r = f.lab(args);
    EXPECT_EQ(r.status, c.status) << c.name << "\n" << r.out << r.err;
    if (c.finding.empty())
      EXPECT_NE(r.out.find("findings: none\n"), std::string::npos) << r.out;
    else
      EXPECT_NE(r.out.find("\n  " + c.finding), std::string::npos) << r.out;
  }

  // The same as JSON, for scripts.
  const RunResult json = f.lab({"check", "--sensors", "box.stl", "--json"});
  ASSERT_EQ(json.status, 0) << json.err;
  const Json::Value report = parsedJson(json.out);
  EXPECT_EQ(report["surface"]["triangles"].asInt(), 192);
  EXPECT_EQ(report["surface"]["unit"].asString(), "mm");
  EXPECT_NEAR(report["surface"]["diagonalMm"].asDouble(), 107.70, 0.01);
  EXPECT_GT(report["surface"]["fitShare"].asDouble(), 0.8);
  EXPECT_TRUE(report["designMeaningful"].asBool());
  EXPECT_EQ(report["findings"].size(), 0u);

  for (const char* bad : {"missing.stl", "garbage.stl"}) {
    const RunResult r = f.lab({"check", "--sensors", bad});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err.rfind("IOError: ", 0), 0u) << r.err;
    EXPECT_NE(r.err.find(bad), std::string::npos) << r.err;
  }
}

TEST(LabScore, BadModelsAndMeshesEndWithOneClearLine) {
  LabFixture f;
  Constellation far = testing::threeSensorConstellation();
  far.channelMap = {0, 1, 2};
  for (Eigen::Vector3f& p : far.modelPoints) p += Eigen::Vector3f(0.2f, 0, 0);
  testing::writeModelFile(f.dir.file("other.json"), far);
  Constellation big;
  big.valid = true;
  for (int i = 0; i < 33; ++i) {
    big.channelMap.push_back(i);
    big.modelPoints.push_back({0.04f, 0.001f * i, 0});
    big.modelNormals.push_back({1, 0, 0});
  }
  testing::writeModelFile(f.dir.file("big.json"), big);
  testing::writeFile(f.dir.file("empty.json"), "");
  testing::writeFile(f.dir.file("garbage.json"), "{ \"channelMap\" : [ 0, ");
  Mesh zeroed = testing::labBox();
  for (size_t i = 0; i < zeroed.size(); i += 4) zeroed[i].normal = Eigen::Vector3f::Zero();
  testing::writeStlBinary(f.dir.file("zeroed.stl"), zeroed);

  // A model of another device: one line, however many sensors are off.
  RunResult r = f.lab({"score", "other.json", "--sensors", "box.stl", "--orientations", "50", "--coverage-step", "10"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(
      r.err.rfind(
          "note: 3 of the 3 sensors of other.json are not on the surface box.stl (the farthest is 220 mm from it)", 0),
      0u)
      << r.err;
  EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
  EXPECT_EQ(r.out.rfind("score: ", 0), 0u) << r.out;

  // Zero normals are taken from the winding, with one note.
  r = f.lab({"score", "other.json", "--sensors", "zeroed.stl", "--orientations", "50", "--coverage-step", "10"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.err.rfind("note: 48 of the 192 triangles of zeroed.stl have a zero normal; each was given the normal "
                        "of its triangle as wound\n",
                        0),
            0u)
      << r.err;

  const std::vector<std::pair<std::vector<std::string>, std::string>> failures = {
      {{"score", "big.json", "--sensors", "box.stl"}, "big.json: it has 33 sensors, and the tables take at most 32."},
      {{"score", "missing.json", "--sensors", "box.stl"}, "couldn't read missing.json"},
      {{"score", "empty.json", "--sensors", "box.stl"}, "couldn't read empty.json"},
      {{"score", "garbage.json", "--sensors", "box.stl"}, "couldn't parse standalone beaconet_config garbage.json"},
      {{"score", "other.json", "--sensors", "missing.stl"}, "IOError: "},
      {{"score", "other.json", "--sensors", "box.stl", "--quality-map", "missing.png"},
       "Error loading quality map image 'missing.png'"},
      {{"score", "other.json", "--sensors", "box.stl", "--sensor-size", "200"},
       "a sensor of 200 mm is larger than the surface box.stl, 108 mm across"},
  };
  for (const auto& [args, expected] : failures) {
    r = f.lab(args);
    EXPECT_EQ(r.status, 1) << expected;
    EXPECT_EQ(r.err.rfind("sensorlay-lab score: " + expected, 0), 0u) << r.err;
    EXPECT_EQ(r.out, "");
  }
}

TEST(LabSha256, KnownDigests) {
  EXPECT_EQ(lab::sha256Hex(""), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  EXPECT_EQ(lab::sha256Hex("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  // 56 bytes: the length no longer fits the first block.
  EXPECT_EQ(lab::sha256Hex("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"),
            "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1");
  lab::Sha256 pieces;
  const std::string million(1000000, 'a');
  for (size_t at = 0; at < million.size(); at += 999)
    pieces.update(million.data() + at, std::min<size_t>(999, million.size() - at));
  EXPECT_EQ(pieces.hexDigest(), "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
}

}  // namespace
}  // namespace sensorlay
