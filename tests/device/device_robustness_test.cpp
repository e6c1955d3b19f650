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

TEST(DeviceRobustness, TruncatedAndGarbledText) {
  const std::string text = richDeviceJson();
  for (size_t cut = 0; cut < text.size(); cut += 7)
    expectCleanOutcome(text.substr(0, cut), "cut " + std::to_string(cut));

  int read = 0;
  std::mt19937 g(20240611u);
  const std::string alphabet = "{}[]\",:0123456789.-eE truenlfas\\/\x01\xff";
  for (int trial = 0; trial < 3000; ++trial) {
    std::string mutated = text;
    for (uint32_t e = g() % 4; e < 4 && !mutated.empty(); ++e) {
      const size_t at = g() % mutated.size();
      const char c = alphabet[g() % alphabet.size()];
      switch (g() % 3) {
        case 0:
          mutated[at] = c;
          break;
        case 1:
          mutated.insert(at, 1, c);
          break;
        default:
          mutated.erase(at, 1 + g() % 40);
          break;
      }
    }
    read += expectCleanOutcome(mutated, "trial " + std::to_string(trial));
  }
  EXPECT_GT(read, 300);
}

TEST(DeviceRobustness, HugeAndDeep) {
  std::string cameras = "{ \"tracked_cameras\": [";
  for (int i = 0; i < 20000; ++i) cameras += i ? ", {}" : "{}";
  DeviceConfig config;
  std::string error;
  ASSERT_TRUE(parseDeviceConfig(config, error, cameras + "] }"));
  EXPECT_EQ(config.cameras.size(), 20000u);
  EXPECT_EQ(config.cameras.back().name, "Camera19999");

  std::string coeffs = "{ \"tracked_camera\": { \"intrinsics\": { \"distort\": { \"coeffs\": [";
  for (int i = 0; i < 200000; ++i) coeffs += i ? ",1" : "1";
  ASSERT_TRUE(parseDeviceConfig(config, error, coeffs + "] } } } }"));
  EXPECT_EQ(config.cameras[0].intrinsics.distort.coefficients[7], 1.0);

  // Nesting within the reader's limit is kept as it stands, beyond it is a
  // parse error.
  auto nested = [](int depth) {
    return "{ \"firmware_config\": " + std::string(depth, '[') + std::string(depth, ']') + " }";
  };
  ASSERT_TRUE(parseDeviceConfig(config, error, nested(500)));
  DeviceConfig again;
  ASSERT_TRUE(parseDeviceConfig(again, error, writeStyledJson(writeDeviceRecord(config))));
  EXPECT_EQ(again.firmwareConfig, config.firmwareConfig);
  EXPECT_FALSE(parseDeviceConfig(config, error, nested(100000)));
  EXPECT_FALSE(error.empty());
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
