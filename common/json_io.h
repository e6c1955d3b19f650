#pragma once
// JSON output that keeps the width of every number, and a guarded JSON reader.
//
// JsonCpp's value type forgets whether a number came from a 32-bit or a 64-bit
// float, and its StyledWriter fixes the right margin at 74. Our files carry
// 9 significant digits for single-precision values and 17 for double ones, and
// are laid out with a right margin of 160, so output goes through JsonOut.

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace Json {
class Value;
}

namespace sensorlay {

class JsonOut {
 public:
  enum class Type { Null, Bool, Int, UInt, Real, String, Array, Object };

  JsonOut() = default;
  JsonOut(bool v);
  JsonOut(int32_t v);
  JsonOut(uint32_t v);
  JsonOut(int64_t v);
  JsonOut(uint64_t v);
  JsonOut(float v);   // written with 9 significant digits
  JsonOut(double v);  // written with 17 significant digits
  JsonOut(const char* v);
  JsonOut(std::string v);

  static JsonOut array();
  static JsonOut object();
  // A copy of a parsed value; its reals are taken as 64-bit floats.
  static JsonOut fromJson(const Json::Value& value);

  Type type() const { return type_; }
  bool isNull() const { return type_ == Type::Null; }
  // Number of elements or members; 0 for scalars.
  size_t size() const;
  bool empty() const { return size() == 0; }

  // Object member access; a null value becomes an object.
  JsonOut& operator[](const std::string& key);
  bool isMember(const std::string& key) const;
  const JsonOut* find(const std::string& key) const;
  // Array append; a null value becomes an array.
  void append(JsonOut v);
  const JsonOut& at(size_t index) const { return elements_.at(index); }
  const std::map<std::string, JsonOut>& members() const { return members_; }

  // The text of a scalar as the writer prints it.
  std::string scalarText() const;

  bool operator==(const JsonOut& other) const;
  bool operator!=(const JsonOut& other) const { return !(*this == other); }

 private:
  Type type_ = Type::Null;
  bool bool_ = false;
  int64_t int_ = 0;
  uint64_t uint_ = 0;
  double real_ = 0.0;
  int precision_ = 17;
  std::string string_;
  std::vector<JsonOut> elements_;
  std::map<std::string, JsonOut> members_;  // byte order, as JsonCpp sorts keys
};

// The layout of JsonCpp's StyledWriter with the given right margin and an
// indent of 3, ending in a line end.
std::string writeStyledJson(const JsonOut& value, unsigned rightMargin = 160);

// A number in the general format of printf with the given significant digits,
// with a decimal point whatever the locale.
std::string formatJsonNumber(double value, int significantDigits);

// Parses with comments allowed. Never throws: on failure `errors` holds the
// reader's formatted messages, or the text of what it threw (it throws on
// nesting deeper than its limit), in which case `threw` is set when given.
bool parseJsonText(const std::string& text, Json::Value& root, std::string& errors, bool* threw = nullptr);

}  // namespace sensorlay
