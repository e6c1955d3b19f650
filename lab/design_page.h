#pragma once
// The pieces of a design page that are not about the design: the binary
// arrays of its data, and the page itself made from the template and the data.

#include <cstdint>
#include <string>
#include <vector>

namespace sensorlay::lab {

// Standard base64 with padding.
std::string base64(const uint8_t* bytes, size_t size);

// The values as little-endian bytes in base64, the form the page reads its
// arrays in, whatever the byte order of this machine.
std::string base64Float32(const std::vector<float>& values);
std::string base64Uint32(const std::vector<uint32_t>& values);
std::string base64Uint8(const std::vector<uint8_t>& values);

// The page template with `dataJson` in its place. Every "<" of the data is
// written as the JSON escape \u003c, so that no text in it (a title, a file
// name) can end the element that holds it.
std::string fillDesignPage(const std::string& dataJson);

}  // namespace sensorlay::lab
