#pragma once
// What the lab's subcommands are told on the command line, in the units an
// engineer uses (millimetres, degrees), and the option tables that fill it.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "common/json_io.h"
#include "lab/cli.h"
#include "quality/placement_score.h"

namespace sensorlay::lab {

// The unit of a mesh file. Auto is the size rule of sensorlay: millimetres
// when the bounding box's diagonal reads 5 or more, else metres.
enum class MeshUnit { Auto, Same, Millimetres, Centimetres, Metres, Inches };

// The factor from the unit to metres; nothing for Auto and Same.
std::optional<double> metresPer(MeshUnit unit);
const char* unitWord(MeshUnit unit);  // "auto", "mm", ...
std::optional<MeshUnit> parseUnit(const std::string& word, bool sameAllowed);

// The meshes and how to read them.
struct MeshInputs {
  std::string sensors;
  std::vector<std::string> obstacles;
  MeshUnit units = MeshUnit::Auto;
  MeshUnit obstacleUnits = MeshUnit::Same;  // Same: the surface's
  double sensorSizeMm = 6.0;
};

// The settings that a design's score depends on, and those of its search.
struct DesignSettings {
  int32_t orientations = 1250;
  double maxIncidenceDegrees = 60.0;
  std::string qualityMap;
  // Of the pose uncertainty, millimetres of position plus milliradians of
  // rotation; none: the built-in curve.
  std::optional<double> qualityLowMm, qualityHighMm;
  UnseenCost unseenCost = UnseenCost::Weighted;
  double coverageStepDegrees = 2.0;

  // The search's own.
  int32_t iterations = 3;
  double coolingRate = 0.96;
  double maxSurfaceAngleDegrees = 0.0;
  double minSpacingMm = 0.0;
};

// The table rows of the mesh options (--sensors, --obstacles, --units,
// --obstacle-units, --sensor-size), of the settings that change a score, and
// of the search's settings.
std::vector<OptionDef> meshOptionDefs();
std::vector<OptionDef> scoreSettingDefs();
std::vector<OptionDef> searchSettingDefs();

// Appends the score's and the search's rows, for the commands that take a
// design's options as they are; where the command does not search,
// `searchHelp` says so in place of the search rows' own help.
void appendDesignSettingDefs(std::vector<OptionDef>& options, const char* searchHelp = nullptr);

// Takes one option if it is one of these tables': nothing when it is not,
// an empty text when taken, else what is wrong with the value.
std::optional<std::string> takeMeshOption(MeshInputs& inputs, const std::string& name, const char* value);
std::optional<std::string> takeSetting(DesignSettings& settings, const std::string& name, const char* value);
// --threads of the commands that run on a worker pool: 0 (one per core) to 1024.
std::optional<std::string> takeThreads(const std::string& name, const char* value, int32_t& threads);

// The settings as the run record and `score --json` show them, keys with their
// units.
JsonOut settingsJson(const MeshInputs& inputs, const DesignSettings& settings, bool withSearch);

// The quality range in the score's unit (metres plus radians), when given.
inline bool hasQualityRange(const DesignSettings& s) { return s.qualityLowMm && s.qualityHighMm; }

}  // namespace sensorlay::lab
