#include "device/model_loading.h"

#include "common/files.h"
#include "device/device_config.h"

namespace sensorlay {

Result<Constellation> readDeviceFormModel(const ModelText& model) {
  DeviceConfig config;
  std::string errorText;
  if (!parseDeviceConfig(config, errorText, model.text))
    return Status::failure("couldn't read " + printablePath(model.shownPath) + ": " + errorText);
  Constellation constellation;
  constellation.valid = config.constellation.valid;
  constellation.modelCad = config.constellation.modelCad;
  constellation.channelMap = config.constellation.channelMap;
  constellation.modelPoints = config.constellation.modelPoints;
  constellation.modelNormals = config.constellation.modelNormals;
  return constellation;
}

namespace {

// A position that is not a finite number cannot be judged, and would make the
// score and the tables not-a-number. Normals need no such check: one that
// cannot be normalised (zero in the file, as for a sensor meant to be seen
// from nowhere) fails the incidence test before any ray is cast.
Status screenPositions(const std::string& shownPath, const Constellation& constellation) {
  for (size_t i = 0; i < constellation.modelPoints.size(); ++i)
    if (!constellation.modelPoints[i].allFinite())
      return Status::failure("couldn't read " + printablePath(shownPath) + ": modelPoints[" + std::to_string(i) +
                             "] is not a finite position in single precision");
  return Status();
}

}  // namespace

Result<Constellation> readModelFile(const std::string& path) {
  const Result<ModelText> model = readModelText(path);
  if (!model) return model.status();
  Result<Constellation> read = holdsDeviceFile(*model) ? readDeviceFormModel(*model) : parseStandaloneModel(*model);
  if (read)
    if (Status screened = screenPositions(model->shownPath, *read); !screened) return screened;
  return read;
}

Result<std::unique_ptr<SensorModel>> loadSensorModel(const std::string& path) {
  const Result<Constellation> constellation = readModelFile(path);
  if (!constellation) return constellation.status();
  return std::make_unique<SensorModel>(*constellation, ModelTransform());
}

}  // namespace sensorlay
