#pragma once
// Reading device JSON values, with two kinds of strictness.
//
// Containers are strict: looking a key up in a value that is neither an
// object nor null, or an index in one that is neither an array nor null,
// throws DeviceJsonError, and the record read as a whole fails.
// Leaves are lenient: a missing key, a null, or a value of the wrong type for
// the read reads as the default, so an odd key costs only itself.

#include <Eigen/Core>

#include <cstdint>
#include <stdexcept>
#include <string>

namespace Json {
class Value;
}

namespace sensorlay {

struct DeviceJsonError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// The member, or null when missing; throws when `object` is not an object or null.
const Json::Value& jsonMember(const Json::Value& object, const char* key);
bool jsonHas(const Json::Value& object, const char* key);
// The element, or null when missing; throws when `array` is not an array or null.
const Json::Value& jsonElement(const Json::Value& array, unsigned index);

// Leaf conversions: true and `out` set when the value is of a fitting type;
// numbers for integers must lie in range (reals are truncated toward zero).
bool jsonToInt64(const Json::Value& value, int64_t& out);
bool jsonToDouble(const Json::Value& value, double& out);

int32_t readInt(const Json::Value& object, const char* key, int32_t fallback);
uint32_t readUInt(const Json::Value& object, const char* key, uint32_t fallback);
float readFloat(const Json::Value& object, const char* key, float fallback);
double readDouble(const Json::Value& object, const char* key, double fallback);
bool readBool(const Json::Value& object, const char* key, bool fallback);
std::string readString(const Json::Value& object, const char* key, const std::string& fallback = std::string());

float elementFloat(const Json::Value& array, unsigned index, float fallback);
double elementDouble(const Json::Value& array, unsigned index, double fallback);
std::string elementString(const Json::Value& array, unsigned index);

// A triple of 64-bit floats from an array; missing elements read as 0.
Eigen::Vector3d readTriple(const Json::Value& array);

// A number that does not fit the 32-bit float it is stored in. It would
// become an infinity, which a device file cannot hold: written out, it could
// not be read back. The record read as a whole fails, with this message.
struct FloatRangeError : DeviceJsonError {
  using DeviceJsonError::DeviceJsonError;
};

// A 64-bit float narrowed to 32 bits; throws FloatRangeError for a value
// beyond the float range.
float narrowToFloat(double value);

// Checks the numbers of a list of triples that a reader narrows to 32 bits
// itself, such as the model section's points and normals.
void checkFloatTriples(const Json::Value& list);

// Case-insensitive comparison of ASCII text.
bool equalsIgnoringCase(const std::string& a, const std::string& b);

}  // namespace sensorlay
