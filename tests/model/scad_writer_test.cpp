#include "model/scad_writer.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "tests/support/meshes.h"
#include "tests/support/run_binary.h"

namespace sensorlay {
namespace {

Constellation threeSensors() {
  Constellation c;
  c.valid = true;
  c.channelMap = {3, 0, -1};
  c.modelPoints = {Eigen::Vector3f(0.05f, 0.02f, 0.01f), Eigen::Vector3f(0.0123456789f, -1e-06f, 0.0f),
                   Eigen::Vector3f(0.0f, 0.0f, 0.5f)};
  c.modelNormals = {Eigen::Vector3f(0, 1, 0), Eigen::Vector3f(0, 0, 1), Eigen::Vector3f(0, 0, -1)};
  return c;
}

size_t countOf(const std::string& text, const std::string& what) {
  size_t n = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
  return n;
}

TEST(SensorRotateExpression, VerticalAndSidewaysNormals) {
  // Straight up: acos(1) is 0 and its negation keeps the sign.
  EXPECT_EQ(sensorRotateExpression(Eigen::Vector3f(0, 0, 1)), "-0, [1, 0, 0]");
  // Straight down: the vertical test has no sign, so the axis is still X.
  EXPECT_EQ(sensorRotateExpression(Eigen::Vector3f(0, 0, -1)), "-180, [1, 0, 0]");
  // Just inside the vertical threshold: X axis though the normal is tilted.
  const float z = 0.99995f;
  const float y = std::sqrt(1.0f - z * z);
  const std::string nearlyUp = sensorRotateExpression(Eigen::Vector3f(0, y, z));
  EXPECT_EQ(nearlyUp.substr(nearlyUp.find(',')), ", [1, 0, 0]");
  EXPECT_NEAR(std::stod(nearlyUp), -0.573, 0.01);
  // Sideways normals turn about (y, -x, 0), negative zero included.
  EXPECT_EQ(sensorRotateExpression(Eigen::Vector3f(0, 1, 0)), "-90, [1, -0, 0]");
  EXPECT_EQ(sensorRotateExpression(Eigen::Vector3f(1, 0, 0)), "-90, [0, -1, 0]");
  const float s = std::sqrt(0.5f);
  EXPECT_EQ(sensorRotateExpression(Eigen::Vector3f(s, 0, -s)), "-135, [0, -1, 0]");
}

TEST(WriteScad, EmptyModelKeepsTheTemplateLayout) {
  const std::string script = writeScad(Constellation(), "", {}, 1.0, false, true);
  // The template is 1312 characters; placeholders are replaced by their values.
  const size_t expected = 1312 - 13 + 4 - 14 + 5 - 11 + 11 - 8 - 9;
  EXPECT_EQ(script.size(), expected);
  EXPECT_EQ(script.substr(0, 21), "\ndrawsensors = true;\n");
  EXPECT_NE(script.find("drawlabels = true;\ndrawcones = true;\ndrawnormals = false;\n"), std::string::npos);
  EXPECT_NE(script.find("modelscale = 1000.000000;\n"), std::string::npos);
  EXPECT_NE(script.find("    if ( drawmodels )\n    {\n\n    }\n"), std::string::npos);
  EXPECT_NE(script.find("sensors = [\n\n];\n"), std::string::npos);
  EXPECT_NE(script.find("module constellation() {\n\tfor(s = sensors)\n    {\n"), std::string::npos);
  EXPECT_EQ(countOf(script, "\n    \n"), 3u);
  const std::string ending = "r2=0, center=true);\n    }\n}\n";
  EXPECT_EQ(script.substr(script.size() - ending.size()), ending);
  EXPECT_EQ(script.find('%'), std::string::npos);
}

TEST(WriteScad, RowsPathsAndFlags) {
  const std::string script =
      writeScad(threeSensors(), "C:\\dev\\shell.stl", {"obst/head.stl", "b\\strap.stl"}, 0.001, true, false);
  EXPECT_NE(script.find("drawlabels = false;"), std::string::npos);
  EXPECT_NE(script.find("drawnormals = true;"), std::string::npos);
  EXPECT_NE(script.find("modelscale = 1.000000;"), std::string::npos);
  // The labels block stays; only its switch is off.
  EXPECT_NE(script.find("if ( drawlabels )"), std::string::npos);
  EXPECT_NE(script.find("    {\n"
                        "     color(\"orange\") import(\"C:\\\\dev\\\\shell.stl\", convexity = 4);\n"
                        "     color(\"white\") import(\"obst/head.stl\", convexity = 4);\n"
                        "     color(\"white\") import(\"b\\\\strap.stl\", convexity = 4);\n"
                        "\n    }"),
            std::string::npos);
  EXPECT_NE(script.find("sensors = [\n"
                        "    [ [ 3, \"lime\" ], [ 0.05, 0.02, 0.01], -90, [1, -0, 0] ],\n"
                        "    [ [ 0, \"lime\" ], [ 0.0123457, -1e-06, 0], -0, [1, 0, 0] ],\n"
                        "    [ [ -1, \"lime\" ], [ 0, 0, 0.5], -180, [1, 0, 0] ],\n"
                        "\n];\n"),
            std::string::npos);
}

TEST(WriteScad, MismatchedSequencesStopAtTheShortest) {
  Constellation c = threeSensors();
  c.modelNormals.pop_back();
  const std::string script = writeScad(c, "", {}, 1.0, false, true);
  EXPECT_EQ(countOf(script, "\"lime\" ]"), 2u);
}

// The script must be one that OpenSCAD itself accepts, imports included.
TEST(WriteScad, AcceptedByOpenScad) {
  if (std::system("command -v openscad > /dev/null 2>&1") != 0) GTEST_SKIP() << "openscad is not installed";
  testing::TempDir dir;
  testing::writeStlBinary(dir.file("shell.stl"), testing::cubeMesh(40.0f, 2));
  testing::writeStlBinary(dir.file("head.stl"), testing::translated(testing::cubeMesh(20.0f), {0, 0, -40}));
  const std::string script =
      writeScad(threeSensors(), dir.file("shell.stl"), {dir.file("head.stl")}, 0.001, true, true);
  testing::writeFile(dir.file("design.scad"), "/* header */\n" + script);
  const std::string command = "cd '" + dir.path() + "' && openscad -o out.csg design.scad > log.txt 2>&1";
  ASSERT_EQ(std::system(command.c_str()), 0) << testing::readFile(dir.file("log.txt"));
  const std::string csg = testing::readFile(dir.file("out.csg"));
  EXPECT_NE(csg.find("import("), std::string::npos);
  EXPECT_NE(csg.find("cylinder("), std::string::npos);
  EXPECT_EQ(testing::readFile(dir.file("log.txt")).find("WARNING"), std::string::npos)
      << testing::readFile(dir.file("log.txt"));
}

}  // namespace
}  // namespace sensorlay
