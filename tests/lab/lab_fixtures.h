#pragma once
// What the lab's end-to-end tests share. Header only.

#include <gtest/gtest.h>
#include <json/json.h>

#include <string>

#include "common/json_io.h"
#include "tests/support/meshes.h"

namespace sensorlay::testing {

// A JSON text the program printed or wrote, parsed; a failure to parse fails
// the test.
inline Json::Value parsedJson(const std::string& text) {
  Json::Value root;
  std::string errors;
  EXPECT_TRUE(parseJsonText(text, root, errors)) << errors << text;
  return root;
}

// A box of 80 x 60 x 40 mm in millimetres, 192 triangles.
inline Mesh labBox() { return boxMesh({-40, -30, -20}, {40, 30, 20}, 4); }

}  // namespace sensorlay::testing
