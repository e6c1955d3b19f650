#include "device/json_read.h"

#include <json/json.h>

#include <cctype>
#include <cfloat>
#include <cmath>
#include <cstdio>
#include <limits>

namespace sensorlay {

const Json::Value& jsonMember(const Json::Value& object, const char* key) {
  if (object.isNull()) return object;
  if (!object.isObject())
    throw DeviceJsonError(std::string("key \"") + key + "\" looked up in a value that is not an object");
  const Json::Value* found = object.find(key, key + std::char_traits<char>::length(key));
  static const Json::Value null;
  return found != nullptr ? *found : null;
}

bool jsonHas(const Json::Value& object, const char* key) {
  if (object.isNull()) return false;
  if (!object.isObject())
    throw DeviceJsonError(std::string("key \"") + key + "\" looked up in a value that is not an object");
  return object.find(key, key + std::char_traits<char>::length(key)) != nullptr;
}

const Json::Value& jsonElement(const Json::Value& array, unsigned index) {
  static const Json::Value null;
  if (array.isNull()) return null;
  if (!array.isArray()) throw DeviceJsonError("element looked up in a value that is not an array");
  if (index >= array.size()) return null;
  return array[static_cast<Json::ArrayIndex>(index)];
}

bool jsonToInt64(const Json::Value& value, int64_t& out) {
  switch (value.type()) {
    case Json::intValue:
      out = value.asInt64();
      return true;
    case Json::uintValue:
      if (value.asUInt64() > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) return false;
      out = static_cast<int64_t>(value.asUInt64());
      return true;
    case Json::realValue: {
      const double d = value.asDouble();
      // 2^63 is exactly representable; anything from there on is out of range.
      if (!(d >= -9223372036854775808.0 && d < 9223372036854775808.0)) return false;
      out = static_cast<int64_t>(d);
      return true;
    }
    default:
      return false;
  }
}

bool jsonToDouble(const Json::Value& value, double& out) {
  if (!value.isNumeric()) return false;
  out = value.asDouble();
  return true;
}

namespace {

template <typename T>
bool inRange(int64_t v) {
  return v >= static_cast<int64_t>(std::numeric_limits<T>::min()) &&
         v <= static_cast<int64_t>(std::numeric_limits<T>::max());
}

}  // namespace

int32_t readInt(const Json::Value& object, const char* key, int32_t fallback) {
  int64_t v = 0;
  if (!jsonToInt64(jsonMember(object, key), v) || !inRange<int32_t>(v)) return fallback;
  return static_cast<int32_t>(v);
}

uint32_t readUInt(const Json::Value& object, const char* key, uint32_t fallback) {
  int64_t v = 0;
  if (!jsonToInt64(jsonMember(object, key), v) || !inRange<uint32_t>(v)) return fallback;
  return static_cast<uint32_t>(v);
}

float narrowToFloat(double value) {
  if (value > FLT_MAX || value < -FLT_MAX) {
    char text[96];
    std::snprintf(text, sizeof text, "the number %g is beyond the range of a 32-bit float", value);
    throw FloatRangeError(text);
  }
  return static_cast<float>(value);
}

void checkFloatTriples(const Json::Value& list) {
  if (!list.isArray()) return;
  for (const Json::Value& triple : list)
    if (triple.isArray())
      for (Json::ArrayIndex i = 0; i < 3 && i < triple.size(); ++i)
        if (triple[i].isNumeric()) narrowToFloat(triple[i].asDouble());
}

float readFloat(const Json::Value& object, const char* key, float fallback) {
  double v = 0.0;
  if (!jsonToDouble(jsonMember(object, key), v)) return fallback;
  return narrowToFloat(v);
}

double readDouble(const Json::Value& object, const char* key, double fallback) {
  double v = 0.0;
  if (!jsonToDouble(jsonMember(object, key), v)) return fallback;
  return v;
}

bool readBool(const Json::Value& object, const char* key, bool fallback) {
  const Json::Value& v = jsonMember(object, key);
  return v.isBool() ? v.asBool() : fallback;
}

std::string readString(const Json::Value& object, const char* key, const std::string& fallback) {
  const Json::Value& v = jsonMember(object, key);
  return v.isString() ? v.asString() : fallback;
}

namespace {

// An element read as a number: missing or null is the fallback, a truth value
// 1 or 0; text or a container inside a numeric array is a type error.
double elementNumber(const Json::Value& array, unsigned index, double fallback) {
  const Json::Value& v = jsonElement(array, index);
  if (v.isNull()) return fallback;
  if (v.isBool()) return v.asBool() ? 1.0 : 0.0;
  if (!v.isNumeric()) throw DeviceJsonError("an element of a numeric array is not a number");
  return v.asDouble();
}

}  // namespace

float elementFloat(const Json::Value& array, unsigned index, float fallback) {
  return narrowToFloat(elementNumber(array, index, fallback));
}

double elementDouble(const Json::Value& array, unsigned index, double fallback) {
  return elementNumber(array, index, fallback);
}

std::string elementString(const Json::Value& array, unsigned index) {
  const Json::Value& v = jsonElement(array, index);
  if (v.isArray() || v.isObject()) throw DeviceJsonError("an element of a text array is a container");
  // Numbers and truth values read as their text, null as the empty text.
  return v.asString();
}

Eigen::Vector3d readTriple(const Json::Value& array) {
  return Eigen::Vector3d(elementDouble(array, 0, 0.0), elementDouble(array, 1, 0.0), elementDouble(array, 2, 0.0));
}

bool equalsIgnoringCase(const std::string& a, const std::string& b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i)
    if (std::tolower(static_cast<unsigned char>(a[i])) != std::tolower(static_cast<unsigned char>(b[i]))) return false;
  return true;
}

}  // namespace sensorlay
