#pragma once
// Reading standalone sensor model files. A model may also stand inside a whole
// device file under "beaconet_config"; that form is read by device/.

#include <string>

#include "common/result.h"
#include "model/constellation.h"

namespace sensorlay {

// A model file's text and the path that complaints about it name.
struct ModelText {
  std::string shownPath;
  std::string text;
};

// A path containing ".json" is read as it stands; a bare name is a model
// shipped under the resource root, cfg/hmd/<name>.json, and the complaints name
// that relative path, which is what the user can act on.
Result<ModelText> readModelText(const std::string& path);

// True when the text is a whole device file with the model inside: a plain
// search over the raw text, comments and strings included.
bool holdsDeviceFile(const ModelText& model);

// A standalone model: the keys of the model section at the root. A missing key
// is no failure: the record comes back with `valid` false.
Result<Constellation> parseStandaloneModel(const ModelText& model);

}  // namespace sensorlay
