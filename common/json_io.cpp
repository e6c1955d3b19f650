#include "common/json_io.h"

#include <json/json.h>

#include <charconv>
#include <cmath>
#include <stdexcept>

namespace sensorlay {

JsonOut::JsonOut(bool v) : type_(Type::Bool), bool_(v) {}
JsonOut::JsonOut(int32_t v) : type_(Type::Int), int_(v) {}
JsonOut::JsonOut(uint32_t v) : type_(Type::UInt), uint_(v) {}
JsonOut::JsonOut(int64_t v) : type_(Type::Int), int_(v) {}
JsonOut::JsonOut(uint64_t v) : type_(Type::UInt), uint_(v) {}
JsonOut::JsonOut(float v) : type_(Type::Real), real_(v), precision_(9) {}
JsonOut::JsonOut(double v) : type_(Type::Real), real_(v), precision_(17) {}
JsonOut::JsonOut(const char* v) : type_(Type::String), string_(v) {}
JsonOut::JsonOut(std::string v) : type_(Type::String), string_(std::move(v)) {}

JsonOut JsonOut::array() {
  JsonOut v;
  v.type_ = Type::Array;
  return v;
}

JsonOut JsonOut::object() {
  JsonOut v;
  v.type_ = Type::Object;
  return v;
}

JsonOut JsonOut::fromJson(const Json::Value& value) {
  switch (value.type()) {
    case Json::nullValue:
      return JsonOut();
    case Json::booleanValue:
      return JsonOut(value.asBool());
    case Json::intValue:
      return JsonOut(static_cast<int64_t>(value.asLargestInt()));
    case Json::uintValue:
      return JsonOut(static_cast<uint64_t>(value.asLargestUInt()));
    case Json::realValue:
      return JsonOut(value.asDouble());
    case Json::stringValue:
      return JsonOut(value.asString());
    case Json::arrayValue: {
      JsonOut out = array();
      for (Json::ArrayIndex i = 0; i < value.size(); ++i) out.append(fromJson(value[i]));
      return out;
    }
    case Json::objectValue: {
      JsonOut out = object();
      for (const auto& name : value.getMemberNames()) out[name] = fromJson(value[name]);
      return out;
    }
  }
  return JsonOut();
}

size_t JsonOut::size() const {
  if (type_ == Type::Array) return elements_.size();
  if (type_ == Type::Object) return members_.size();
  return 0;
}

JsonOut& JsonOut::operator[](const std::string& key) {
  if (type_ == Type::Null) type_ = Type::Object;
  if (type_ != Type::Object) throw std::logic_error("JsonOut: member access on a non-object");
  return members_[key];
}

bool JsonOut::isMember(const std::string& key) const { return find(key) != nullptr; }

const JsonOut* JsonOut::find(const std::string& key) const {
  if (type_ != Type::Object) return nullptr;
  auto it = members_.find(key);
  return it == members_.end() ? nullptr : &it->second;
}

void JsonOut::append(JsonOut v) {
  if (type_ == Type::Null) type_ = Type::Array;
  if (type_ != Type::Array) throw std::logic_error("JsonOut: append to a non-array");
  elements_.push_back(std::move(v));
}

bool JsonOut::operator==(const JsonOut& other) const {
  if (type_ != other.type_) return false;
  switch (type_) {
    case Type::Null:
      return true;
    case Type::Bool:
      return bool_ == other.bool_;
    case Type::Int:
      return int_ == other.int_;
    case Type::UInt:
      return uint_ == other.uint_;
    case Type::Real:
      return real_ == other.real_ && precision_ == other.precision_;
    case Type::String:
      return string_ == other.string_;
    case Type::Array:
      return elements_ == other.elements_;
    case Type::Object:
      return members_ == other.members_;
  }
  return false;
}

std::string formatJsonNumber(double value, int significantDigits) {
  // Non-finite values follow JsonCpp's choice, so that the file stays JSON.
  if (std::isnan(value)) return "null";
  if (std::isinf(value)) return value < 0 ? "-1e+9999" : "1e+9999";
  // printf's "%.*g" digit for digit, at a fraction of its cost and with a
  // decimal point whatever the locale.
  char buffer[64];
  const std::to_chars_result end =
      std::to_chars(buffer, buffer + sizeof buffer, value, std::chars_format::general, significantDigits);
  return std::string(buffer, end.ptr);
}

namespace {

void appendHex16(std::string& out, unsigned v) {
  static const char digits[] = "0123456789abcdef";
  out += "\\u";
  out += digits[(v >> 12) & 15];
  out += digits[(v >> 8) & 15];
  out += digits[(v >> 4) & 15];
  out += digits[v & 15];
}

// Decodes one UTF-8 sequence starting at s[i], advancing i past it, as
// JsonCpp's writer does: the lead byte alone sets the length, a sequence cut
// short by the end of the text yields U+FFFD and moves on by one byte, and
// overlong forms and surrogates yield U+FFFD.
unsigned decodeUtf8(const std::string& s, size_t& i) {
  const unsigned first = static_cast<unsigned char>(s[i]);
  const size_t left = s.size() - i;
  auto next = [&](size_t k) { return static_cast<unsigned>(static_cast<unsigned char>(s[i + k])) & 0x3Fu; };
  unsigned length, cp, smallest;
  if (first < 0x80) {
    length = 1, cp = first, smallest = 0;
  } else if (first < 0xE0) {
    length = 2, smallest = 0x80;
    if (left >= 2) cp = ((first & 0x1Fu) << 6) | next(1);
  } else if (first < 0xF0) {
    length = 3, smallest = 0x800;
    if (left >= 3) cp = ((first & 0x0Fu) << 12) | (next(1) << 6) | next(2);
  } else if (first < 0xF8) {
    length = 4, smallest = 0x10000;
    if (left >= 4) cp = ((first & 0x07u) << 18) | (next(1) << 12) | (next(2) << 6) | next(3);
  } else {
    i += 1;
    return 0xFFFD;
  }
  if (left < length) {
    i += 1;
    return 0xFFFD;
  }
  i += length;
  if (cp < smallest || (cp >= 0xD800 && cp <= 0xDFFF)) return 0xFFFD;
  return cp;
}

std::string quoted(const std::string& s) {
  std::string out = "\"";
  size_t i = 0;
  while (i < s.size()) {
    const unsigned char c = static_cast<unsigned char>(s[i]);
    switch (c) {
      case '"':
        out += "\\\"";
        ++i;
        continue;
      case '\\':
        out += "\\\\";
        ++i;
        continue;
      case '\b':
        out += "\\b";
        ++i;
        continue;
      case '\f':
        out += "\\f";
        ++i;
        continue;
      case '\n':
        out += "\\n";
        ++i;
        continue;
      case '\r':
        out += "\\r";
        ++i;
        continue;
      case '\t':
        out += "\\t";
        ++i;
        continue;
      default:
        break;
    }
    if (c < 0x20) {
      appendHex16(out, c);
      ++i;
    } else if (c < 0x80) {
      out += static_cast<char>(c);
      ++i;
    } else {
      unsigned cp = decodeUtf8(s, i);
      if (cp < 0x10000) {
        appendHex16(out, cp);
      } else {
        cp -= 0x10000;
        appendHex16(out, 0xD800 + ((cp >> 10) & 0x3FF));
        appendHex16(out, 0xDC00 + (cp & 0x3FF));
      }
    }
  }
  out += '"';
  return out;
}

// A transcription of StyledWriter's layout rules: objects one member a line,
// arrays of scalars on one line while they fit inside the right margin.
class StyledLayout {
 public:
  explicit StyledLayout(unsigned rightMargin) : rightMargin_(rightMargin) {}

