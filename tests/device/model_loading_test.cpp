#include "device/model_loading.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "tests/support/frontend_fixtures.h"
#include "tests/support/run_binary.h"

namespace sensorlay {
namespace {

using testing::TempDir;
using testing::writeFile;

struct Read {
  bool ok = false;
  Constellation constellation;
  std::string err;
};

Read readModel(const std::string& path) {
  Read r;
  Result<Constellation> read = readModelFile(path);
  r.ok = read.ok();
  if (r.ok) r.constellation = *read;
  r.err = read.message();
  return r;
}

TEST(ModelFile, ReadsStandaloneModelsAndListsOfUnequalLength) {
  TempDir dir;
  // The design run's comment line, and ".json" in the middle of the name.
  testing::writeModelFile(dir.file("m.json.bak"), testing::threeSensorConstellation(),
                          "Final Quality Score: 31.4159 / 1000 (lower is better)");
  Read r = readModel(dir.file("m.json.bak"));
  ASSERT_TRUE(r.ok) << r.err;
  EXPECT_EQ(r.err, "");
  EXPECT_TRUE(r.constellation.valid);
  EXPECT_EQ(r.constellation.channelMap, (std::vector<int32_t>{0, 1, -1}));

  // Normals are normalised, points are not; a missing channel entry reads as 0;
  // unknown keys are ignored.
  writeFile(dir.file("raw.json"),
            "/* hand-made */ {\"channelMap\": [3, null], \"modelPoints\": [[0, 0, 2], [1, 2, 3]],\n"
            "\"modelNormals\": [[0, 0, 2], [3, 0, 4]], \"extra\": {\"a\": 1}}");
  r = readModel(dir.file("raw.json"));
  ASSERT_TRUE(r.ok) << r.err;
  EXPECT_EQ(r.constellation.channelMap, (std::vector<int32_t>{3, 0}));
  EXPECT_EQ(r.constellation.modelPoints[0], Eigen::Vector3f(0, 0, 2));
  EXPECT_EQ(r.constellation.modelNormals[0], Eigen::Vector3f(0, 0, 1));
  EXPECT_NEAR(r.constellation.modelNormals[1].x(), 0.6f, 1e-7f);
  EXPECT_EQ(r.constellation.modelCad, "");

  // A missing required key is no complaint: true, not valid, CAD name kept.
  writeFile(dir.file("partial.json"), "{\"modelCad\": \"half\", \"channelMap\": [0], \"modelPoints\": [[0,0,0]]}");
  r = readModel(dir.file("partial.json"));
  EXPECT_TRUE(r.ok);
  EXPECT_EQ(r.err, "");
  EXPECT_FALSE(r.constellation.valid);
  EXPECT_EQ(r.constellation.modelCad, "half");
  EXPECT_TRUE(r.constellation.channelMap.empty());

  // Lists of unequal lengths read, and load as a model without sensors.
  writeFile(dir.file("uneven.json"),
            "{\"channelMap\": [0, 1], \"modelPoints\": [[0,0,0], [0,0,0]], \"modelNormals\": [[0,0,1]]}");
  auto model = loadSensorModel(dir.file("uneven.json"));
  ASSERT_TRUE(model.ok());
  EXPECT_EQ((*model)->sensorCount(), 0u);
}

TEST(ModelFile, RefusesWhatItCannotRead) {
  TempDir dir;
  const std::string good = writeStyledJson(constellationToJson(testing::threeSensorConstellation()));
  struct Case {
    std::string name;
    std::string content;
    std::string errStart;
  };
  const std::string unparsable = "couldn't parse standalone beaconet_config ";
  const std::vector<Case> cases = {
      {"empty.json", "", "couldn't read "},
      {"truncated.json", good.substr(0, good.size() - 20), unparsable},
      {"garbage.json", std::string("\x89PNG\r\n\x1a\n\0\0\0\rIHDR", 16), unparsable},
      {"deep.json", std::string(100000, '[') + std::string(100000, ']'), unparsable},
      {"array_root.json", "[{\"channelMap\": [0]}]", unparsable},
      {"text_channels.json", "{\"channelMap\": [\"a\"], \"modelPoints\": [[0,0,0]], \"modelNormals\": [[0,0,1]]}",
       unparsable},
      {"flat_points.json", "{\"channelMap\": [0], \"modelPoints\": [0, 0, 0], \"modelNormals\": [[0,0,1]]}",
       unparsable},
      {"object_channels.json", "{\"channelMap\": {\"a\": 0}, \"modelPoints\": [], \"modelNormals\": []}", unparsable},
      {"huge_channel.json", "{\"channelMap\": [1e30], \"modelPoints\": [[0,0,0]], \"modelNormals\": [[0,0,1]]}",
       unparsable},
  };
  for (const Case& c : cases) {
    writeFile(dir.file(c.name), c.content);
    Read r = readModel(dir.file(c.name));
    EXPECT_FALSE(r.ok) << c.name;
    EXPECT_EQ(r.err.rfind(c.errStart + dir.file(c.name), 0), 0u) << c.name << ": " << r.err;
  }
  Read r = readModel(dir.file("absent.json"));
  EXPECT_EQ(r.err, "couldn't read " + dir.file("absent.json") + ": file is empty or does not exist");
  EXPECT_EQ(loadSensorModel(dir.file("absent.json")).message(), r.err);
}

}  // namespace
}  // namespace sensorlay
