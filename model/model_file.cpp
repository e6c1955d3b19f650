#include "model/model_file.h"

#include <json/json.h>

#include <exception>

#include "common/files.h"

namespace sensorlay {

namespace {

Status unparsable(const std::string& path, const std::string& why) {
  return Status::failure("couldn't parse standalone beaconet_config " + printablePath(path) + ": " + why);
}

}  // namespace

Result<ModelText> readModelText(const std::string& path) {
  ModelText model;
  if (path.find(".json") != std::string::npos) {
    model.shownPath = path;
    model.text = readTextFile(path);
  } else {
    model.shownPath = joinPath(joinPath("cfg", "hmd"), path) + ".json";
    model.text = readResourceFile(model.shownPath);
  }
  if (model.text.empty())
    return Status::failure("couldn't read " + printablePath(model.shownPath) + ": file is empty or does not exist");
  return model;
}

bool holdsDeviceFile(const ModelText& model) { return model.text.find("\"beaconet_config\"") != std::string::npos; }

Result<Constellation> parseStandaloneModel(const ModelText& model) {
  Json::Value parsed;
  std::string errors;
  if (!parseJsonText(model.text, parsed, errors)) return unparsable(model.shownPath, errors);
  Constellation read;
  try {
    // The whole root is the section, whatever keys it holds.
    readModelSection(read, parsed);
  } catch (const std::exception& e) {
    // Well-formed JSON of the wrong shape: JsonCpp's accessors throw on a
    // root that is no object or a number that is text.
    return unparsable(model.shownPath, std::string("wrong value type: ") + e.what());
  }
  return read;
}

}  // namespace sensorlay