  std::string write(const JsonOut& root) {
    document_.clear();
    indent_.clear();
    addChildValues_ = false;
    writeValue(root);
    document_ += '\n';
    return document_;
  }

 private:
  void pushValue(const std::string& text) {
    if (addChildValues_)
      childValues_.push_back(text);
    else
      document_ += text;
  }

  void writeIndent() {
    if (!document_.empty()) {
      const char last = document_.back();
      if (last == ' ') return;
      if (last != '\n') document_ += '\n';
    }
    document_ += indent_;
  }

  void writeWithIndent(const std::string& text) {
    writeIndent();
    document_ += text;
  }

  void writeValue(const JsonOut& value) {
    switch (value.type()) {
      case JsonOut::Type::Array:
        writeArray(value);
        break;
      case JsonOut::Type::Object: {
        if (value.members().empty()) {
          pushValue("{}");
          break;
        }
        writeWithIndent("{");
        indent_ += "   ";
        bool first = true;
        for (const auto& member : value.members()) {
          if (!first) document_ += ',';
          first = false;
          writeWithIndent(quoted(member.first));
          document_ += " : ";
          writeValue(member.second);
        }
        indent_.resize(indent_.size() - 3);
        writeWithIndent("}");
        break;
      }
      case JsonOut::Type::String:
        pushValue(quoted(value.scalarText()));
        break;
      default:
        pushValue(value.scalarText());
        break;
    }
  }

