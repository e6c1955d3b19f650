#include "lab/settings.h"

#include <cstring>

namespace sensorlay::lab {

namespace {

// Beyond this a design of the default length takes more than a few minutes,
// each trial rescoring a share of every orientation; the search's tables take
// about a kilobyte per orientation besides.
constexpr int64_t kMostOrientations = 100000;

// A number within [low, high], or the message that says what it must be.
std::string takeNumber(const std::string& name, const char* value, double low, double high, bool lowIncluded,
                       const std::string& requirement, double& field) {
  const std::optional<double> number = parseNumber(value);
  if (!number || *number > high || *number < low || (!lowIncluded && *number == low))
    return badValue(name, value, requirement);
  field = *number;
  return std::string();
}

std::string takeWhole(const std::string& name, const char* value, int64_t low, int64_t high, int32_t& field) {
  const std::optional<int64_t> number = parseWholeNumber(value);
  if (!number || *number < low || *number > high)
    return badValue(name, value, "a whole number from " + std::to_string(low) + " to " + std::to_string(high));
  field = static_cast<int32_t>(*number);
  return std::string();
}

}  // namespace

std::optional<double> metresPer(MeshUnit unit) {
  switch (unit) {
    case MeshUnit::Millimetres:
      return 0.001;
    case MeshUnit::Centimetres:
      return 0.01;
    case MeshUnit::Metres:
      return 1.0;
    case MeshUnit::Inches:
      return 0.0254;
    default:
      return std::nullopt;
  }
}

const char* unitWord(MeshUnit unit) {
  switch (unit) {
    case MeshUnit::Auto:
      return "auto";
    case MeshUnit::Same:
      return "same";
    case MeshUnit::Millimetres:
      return "mm";
    case MeshUnit::Centimetres:
      return "cm";
    case MeshUnit::Metres:
      return "m";
    case MeshUnit::Inches:
      return "in";
  }
  return "auto";
}

std::optional<MeshUnit> parseUnit(const std::string& word, bool sameAllowed) {
  for (MeshUnit unit : {MeshUnit::Auto, MeshUnit::Same, MeshUnit::Millimetres, MeshUnit::Centimetres, MeshUnit::Metres,
                        MeshUnit::Inches})
    if (word == unitWord(unit) && (sameAllowed || unit != MeshUnit::Same)) return unit;
  return std::nullopt;
}

std::vector<OptionDef> meshOptionDefs() {
  return {
      {"sensors", "FILE", "STL of the surface that carries the sensors (required)"},
      {"obstacles", "FILE", "STL that only hides sensors, such as the wearer's head; repeat for more"},
      {"units", "UNIT",
       "unit of the mesh files: auto, mm, cm, m or in (default auto: millimetres\n"
       "when the bounding box's diagonal reads 5 or more, else metres)"},
      {"obstacle-units", "UNIT", "unit of the obstacle files: same (as the surface, the default), mm, cm, m or in"},
      {"sensor-size", "MM", "diameter of a sensor, millimetres (default 6)"},
  };
}

std::vector<OptionDef> scoreSettingDefs() {
  return {
      {"orientations", "N", "orientations the score averages over, 2 to 100000 (default 1250)"},
      {"max-incidence", "DEG",
       "largest angle between a sensor's normal and the line to the base station\n"
       "at which it still sees it, degrees (default 60)"},
      {"quality-map", "IMAGE",
       "weight of each direction: a grey latitude/longitude image, +Z at its centre,\n"
       "+Y at its top, white counts fully, black not at all (default: all equal)"},
      {"quality-range", "LOW,HIGH",
       "pose uncertainties, millimetres of position plus milliradians of rotation,\n"
       "that count as good and as bad (default: the built-in curve, about 1.8,38.2)"},
      {"unseen-cost", "RULE",
       "weighted (default): a direction no sensor sees costs 2 times its map weight,\n"
       "like a seen one; flat: it costs 2 whatever its weight, sensorlay's rule"},
      {"coverage-step", "DEG", "grid step of the coverage summary, degrees, 0.1 to 30 (default 2)"},
  };
}

std::vector<OptionDef> searchSettingDefs() {
  return {
      {"iterations", "N", "trials per temperature level and sensor, 1 to 1000 (default 3)"},
      {"cooling-rate", "R", "factor of the temperature from one level to the next, above 0 and below 1 (default 0.96)"},
      {"max-surface-angle", "DEG", "largest tilt of a sensor from its face's normal, degrees, 0 to 89 (default 0)"},
      {"min-spacing", "MM", "least distance between two sensors' centres, millimetres (default 0: none)"},
  };
}

void appendDesignSettingDefs(std::vector<OptionDef>& options, const char* searchHelp) {
  for (const OptionDef& def : scoreSettingDefs()) options.push_back(def);
  for (OptionDef def : searchSettingDefs()) {
    if (searchHelp != nullptr) def.help = searchHelp;
    options.push_back(def);
  }
}

std::optional<std::string> takeThreads(const std::string& name, const char* value, int32_t& threads) {
  if (name != "threads") return std::nullopt;
  const std::optional<int64_t> n = parseWholeNumber(value);
  if (!n || *n < 0 || *n > 1024) return badValue(name, value, "a whole number from 0 to 1024");
  threads = static_cast<int32_t>(*n);
  return std::string();
}

std::optional<std::string> takeMeshOption(MeshInputs& inputs, const std::string& name, const char* value) {
  if (name == "sensors") {
    inputs.sensors = value;
    return inputs.sensors.empty() ? badValue(name, value, "a file name") : std::string();
  }
  if (name == "obstacles") {
    if (*value == '\0') return badValue(name, value, "a file name");
    inputs.obstacles.push_back(value);
    return std::string();
  }
  if (name == "units" || name == "obstacle-units") {
    const bool obstacles = name == "obstacle-units";
    // Obstacles are measured with the surface, or in a unit named for them.
    const std::optional<MeshUnit> unit = parseUnit(value, obstacles);
    if (!unit || (obstacles && *unit == MeshUnit::Auto))
      return badValue(name, value, obstacles ? "same, mm, cm, m or in" : "auto, mm, cm, m or in");
    (obstacles ? inputs.obstacleUnits : inputs.units) = *unit;
    return std::string();
  }
  if (name == "sensor-size")
    return takeNumber(name, value, 0.0, 1000.0, false, "a diameter in millimetres above 0 and at most 1000",
                      inputs.sensorSizeMm);
  return std::nullopt;
}

std::optional<std::string> takeSetting(DesignSettings& s, const std::string& name, const char* value) {
  if (name == "orientations") return takeWhole(name, value, 2, kMostOrientations, s.orientations);
  if (name == "iterations") return takeWhole(name, value, 1, 1000, s.iterations);
  if (name == "max-incidence")
    return takeNumber(name, value, 0.0, 90.0, false, "an angle in degrees above 0 and at most 90",
                      s.maxIncidenceDegrees);
  if (name == "max-surface-angle")
    return takeNumber(name, value, 0.0, 89.0, true, "an angle in degrees from 0 to 89", s.maxSurfaceAngleDegrees);
  if (name == "cooling-rate") {
    const std::string problem = takeNumber(name, value, 0.0, 1.0, false, "above 0 and below 1", s.coolingRate);
    return problem.empty() && s.coolingRate == 1.0 ? badValue(name, value, "above 0 and below 1") : problem;
  }
  if (name == "min-spacing")
    return takeNumber(name, value, 0.0, 1e6, true, "a distance in millimetres, 0 or more", s.minSpacingMm);
  if (name == "coverage-step")
    return takeNumber(name, value, 0.1, 30.0, true, "an angle in degrees from 0.1 to 30", s.coverageStepDegrees);
  if (name == "quality-map") {
    s.qualityMap = value;
    return s.qualityMap.empty() ? badValue(name, value, "a file name") : std::string();
  }
  if (name == "quality-range") {
    const char* comma = std::strchr(value, ',');
    const std::string requirement = "two uncertainties in millimetres, LOW,HIGH, with 0 < LOW < HIGH";
    if (comma == nullptr) return badValue(name, value, requirement);
    const std::optional<double> low = parseNumber(std::string(value, comma).c_str());
    const std::optional<double> high = parseNumber(comma + 1);
    if (!low || !high || !(*low > 0.0) || !(*high > *low)) return badValue(name, value, requirement);
    s.qualityLowMm = *low;
    s.qualityHighMm = *high;
    return std::string();
  }
  if (name == "unseen-cost") {
    if (std::strcmp(value, "weighted") == 0)
      s.unseenCost = UnseenCost::Weighted;
    else if (std::strcmp(value, "flat") == 0)
      s.unseenCost = UnseenCost::Flat;
    else
      return badValue(name, value, "weighted or flat");
    return std::string();
  }
  return std::nullopt;
}

JsonOut settingsJson(const MeshInputs& inputs, const DesignSettings& s, bool withSearch) {
  JsonOut json = JsonOut::object();
  json["units"] = unitWord(inputs.units);
  json["obstacleUnits"] = unitWord(inputs.obstacleUnits);
  json["sensorSizeMm"] = inputs.sensorSizeMm;
  json["orientations"] = s.orientations;
  json["maxIncidenceDegrees"] = s.maxIncidenceDegrees;
  json["qualityMap"] = s.qualityMap.empty() ? JsonOut() : JsonOut(s.qualityMap);
  JsonOut range;
  if (hasQualityRange(s)) {
    range.append(*s.qualityLowMm);
    range.append(*s.qualityHighMm);
  }
  json["qualityRangeMm"] = range;
  json["unseenCost"] = s.unseenCost == UnseenCost::Weighted ? "weighted" : "flat";
  json["coverageStepDegrees"] = s.coverageStepDegrees;
  json["stationDistanceMeters"] = 2.0;
  if (withSearch) {
    json["iterations"] = s.iterations;
    json["coolingRate"] = s.coolingRate;
    json["maxSurfaceAngleDegrees"] = s.maxSurfaceAngleDegrees;
    json["minSpacingMm"] = s.minSpacingMm;
  }
  return json;
}

}  // namespace sensorlay::lab
