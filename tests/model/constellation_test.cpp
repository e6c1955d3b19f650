#include "model/constellation.h"

#include <gtest/gtest.h>
#include <json/json.h>

#include <cmath>
#include <random>

namespace sensorlay {
namespace {

TEST(SensorModel, KeepsNonNegativeChannelsAndMeasuresTheSpread) {
  Constellation c;
  c.valid = true;
  c.channelMap = {4, -1, 7, 4};
  c.modelPoints = {{1, 0, 0}, {9, 9, 9}, {0, 2, 0}, {-1, 0, 0}};
  c.modelNormals = {{0, 0, 1}, {0, 0, 1}, {0, 1, 0}, {1, 0, 0}};

  // A quarter turn about z and a shift along x.
  ModelTransform t;
  t.rotation << 0, -1, 0, 1, 0, 0, 0, 0, 1;
  t.translation = {1, 0, 0};
  SensorModel m(c, t);
  EXPECT_EQ(m.channels, (std::vector<int32_t>{4, 7, 4}));
  // The later sensor on a shared channel wins the map; indices keep the
  // Constellation's numbering across the skipped sensor.
  EXPECT_EQ(m.channelIndex, (std::map<int32_t, int32_t>{{4, 3}, {7, 2}}));
  ASSERT_EQ(m.points.size(), 3u);
  EXPECT_EQ(m.points[0], Eigen::Vector3d(1, 1, 0));
  EXPECT_EQ(m.points[1], Eigen::Vector3d(-1, 0, 0));
  EXPECT_EQ(m.normals[1], Eigen::Vector3d(-1, 0, 0));
  EXPECT_EQ(m.cosMaxIncidence, 0.5);
  EXPECT_DOUBLE_EQ(m.maxPairDistance, std::sqrt(5.0));  // (1,1,0) to (-1,0,0)
  EXPECT_DOUBLE_EQ(m.maxRadius, std::sqrt(2.0));

  c.modelNormals.pop_back();
  SensorModel uneven(c, ModelTransform());
  EXPECT_EQ(uneven.sensorCount(), 0u);
  EXPECT_TRUE(uneven.channelIndex.empty());
  EXPECT_EQ(uneven.maxRadius, 0.0);
}

TEST(ConstellationJson, RoundTripKeepsEverySinglePrecisionValue) {
  std::mt19937 g(7);
  auto value = [&g]() { return static_cast<float>(static_cast<int32_t>(g())) / 3.0e8f; };
  Constellation c;
  c.valid = true;
  c.modelCad = "part \"A\"";
  for (int i = 0; i < 200; ++i) {
    c.channelMap.push_back(i % 5 == 0 ? -1 : i);
    c.modelPoints.emplace_back(value(), value(), value());
    c.modelNormals.push_back(Eigen::Vector3f(value(), value(), value()).normalized());
  }
  Json::Value root;
  std::string errors;
  ASSERT_TRUE(parseJsonText("// leading comment\n" + writeStyledJson(constellationToJson(c)), root, errors)) << errors;
  Constellation back;
  ASSERT_TRUE(parseModelSection(back, root));
  EXPECT_EQ(back.modelCad, c.modelCad);
  EXPECT_EQ(back.channelMap, c.channelMap);
  for (size_t i = 0; i < c.modelPoints.size(); ++i) {
    EXPECT_EQ(back.modelPoints[i], c.modelPoints[i]) << i;
    EXPECT_LE((back.modelNormals[i] - c.modelNormals[i]).cwiseAbs().maxCoeff(), 2e-7f) << i;
  }
  // A record that is not valid, or valid and empty, is written as null.
  c.valid = false;
  EXPECT_EQ(writeStyledJson(constellationToJson(c)), "null\n");
  EXPECT_EQ(writeStyledJson(constellationToJson(Constellation{true, "", {}, {}, {}})), "null\n");
}

}  // namespace
}  // namespace sensorlay
