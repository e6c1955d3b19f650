#pragma once
// SHA-256 of a file's bytes, for the run record: it ties a design to the exact
// meshes, map and fixed model it was made from.

#include <cstdint>
#include <string>

namespace sensorlay::lab {

class Sha256 {
 public:
  Sha256();
  void update(const void* data, size_t size);
  // The digest as 64 lower-case hexadecimal digits; the object is spent.
  std::string hexDigest();

 private:
  void block(const uint8_t* chunk);
  uint32_t state_[8];
  uint8_t buffer_[64];
  size_t buffered_ = 0;
  uint64_t length_ = 0;  // bytes so far
};

inline std::string sha256Hex(const std::string& bytes) {
  Sha256 hash;
  hash.update(bytes.data(), bytes.size());
  return hash.hexDigest();
}

}  // namespace sensorlay::lab
