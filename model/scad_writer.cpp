#include "model/scad_writer.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <locale>
#include <sstream>

namespace sensorlay {

namespace {

// The script around the sensor rows. Kept byte for byte as the viewers of
// earlier designs know it, including the tab that opens the loop of
// constellation() and the lines of four blanks inside DrawSensor.
const char* const cadTemplate =
    "\n"
    "drawsensors = true;\n"
    "drawlabels = %DRAW_LABELS%;\n"
    "drawcones = true;\n"
    "drawnormals = %DRAW_NORMALS%;\n"
    "drawmodels = true;\n"
    "modelscale = %STL_SCALE%;\n"
    "sensorconeangle = 60.0;\n"
    "\n"
    "$fn = 40;\n"
    "\n"
    "scale([modelscale, modelscale, modelscale]) {\n"
    "    if ( drawmodels )\n"
    "    {\n"
    "%MODELS%\n"
    "    }\n"
    "}\n"
    "\n"
    "sensors = [\n"
    "%SENSORS%\n"
    "];\n"
    "\n"
    "scale([1000, 1000, 1000])\n"
    "    constellation();\n"
    "\n"
    "module constellation() {\n"
    "\tfor(s = sensors)\n"
    "    {\n"
    "        DrawSensor(s);\n"
    "    }\n"
    "}\n"
    "\n"
    "module DrawSensor(s) {\n"
    "    if ( drawsensors )\n"
    "    {\n"
    "        translate(s[1]) rotate(s[2], s[3]) color(s[0][1])\n"
    "            cylinder(r = 0.0025, h = 0.001);\n"
    "    }\n"
    "    \n"
    "    if ( drawnormals )\n"
    "    {\n"
    "        translate(s[1]) rotate(s[2], s[3]) color(s[0][1])\n"
    "            cylinder(r1 = 0.0025, r2 = 0, h = 0.005);\n"
    "    }\n"
    "    \n"
    "    if ( drawlabels )\n"
    "    {\n"
    "        translate(s[1]) rotate(s[2], s[3]) translate([0.003,0,0.002]) color( \"black\", 1.0 ) scale( 0.002 )\n"
    "            linear_extrude( height = 0.1 ) text( str( s[0][0] ), size = 1, valign = \"center\", halign = \"left\" "
    ");\n"
    "    }\n"
    "    \n"
    "    if ( drawcones )\n"
    "    {\n"
    "        sensorheight = 0.005;\n"
    "        outerradius = sensorheight / tan(90-sensorconeangle);\n"
    "        translate(s[1]) rotate(s[2], s[3]) color( \"gray\", 0.2 ) translate([0,0,0.0025]) scale([1.0,1.0,-1.0])\n"
    "            cylinder(h=sensorheight, r1=outerradius, r2=0, center=true);\n"
    "    }\n"
    "}\n";

// Replaces every occurrence, resuming the search behind the inserted text so
// that a replacement holding its own placeholder cannot loop.
void replaceAll(std::string& text, const std::string& placeholder, const std::string& replacement) {
  size_t at = 0;
  while ((at = text.find(placeholder, at)) != std::string::npos) {
    text.replace(at, placeholder.size(), replacement);
    at += replacement.size();
  }
}

// A path as the text of an OpenSCAD string: a backslash or a double quote
// would end the string or escape what follows, and let the rest of the path be
// read as code; control characters are written as escapes too.
std::string openScadString(const std::string& path) {
  static const char digits[] = "0123456789abcdef";
  std::string out;
  out.reserve(path.size());
  for (char c : path) {
    const unsigned char byte = static_cast<unsigned char>(c);
    if (c == '\\' || c == '"')
      out += {'\\', c};
    else if (c == '\n')
      out += "\\n";
    else if (c == '\t')
      out += "\\t";
    else if (c == '\r')
      out += "\\r";
    else if (byte < 0x20 || byte == 0x7F)
      out += {'\\', 'x', digits[byte >> 4], digits[byte & 15]};
    else
      out += c;
  }
  return out;
}

// Default stream format (six significant digits), independent of the global
// locale so that no digit grouping or decimal comma creeps in.
std::ostringstream makeNumberStream() {
  std::ostringstream stream;
  stream.imbue(std::locale::classic());
  return stream;
}

}  // namespace

std::string scadCommentText(const std::string& text) {
  std::string out = text;
  for (size_t at = 0; (at = out.find("*/", at)) != std::string::npos; at += 3) out.insert(at + 1, "\\");
  return out;
}

std::string sensorRotateExpression(const Eigen::Vector3f& normal) {
  Eigen::Vector3f axis(1.0f, 0.0f, 0.0f);
  // Nearly vertical normals, pointing up or down, turn about X; the cross
  // product with +Z would be too short to give a stable axis.
  if (!(std::fabs(static_cast<double>(normal.z())) > 0.9999)) {
    axis = Eigen::Vector3f(normal.y(), -normal.x(), 0.0f);
    const float squaredLength = axis.x() * axis.x() + axis.y() * axis.y() + axis.z() * axis.z();
    if (squaredLength > 0.0f) axis /= std::sqrt(squaredLength);
  }
  // The dot product with +Z written out in full: an infinite or not-a-number
  // x or y makes the angle not-a-number, as the whole product does.
  const float cosine = normal.x() * 0.0f + normal.y() * 0.0f + normal.z() * 1.0f;
  const float radians = std::acos(cosine);
  const float halfTurns = radians * 180.0f;
  const float degrees = -static_cast<float>(static_cast<double>(halfTurns) * 0.3183098861837907);

  std::ostringstream out = makeNumberStream();
  out << degrees << ", [" << axis.x() << ", " << axis.y() << ", " << axis.z() << "]";
  return out.str();
}

std::string writeScad(const Constellation& constellation, const std::string& sensorsPath,
                      const std::vector<std::string>& obstaclePaths, double modelScale, bool drawNormals,
                      bool drawLabels) {
  std::string script = cadTemplate;
  replaceAll(script, "%DRAW_LABELS%", drawLabels ? "true" : "false");
  replaceAll(script, "%DRAW_NORMALS%", drawNormals ? "true" : "false");

  char scaleText[64];
  std::snprintf(scaleText, sizeof scaleText, "%f", modelScale * 1000.0);
  replaceAll(script, "%STL_SCALE%", scaleText);

  std::string models;
  if (!sensorsPath.empty())
    models += "     color(\"orange\") import(\"" + openScadString(sensorsPath) + "\", convexity = 4);\n";
  for (const std::string& obstacle : obstaclePaths)
    models += "     color(\"white\") import(\"" + openScadString(obstacle) + "\", convexity = 4);\n";
  replaceAll(script, "%MODELS%", models);

  // A record whose sequences disagree in length (possible in a hand-written
  // file) yields rows for the sensors that all three describe.
  const size_t count =
      std::min({constellation.modelPoints.size(), constellation.channelMap.size(), constellation.modelNormals.size()});
  std::ostringstream rows = makeNumberStream();
  for (size_t i = 0; i < count; ++i) {
    const Eigen::Vector3f& p = constellation.modelPoints[i];
    rows << "    [ [ " << constellation.channelMap[i] << ", \"lime\" ], [ " << p.x() << ", " << p.y() << ", " << p.z()
         << "], " << sensorRotateExpression(constellation.modelNormals[i]) << " ],\n";
  }
  replaceAll(script, "%SENSORS%", rows.str());
  return script;
}

}  // namespace sensorlay
