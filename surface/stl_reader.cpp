#include "surface/stl_reader.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string_view>
#include <vector>

#include "common/files.h"

// Binary STL stores little-endian floats and integers; they are copied as
// they stand.
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "the binary STL reader assumes a little-endian host");

namespace sensorlay {

namespace {

constexpr size_t kHeaderBytes = 80;
constexpr size_t kPrefixBytes = 84;  // header and triangle count
constexpr size_t kTriangleBytes = 50;
// Face indices are 32-bit, and each triangle takes three vertex rows.
constexpr uint64_t kMaxTriangles = static_cast<uint64_t>(std::numeric_limits<int32_t>::max()) / 3;
// Beyond this the surface's own single-precision sums (the bounding box, the
// triangle areas) overflow, and the ray caster refuses rays long before the
// float range ends.
constexpr float kMaxCoordinate = 1e9f;

Status complain(const std::string& path, const std::string& problem) {
  return Status::failure("IOError: \"" + printablePath(path) + "\": " + problem);
}

bool isSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v'; }

bool equalsNoCase(std::string_view token, const char* word) {
  const size_t n = std::strlen(word);
  if (token.size() != n) return false;
  for (size_t i = 0; i < n; ++i) {
    char c = token[i];
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    if (c != word[i]) return false;
  }
  return true;
}

// A token as it may be shown in a message: printable, and not too long.
std::string shown(std::string_view token) {
  std::string s;
  for (size_t i = 0; i < token.size() && i < 32; ++i) {
    const unsigned char c = static_cast<unsigned char>(token[i]);
    s += (c >= 0x20 && c < 0x7f) ? static_cast<char>(c) : '?';
  }
  if (token.size() > 32) s += "...";
  return "\"" + s + "\"";
}

// Text that begins with "solid" (after a byte-order mark and white space)
// and holds no NUL byte.
bool looksLikeAscii(const std::string& bytes) {
  size_t i = bytes.compare(0, 3, "\xEF\xBB\xBF") == 0 ? 3 : 0;
  while (i < bytes.size() && isSpace(bytes[i])) ++i;
  if (bytes.size() - i < 5 || !equalsNoCase(std::string_view(bytes).substr(i, 5), "solid")) return false;
  return bytes.find('\0') == std::string::npos;
}

// The first number of the file that is not finite or lies beyond
// kMaxCoordinate makes the file unusable; the message names its triangle.
Status screenValues(const std::string& path, const std::vector<float>& corners, const std::vector<float>& fileNormals) {
  const size_t n = fileNormals.size() / 3;
  for (size_t t = 0; t < n; ++t) {
    const float* values[2] = {&fileNormals[3 * t], &corners[9 * t]};
    const size_t counts[2] = {3, 9};
    for (int part = 0; part < 2; ++part)
      for (size_t i = 0; i < counts[part]; ++i) {
        const float v = values[part][i];
        if (std::isfinite(v) && std::fabs(v) <= kMaxCoordinate) continue;
        char text[160];
        std::snprintf(text, sizeof text,
                      "triangle %zu of %zu has the %s %g; coordinates and normals must be finite and at "
                      "most %g in size",
                      t + 1, n, part == 0 ? "normal component" : "vertex coordinate", static_cast<double>(v),
                      static_cast<double>(kMaxCoordinate));
        return complain(path, text);
      }
  }
  return Status();
}

void fillMatrices(const std::vector<float>& corners, const std::vector<float>& fileNormals, StlVertices& vertices,
                  StlFaces& faces, StlVertices& normals) {
  const Eigen::Index n = static_cast<Eigen::Index>(fileNormals.size() / 3);
  vertices.resize(3 * n, 3);
  faces.resize(n, 3);
  normals.resize(n, 3);
  for (Eigen::Index t = 0; t < n; ++t) {
    for (int k = 0; k < 3; ++k) {
      normals(t, k) = fileNormals[3 * t + k];
      faces(t, k) = static_cast<int32_t>(3 * t + k);
      for (int c = 0; c < 3; ++c) vertices(3 * t + k, c) = corners[9 * t + 3 * k + c];
    }
  }
}

// Screens the values, then fills the three matrices.
Status finish(const std::string& path, const std::vector<float>& corners, const std::vector<float>& fileNormals,
              StlVertices& vertices, StlFaces& faces, StlVertices& normals) {
  if (Status screened = screenValues(path, corners, fileNormals); !screened) return screened;
  fillMatrices(corners, fileNormals, vertices, faces, normals);
  return Status();
}

class AsciiParser {
 public:
  explicit AsciiParser(const std::string& bytes) : p_(bytes.data()), end_(bytes.data() + bytes.size()) {}

