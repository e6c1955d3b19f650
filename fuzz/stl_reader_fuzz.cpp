// The STL reader on any bytes: it either fails with one "IOError: " line that
// names the file, or yields consistent matrices.

#include <cstdint>
#include <cstdlib>
#include <string>

#include "surface/stl_reader.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace sensorlay;
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  StlVertices vertices, normals;
  StlFaces faces;
  const Status read = parseStl("fuzz.stl", bytes, vertices, faces, normals);
  if (!read) {
    const std::string& message = read.message();
    if (message.rfind("IOError: \"fuzz.stl\": ", 0) != 0 || message.find('\n') != std::string::npos) std::abort();
    if (vertices.size() != 0 || faces.size() != 0 || normals.size() != 0) std::abort();
    return 0;
  }
  const Eigen::Index n = faces.rows();
  if (faces.cols() != 3 || vertices.cols() != 3 || normals.cols() != 3) std::abort();
  if (vertices.rows() != 3 * n || normals.rows() != n) std::abort();
  for (Eigen::Index t = 0; t < n; ++t)
    for (int k = 0; k < 3; ++k)
      if (faces(t, k) != 3 * t + k) std::abort();
  return 0;
}
