#include "model/scad_writer.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>

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

TEST(SensorRotateExpression, VerticalAndSidewaysNormals) {
  // Straight up: acos(1) is 0 and its negation keeps the sign.
  EXPECT_EQ(sensorRotateExpression(Eigen::Vector3f(0, 0, 1)), "-0, [1, 0, 0]");
  // Straight down: the vertical test has no sign, so the axis is still X.
  EXPECT_EQ(sensorRotateExpression(Eigen::Vector3f(0, 0, -1)), "-180, [1, 0, 0]");
  // Just inside the vertical threshold: X axis though the normal is tilted.
  const float z = 0.99995f;
  const std::string nearlyUp = sensorRotateExpression(Eigen::Vector3f(0, std::sqrt(1.0f - z * z), z));
  EXPECT_EQ(nearlyUp.substr(nearlyUp.find(',')), ", [1, 0, 0]");
  EXPECT_NEAR(std::stod(nearlyUp), -0.573, 0.01);
  // Sideways normals turn about (y, -x, 0), negative zero included.
  EXPECT_EQ(sensorRotateExpression(Eigen::Vector3f(0, 1, 0)), "-90, [1, -0, 0]");
  EXPECT_EQ(sensorRotateExpression(Eigen::Vector3f(1, 0, 0)), "-90, [0, -1, 0]");
  const float s = std::sqrt(0.5f);
  EXPECT_EQ(sensorRotateExpression(Eigen::Vector3f(s, 0, -s)), "-135, [0, -1, 0]");
}

TEST(WriteScad, RowsPathsAndFlags) {
  const std::string script =
      writeScad(threeSensors(), "C:\\dev\\shell.stl", {"obst/head.stl", "b\\strap.stl"}, 0.001, true, false);
  // The labels block stays; only its switch is off.
  EXPECT_NE(script.find("drawlabels = false;\ndrawcones = true;\ndrawnormals = true;"), std::string::npos);
  EXPECT_NE(script.find("modelscale = 1.000000;"), std::string::npos);
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

}  // namespace
}  // namespace sensorlay
