// Device files that are broken in every way we can think of must end in one
// of the record's own failures, never in a crash.

#include <gtest/gtest.h>
#include <json/json.h>

#include <functional>
#include <random>

#include "device/device_config.h"
#include "device/model_loading.h"
#include "tests/support/device_files.h"

namespace sensorlay {
namespace {

using testing::richDeviceJson;

// Parses; on success the record must write in every generation and read back.
// Tells whether the text was read.
bool expectCleanOutcome(const std::string& text, const std::string& what) {
  DeviceConfig config;
  std::string error;
  if (!parseDeviceConfig(config, error, text)) {
    EXPECT_FALSE(error.empty()) << what;
    return false;
  }
  for (int format = 0; format <= 2; ++format) {
    config.jsonFormat = format;
    DeviceConfig again;
    EXPECT_TRUE(parseDeviceConfig(again, error, writeStyledJson(writeDeviceRecord(config)))) << what << ": " << error;
  }
  return true;
}

// Every value of the file, one at a time, swapped for values of each type.
TEST(DeviceRobustness, EveryValueOfEveryType) {
  Json::Value original;
  std::string errors;
  ASSERT_TRUE(parseJsonText(richDeviceJson(), original, errors));
  Json::Value deep(Json::arrayValue);
  deep.append(Json::Value(Json::arrayValue));
  deep[0].append(Json::Value(Json::objectValue));
  // 3e38 is near the top of the float range. Beyond it a float field reads
  // as infinity and is written as 1e+9999, which the reader then refuses: an
  // open question for the record, not pinned here either way.
  const Json::Value replacements[] = {Json::Value("eEYE_RIGHT"),
                                      Json::Value(-1),
                                      Json::Value(4294967296.5),
                                      Json::Value(3e38),
                                      Json::Value(Json::arrayValue),
                                      Json::Value(Json::objectValue),
                                      Json::Value(),
                                      Json::Value(true),
                                      deep};
  int visited = 0, read = 0;
  std::function<void(Json::Value&)> visit = [&](Json::Value& node) {
    const Json::Value saved = node;
    for (const Json::Value& replacement : replacements) {
      node = replacement;
      read +=
          expectCleanOutcome(original.toStyledString(), saved.toStyledString() + " -> " + replacement.toStyledString());
    }
    node = saved;
    ++visited;
    if (node.isArray() || node.isObject())
      for (auto it = node.begin(); it != node.end(); ++it) visit(*it);
  };
  visit(original);
  EXPECT_GT(visited, 200);
  EXPECT_GT(read, visited);  // most swaps leave a readable record
}

TEST(DeviceModel, ModelSectionOfADeviceFile) {
  Result<Constellation> model = readDeviceFormModel({"visor.json", richDeviceJson()});
  ASSERT_TRUE(model.ok()) << model.message();
  EXPECT_TRUE(model->valid);
  EXPECT_EQ(model->modelCad, "visor.stl");
  ASSERT_EQ(model->modelNormals.size(), 2u);
  EXPECT_EQ(model->modelNormals[1], Eigen::Vector3f(0, 0, 1));

  // The key only in a comment: a device of no class, and no sensors.
  model = readDeviceFormModel({"m.json", "// \"beaconet_config\"\n{ \"channelMap\": [1] }"});
  ASSERT_TRUE(model.ok());
  EXPECT_FALSE(model->valid);
  EXPECT_TRUE(model->channelMap.empty());

  // A headset without a display is refused, though its sensors are fine.
  model = readDeviceFormModel(
      {"h.json",
       R"({ "device_class": "hmd", "beaconet_config": { "channelMap": [], "modelPoints": [], "modelNormals": [] } })"});
  EXPECT_EQ(model.message(), "couldn't read h.json: missing values from \"device\" section");
}

}  // namespace
}  // namespace sensorlay
