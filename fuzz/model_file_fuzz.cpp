// A model file as the /model switch reads it, standalone or in a device file,
// and the run-time model made from it.

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

#include "device/model_loading.h"
#include "fuzz/input_file.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace sensorlay;
  static const fuzz::InputFile file("model.json");
  file.write(data, size);
  const Result<std::unique_ptr<SensorModel>> loaded = loadSensorModel(file.path());
  if (!loaded) {
    if (loaded.message().empty()) std::abort();
    return 0;
  }
  const SensorModel& model = **loaded;
  if (model.points.size() != model.normals.size() || model.points.size() != model.channels.size()) std::abort();
  return 0;
}
