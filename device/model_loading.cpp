#include "device/model_loading.h"

#include "device/device_config.h"

namespace sensorlay {

Result<Constellation> readDeviceFormModel(const ModelText& model) {
  DeviceConfig config;
  std::string errorText;
  if (!parseDeviceConfig(config, errorText, model.text))
    return Status::failure("couldn't read " + model.shownPath + ": " + errorText);
  Constellation constellation;
  constellation.valid = config.constellation.valid;
  constellation.modelCad = config.constellation.modelCad;
  constellation.channelMap = config.constellation.channelMap;
  constellation.modelPoints = config.constellation.modelPoints;
  constellation.modelNormals = config.constellation.modelNormals;
  return constellation;
}

Result<Constellation> readModelFile(const std::string& path) {
  const Result<ModelText> model = readModelText(path);
  if (!model) return model.status();
  return holdsDeviceFile(*model) ? readDeviceFormModel(*model) : parseStandaloneModel(*model);
}

Result<std::unique_ptr<SensorModel>> loadSensorModel(const std::string& path) {
  const Result<Constellation> constellation = readModelFile(path);
  if (!constellation) return constellation.status();
  return std::make_unique<SensorModel>(*constellation, ModelTransform());
}

}  // namespace sensorlay