  // Yields an empty string on success, else the problem.
  std::string parse(std::vector<float>& corners, std::vector<float>& fileNormals) {
    std::string_view token;
    next(token);  // "solid", known to be there
    skipLine();   // the solid's name
    for (;;) {
      if (!next(token)) return "the ASCII STL ends at line " + std::to_string(line_) + " without \"endsolid\"";
      if (equalsNoCase(token, "facet")) {
        if (fileNormals.size() / 3 >= kMaxTriangles) return "the ASCII STL holds too many triangles";
        float values[12];
        std::string problem;
        if (!expect("normal", problem) || !numbers(values, problem) || !expect("outer", problem) ||
            !expect("loop", problem))
          return problem;
        for (int k = 0; k < 3; ++k)
          if (!expect("vertex", problem) || !numbers(values + 3 + 3 * k, problem)) return problem;
        if (!expect("endloop", problem) || !expect("endfacet", problem)) return problem;
        fileNormals.insert(fileNormals.end(), values, values + 3);
        corners.insert(corners.end(), values + 3, values + 12);
      } else if (equalsNoCase(token, "endsolid")) {
        skipLine();
        // Some exporters write several solids into one file.
        if (!next(token)) return "";
        if (!equalsNoCase(token, "solid"))
          return "malformed ASCII STL at line " + std::to_string(line_) + ": expected \"solid\" or the end after " +
                 "\"endsolid\", found " + shown(token);
        skipLine();
      } else {
        return "malformed ASCII STL at line " + std::to_string(line_) + ": expected \"facet\" or \"endsolid\", found " +
               shown(token);
      }
    }
  }

 private:
  bool next(std::string_view& token) {
    while (p_ < end_ && isSpace(*p_)) {
      if (*p_ == '\n') ++line_;
      ++p_;
    }
    if (p_ == end_) return false;
    const char* start = p_;
    while (p_ < end_ && !isSpace(*p_)) ++p_;
    token = std::string_view(start, static_cast<size_t>(p_ - start));
    return true;
  }

  void skipLine() {
    while (p_ < end_ && *p_ != '\n') ++p_;
  }

  bool expect(const char* word, std::string& problem) {
    std::string_view token;
    if (!next(token)) {
      problem = "the ASCII STL ends at line " + std::to_string(line_) + " inside a facet, where \"" + word +
                "\" should follow";
      return false;
    }
    if (!equalsNoCase(token, word)) {
      problem =
          "malformed ASCII STL at line " + std::to_string(line_) + ": expected \"" + word + "\", found " + shown(token);
      return false;
    }
    return true;
  }

  bool numbers(float* out, std::string& problem) {
    for (int i = 0; i < 3; ++i) {
      std::string_view token;
      if (!next(token)) {
        problem =
            "the ASCII STL ends at line " + std::to_string(line_) + " inside a facet, where a number should follow";
        return false;
      }
      char buffer[128];
      bool good = token.size() < sizeof buffer;
      if (good) {
        std::memcpy(buffer, token.data(), token.size());
        buffer[token.size()] = '\0';
        char* stop = nullptr;
        out[i] = std::strtof(buffer, &stop);
        good = stop == buffer + token.size();
      }
      if (!good) {
        problem = "malformed ASCII STL at line " + std::to_string(line_) + ": expected a number, found " + shown(token);
        return false;
      }
    }
    return true;
  }

