#pragma once
// Device JSON fixtures shared by the device and tools tests.

#include <string>

namespace sensorlay::testing {

// A headset in the middle layout generation that sets nearly every key of
// the record to something other than its neutral value, with a comment on
// top and one key the record does not know.
std::string richDeviceJson();

// A minimal headset: the display keys that a headset must have, nothing else.
std::string minimalHmdJson(const std::string& extraMembers = "");

}  // namespace sensorlay::testing
