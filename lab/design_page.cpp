#include "lab/design_page.h"

#include <cstring>

#include "lab/view/view_assets.h"

namespace sensorlay::lab {

namespace {

std::string base64Words(const std::vector<uint32_t>& words) {
  std::vector<uint8_t> bytes(4 * words.size());
  for (size_t i = 0; i < words.size(); ++i)
    for (int b = 0; b < 4; ++b) bytes[4 * i + b] = static_cast<uint8_t>(words[i] >> (8 * b));
  return base64(bytes.data(), bytes.size());
}

}  // namespace

std::string base64(const uint8_t* bytes, size_t size) {
  static const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  out.reserve((size + 2) / 3 * 4);
  for (size_t i = 0; i < size; i += 3) {
    const size_t n = size - i < 3 ? size - i : 3;
    uint32_t group = uint32_t{bytes[i]} << 16;
    if (n > 1) group |= uint32_t{bytes[i + 1]} << 8;
    if (n > 2) group |= bytes[i + 2];
    out += kAlphabet[group >> 18];
    out += kAlphabet[(group >> 12) & 63];
    out += n > 1 ? kAlphabet[(group >> 6) & 63] : '=';
    out += n > 2 ? kAlphabet[group & 63] : '=';
  }
  return out;
}

std::string base64Float32(const std::vector<float>& values) {
  std::vector<uint32_t> words(values.size());
  for (size_t i = 0; i < values.size(); ++i) std::memcpy(&words[i], &values[i], 4);
  return base64Words(words);
}

std::string base64Uint32(const std::vector<uint32_t>& values) { return base64Words(values); }

std::string base64Uint8(const std::vector<uint8_t>& values) { return base64(values.data(), values.size()); }

std::string fillDesignPage(const std::string& dataJson) {
  const std::string_view page = viewPageTemplate();
  const std::string_view placeholder = viewDataPlaceholder();
  const size_t at = page.find(placeholder);
  std::string out;
  out.reserve(page.size() + dataJson.size());
  out.append(page.substr(0, at));
  for (char c : dataJson) {
    if (c == '<')
      out += "\\u003c";
    else
      out += c;
  }
  out.append(page.substr(at + placeholder.size()));
  return out;
}

}  // namespace sensorlay::lab