  const char* p_;
  const char* end_;
  int line_ = 1;
};

void readBinary(const std::string& bytes, uint64_t count, std::vector<float>& corners,
                std::vector<float>& fileNormals) {
  corners.resize(9 * count);
  fileNormals.resize(3 * count);
  const char* record = bytes.data() + kPrefixBytes;
  for (uint64_t t = 0; t < count; ++t, record += kTriangleBytes) {
    std::memcpy(&fileNormals[3 * t], record, 12);
    std::memcpy(&corners[9 * t], record + 12, 36);
    // The two attribute bytes are ignored.
  }
}

}  // namespace

Status parseStl(const std::string& path, const std::string& bytes, StlVertices& vertices, StlFaces& faces,
                StlVertices& normals) {
  const uint64_t size = bytes.size();
  if (size == 0) {
    return complain(path, "the file is empty");
  }
  std::vector<float> corners, fileNormals;
  const bool ascii = looksLikeAscii(bytes);
  uint32_t count = 0;
  if (size >= kPrefixBytes) std::memcpy(&count, bytes.data() + kHeaderBytes, 4);
  const uint64_t binarySize = kPrefixBytes + kTriangleBytes * static_cast<uint64_t>(count);

  if (size >= kPrefixBytes && binarySize == size) {
    // A binary header may well begin with "solid"; the size matching the
    // count decides, unless the whole file also parses as text.
    if (ascii) {
      std::vector<float> textCorners, textNormals;
      if (AsciiParser(bytes).parse(textCorners, textNormals).empty())
        return finish(path, textCorners, textNormals, vertices, faces, normals);
    }
    if (count > kMaxTriangles) {
      return complain(path, "the binary STL counts " + std::to_string(count) + " triangles, more than can be indexed");
    }
    readBinary(bytes, count, corners, fileNormals);
    return finish(path, corners, fileNormals, vertices, faces, normals);
  }
  if (ascii) {
    const std::string problem = AsciiParser(bytes).parse(corners, fileNormals);
    if (!problem.empty()) {
      return complain(path, problem);
    }
    return finish(path, corners, fileNormals, vertices, faces, normals);
  }
  if (size < kPrefixBytes)
    return complain(path, "not an STL file: " + std::to_string(size) +
                              " bytes are too few for a binary STL, and the text does not begin with \"solid\"");
  if (size < binarySize)
    return complain(path, "truncated binary STL, or no STL at all: its header counts " + std::to_string(count) +
                              " triangles, which need " + std::to_string(binarySize) + " bytes, but the file holds " +
                              std::to_string(size));
  return complain(path, "not an STL file: it does not begin with \"solid\", and its " + std::to_string(size) +
                            " bytes do not match the " + std::to_string(count) +
                            " triangles of a binary header, which need " + std::to_string(binarySize));
}

Status readStl(const std::string& path, StlVertices& vertices, StlFaces& faces, StlVertices& normals) {
  const WholeFile file = readRegularFile(path);
  switch (file.problem) {
    case WholeFile::Problem::None:
      return parseStl(path, file.bytes, vertices, faces, normals);
    case WholeFile::Problem::CannotOpen:
      return complain(path, std::string("cannot be opened: ") + std::strerror(file.error));
    case WholeFile::Problem::NotRegularFile:
      return complain(path, "not a regular file");
    case WholeFile::Problem::TooLarge:
      return complain(path, "the file is too large to be read");
    case WholeFile::Problem::ReadFailed:
      break;
  }
  return complain(path, std::string("read failed: ") + std::strerror(file.error));
}

}  // namespace sensorlay
