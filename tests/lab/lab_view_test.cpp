// sensorlay-lab view: the page's binary arrays and its data's escaping, the
// thinning of large meshes, and pages of good and bad inputs written by the
// real program. The pages themselves are opened in a browser by
// design_page_check.mjs.

#include <gtest/gtest.h>
#include <json/json.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "common/json_io.h"
#include "lab/decimation.h"
#include "lab/design_page.h"
#include "lab/view/view_assets.h"
#include "model/constellation.h"
#include "tests/support/frontend_fixtures.h"
#include "tests/support/meshes.h"
#include "tests/support/run_binary.h"

namespace sensorlay {
namespace {

using testing::RunResult;

TEST(LabViewPage, ArraysAndEscapedData) {
  const std::vector<std::pair<std::string, std::string>> known = {
      {"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foo", "Zm9v"}, {"foob", "Zm9vYg=="}, {"foobar", "Zm9vYmFy"}};
  for (const auto& [plain, coded] : known)
    EXPECT_EQ(lab::base64(reinterpret_cast<const uint8_t*>(plain.data()), plain.size()), coded) << plain;
  // Little-endian whatever the machine: 1.0f is 00 00 80 3f.
  EXPECT_EQ(lab::base64Float32({1.0f}), "AACAPw==");
  EXPECT_EQ(lab::base64Uint32({0x01020304u}), "BAMCAQ==");

  // Text in the data cannot end its element or open a comment.
  const std::string page = lab::fillDesignPage("{\"title\":\"</script><!-- & x\"}");
  const std::string empty = lab::fillDesignPage("{}");
  EXPECT_NE(page.find("{\"title\":\"\\u003c/script>\\u003c!-- & x\"}</script>"), std::string::npos);
  EXPECT_EQ(testing::countOf(page, "</script"), testing::countOf(empty, "</script"));
  EXPECT_EQ(testing::countOf(page, "<!--"), testing::countOf(empty, "<!--"));
  EXPECT_EQ(page.find(std::string(lab::viewDataPlaceholder())), std::string::npos);
}

lab::TriangleSoup soupOf(const testing::Mesh& mesh) {
  lab::TriangleSoup soup;
  for (const testing::Triangle& t : mesh)
    for (const Eigen::Vector3f& p : {t.a, t.b, t.c}) soup.insert(soup.end(), {p.x(), p.y(), p.z()});
  return soup;
}

TEST(LabViewPage, ThinnedMeshesKeepTheirBudgetAndOutline) {
  const lab::TriangleSoup sphere = soupOf(testing::sphereMesh(50.0f, 150, 300));  // 89,700 triangles
  for (size_t budget : {size_t{3000}, size_t{20000}}) {
    const lab::TriangleSoup thin = lab::decimateToBudget(sphere, budget);
    const size_t count = thin.size() / 9;
    EXPECT_LE(count, budget);
    EXPECT_GE(count, budget / 2) << "a budget half unused";
    // Every corner stays near the sphere: it is the mean of corners in a cell.
    double worst = 0.0;
    for (size_t i = 0; i < thin.size(); i += 3)
      worst = std::max(worst, std::fabs(std::hypot(thin[i], thin[i + 1], thin[i + 2]) - 50.0));
    EXPECT_LT(worst, 2.5) << budget;
  }
  EXPECT_EQ(lab::decimateToBudget(sphere, 100000), sphere);

  // Two corners in one cell: the triangle goes; a repeat of a kept one too.
  const lab::TriangleSoup sliver = {0, 0, 0,  0.1f, 0, 0, 5, 5,  0, 0, 0, 0,  10, 0,
                                    0, 0, 10, 0,    0, 0, 0, 10, 0, 0, 0, 10, 0};
  EXPECT_EQ(lab::clusterVertices(sliver, 1.0).size(), 9u);

  const std::vector<std::tuple<std::vector<size_t>, size_t, std::vector<size_t>>> shares = {
      {{100, 200}, 1000, {100, 200}},
      {{1000000, 9000}, 80000, {71000, 9000}},
      {{50000, 50000, 10}, 30010, {15000, 15000, 10}},
  };
  for (const auto& [counts, budget, expected] : shares) EXPECT_EQ(lab::shareTriangleBudget(counts, budget), expected);
}

// The data of a page as written into it.
Json::Value pageData(const std::string& page) {
  const std::string open = "<script type=\"application/json\" id=\"sensorlay-data\">";
  const size_t begin = page.find(open);
  const size_t end = page.find("</script>", begin);
  Json::Value root;
  std::string errors;
  EXPECT_NE(begin, std::string::npos);
  EXPECT_TRUE(parseJsonText(page.substr(begin + open.size(), end - begin - open.size()), root, errors)) << errors;
  return root;
}

// Six sensors on a ball of 50 mm radius, facing out, in metres.
Constellation ballSensors(float offsetMetres) {
  Constellation c;
  c.valid = true;
  const std::vector<Eigen::Vector3f> normals = {{1, 0, 0},  {-1, 0, 0},      {0, 1, 0},
                                                {0, -1, 0}, {0.6f, 0, 0.8f}, {0, 0.6f, -0.8f}};
  for (size_t k = 0; k < normals.size(); ++k) {
    c.channelMap.push_back(static_cast<int32_t>(2 * k));
    c.modelPoints.push_back(normals[k] * 0.05f + Eigen::Vector3f(offsetMetres, 0, 0));
    c.modelNormals.push_back(normals[k]);
  }
  return c;
}

TEST(LabView, PagesOfGoodAndBadInputs) {
  testing::TempDir dir;
  testing::writeStlBinary(dir.file("ball.stl"), testing::sphereMesh(50.0f, 24, 48));
  testing::writeModelFile(dir.file("ball.json"), ballSensors(0.0f));
  testing::writeModelFile(dir.file("other.json"), ballSensors(0.02f));
  testing::writeFile(dir.file("none.json"), "{ \"channelMap\" : [], \"modelNormals\" : [], \"modelPoints\" : [] }\n");
  testing::writeFile(dir.file("ball.run.json"), "{ \"seed\" : 7, \"score\" : 1.5 }\n");
  auto view = [&](const std::string& model, std::vector<std::string> more) {
    std::vector<std::string> args = {"view", model, "--sensors", "ball.stl", "--orientations", "100"};
    args.insert(args.end(), more.begin(), more.end());
    return testing::runLab(args, dir.path());
  };

  RunResult r = view("ball.json", {"--out", "ball.html", "--title", "</script><b>ball"});
  ASSERT_EQ(r.status, 0) << r.err;
  Json::Value data = pageData(testing::readFile(dir.file("ball.html")));
  EXPECT_EQ(data["title"].asString(), "</script><b>ball");
  EXPECT_EQ(data["sensors"].size(), 6u);
  EXPECT_EQ(data["sensors"][5]["channel"].asInt(), 10);
  EXPECT_NEAR(data["sensors"][0]["position"][0].asDouble(), 50.0, 1e-4);
  // The sensor facing +X is seen from a cap of 60 degrees: a quarter of the sphere.
  EXPECT_NEAR(data["sensors"][0]["seenShare"].asDouble(), 0.25, 0.02);
  const Json::Value& coverage = data["coverage"];
  // The table's 2-degree grid: its running sums stop a step short of +180 and +90.
  EXPECT_EQ(coverage["longitudes"].size(), 180u);
  EXPECT_EQ(coverage["latitudes"].size(), 90u);
  EXPECT_EQ(coverage["visibleCount"].asString().size(), 180u * 90u / 3 * 4);
  EXPECT_EQ(data["surface"]["triangles"].asInt(), 2208);
  EXPECT_TRUE(data["surface"]["decimatedFrom"].isNull());
  EXPECT_EQ(data["runRecord"]["seed"].asInt(), 7);
  EXPECT_TRUE(data["score"].isDouble());
  ASSERT_EQ(data["warnings"].size(), 1u);
  EXPECT_EQ(
      data["warnings"][0].asString().rfind("the run record gives the score 1.5, and the settings of this page", 0), 0u);

  // Sensors off the mesh: the page still, and one warning line.
  r = view("other.json", {"--out", "other.html"});
  EXPECT_EQ(r.status, 0) << r.err;
  data = pageData(testing::readFile(dir.file("other.html")));
  ASSERT_EQ(data["warnings"].size(), 1u);
  EXPECT_EQ(data["warnings"][0].asString().rfind(
                "6 of the 6 sensors of other.json are not on the surface ball.stl (the farthest is 20", 0),
            0u)
      << data["warnings"];
  EXPECT_NE(r.err.find("warning: 6 of the 6 sensors"), std::string::npos) << r.err;

  // No sensors: a page that says so, with nothing seen and no score.
  r = view("none.json", {"--out", "none.html"});
  EXPECT_EQ(r.status, 0) << r.err;
  data = pageData(testing::readFile(dir.file("none.html")));
  EXPECT_EQ(data["sensors"].size(), 0u);
  EXPECT_TRUE(data["score"].isNull());
  EXPECT_EQ(data["warnings"][0].asString(),
            "none.json holds no sensors: no direction sees any, and there is nothing to score");
  EXPECT_EQ(data["coverage"]["visibleMask"].asString().find_first_not_of("A="), std::string::npos);

  // A million triangles: the page thins the mesh and stays under 5 MB.
  testing::writeStlBinary(dir.file("huge.stl"), testing::sphereMesh(50.0f, 501, 1000));
  r = testing::runLab({"view", "ball.json", "--sensors", "huge.stl", "--orientations", "100", "--out", "huge.html"},
                      dir.path());
  EXPECT_EQ(r.status, 0) << r.err;
  const std::string huge = testing::readFile(dir.file("huge.html"));
  EXPECT_LT(huge.size(), 5000000u);
  data = pageData(huge);
  EXPECT_EQ(data["surface"]["decimatedFrom"].asInt(), 1000000);
  EXPECT_GT(data["surface"]["triangles"].asInt(), 40000);
  EXPECT_NE(r.err.find("note: huge.stl is shown with "), std::string::npos) << r.err;

  // Failures name the problem, and no page is left.
  const std::vector<std::pair<std::vector<std::string>, std::string>> failures = {
      {{"view", "ball.json", "--sensors", "missing.stl", "--out", "x.html"},
       "IOError: \"missing.stl\": cannot be opened"},
      {{"view", "missing.json", "--sensors", "ball.stl", "--out", "x.html"}, "couldn't read missing.json"},
      {{"view", "ball.json", "--sensors", "ball.stl", "--step-degrees", "0.5", "--out", "x.html"},
       "a coverage grid of 0.5 degrees would take 4.9 MB of the page, which is kept under 5.0 MB so that a browser "
       "opens it at once and a mail takes it; give --step-degrees 0.7 or more"},
      {{"view", "ball.json", "--sensors", "ball.stl", "--out", "no/such/x.html"}, "cannot write no/such/x.html"},
  };
  for (const auto& [args, expected] : failures) {
    r = testing::runLab(args, dir.path());
    EXPECT_EQ(r.status, 1) << expected;
    EXPECT_EQ(r.err.rfind("sensorlay-lab view: " + expected, 0), 0u) << r.err;
    EXPECT_FALSE(testing::fileExists(dir.file("x.html")));
  }
  r = testing::runLab({"view", "ball.json", "--sensors", "ball.stl"}, dir.path());
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(r.err.rfind("sensorlay-lab view: --out is required\n", 0), 0u) << r.err;
}

}  // namespace
}  // namespace sensorlay
