#pragma once
// The OpenSCAD script of a sensor layout: the device's meshes as imports, and
// each sensor as a small disc with its label, normal spike and reception cone.

#include <Eigen/Core>

#include <string>
#include <vector>

#include "model/constellation.h"

namespace sensorlay {

// The whole script text, without any comment header. `sensorsPath` may be
// empty (no surface import); `modelScale` is the factor from the STL units to
// metres (1.0 or 0.001). Never fails.
std::string writeScad(const Constellation& constellation, const std::string& sensorsPath,
                      const std::vector<std::string>& obstaclePaths, double modelScale, bool drawNormals,
                      bool drawLabels);

// Text to stand inside a /* */ comment of a script, such as a path in its
// header: a "*/" in it, which would end the comment early and let the rest be
// read as code, comes out as "*\/".
std::string scadCommentText(const std::string& text);

// The last two members of a sensor row: the angle in degrees and the axis that
// turn the disc's +Z onto `normal`, as "angle, [x, y, z]".
std::string sensorRotateExpression(const Eigen::Vector3f& normal);

}  // namespace sensorlay