  void writeArray(const JsonOut& value) {
    const size_t size = value.size();
    if (size == 0) {
      pushValue("[]");
      return;
    }
    if (isMultiLine(value)) {
      writeWithIndent("[");
      indent_ += "   ";
      const bool hasChildValues = !childValues_.empty();
      for (size_t i = 0; i < size; ++i) {
        if (i > 0) document_ += ',';
        if (hasChildValues) {
          writeWithIndent(childValues_[i]);
        } else {
          writeIndent();
          writeValue(value.at(i));
        }
      }
      indent_.resize(indent_.size() - 3);
      writeWithIndent("]");
    } else {
      document_ += "[ ";
      for (size_t i = 0; i < size; ++i) {
        if (i > 0) document_ += ", ";
        document_ += childValues_[i];
      }
      document_ += " ]";
    }
  }

  bool isMultiLine(const JsonOut& value) {
    const size_t size = value.size();
    bool multiLine = size * 3 >= rightMargin_;
    childValues_.clear();
    for (size_t i = 0; i < size && !multiLine; ++i) {
      const JsonOut& child = value.at(i);
      multiLine = (child.type() == JsonOut::Type::Array || child.type() == JsonOut::Type::Object) && !child.empty();
    }
    if (!multiLine) {
      childValues_.reserve(size);
      addChildValues_ = true;
      size_t lineLength = 4 + (size - 1) * 2;
      for (size_t i = 0; i < size; ++i) {
        writeValue(value.at(i));
        lineLength += childValues_[i].size();
      }
      addChildValues_ = false;
      multiLine = lineLength >= rightMargin_;
    }
    return multiLine;
  }

  unsigned rightMargin_;
  std::string document_;
  std::string indent_;
  std::vector<std::string> childValues_;
  bool addChildValues_ = false;
};

}  // namespace

std::string JsonOut::scalarText() const {
  switch (type_) {
    case Type::Null:
      return "null";
    case Type::Bool:
      return bool_ ? "true" : "false";
    case Type::Int:
      return std::to_string(int_);
    case Type::UInt:
      return std::to_string(uint_);
    case Type::Real:
      return formatJsonNumber(real_, precision_);
    case Type::String:
      return string_;
    default:
      return std::string();
  }
}

std::string writeStyledJson(const JsonOut& value, unsigned rightMargin) {
  return StyledLayout(rightMargin).write(value);
}

bool parseJsonText(const std::string& text, Json::Value& root, std::string& errors, bool* threw) {
  errors.clear();
  if (threw != nullptr) *threw = false;
  try {
    Json::Reader reader;
    if (reader.parse(text, root, true)) return true;
    errors = reader.getFormattedErrorMessages();
  } catch (const std::exception& e) {
    errors = e.what();
    if (threw != nullptr) *threw = true;
  }
  root = Json::Value();
  return false;
}

}  // namespace sensorlay
