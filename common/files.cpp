#include "common/files.h"

#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <exception>
#include <stdexcept>
#include <vector>

namespace sensorlay {

namespace {

std::string workingDirectory() {
  std::vector<char> buffer(32767);
  if (getcwd(buffer.data(), buffer.size()) == nullptr) return std::string();
  return std::string(buffer.data());
}

// The path without trailing slashes; "/" stays "/".
std::string trimTrailingSlashes(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

// One component up: "/a/b" -> "/a", "/a" -> "/", "a" -> "". Empty once the
// walk has passed the top.
std::string parentPath(const std::string& path) {
  if (path == "/") return std::string();
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) return std::string();
  if (slash == 0) return "/";
  return trimTrailingSlashes(path.substr(0, slash));
}

std::string lastComponent(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

bool entryExists(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0;
}

// The length of the well-formed UTF-8 sequence at `at` and its code point,
// or 0 when the bytes there are not one.
size_t utf8Sequence(const std::string& text, size_t at, uint32_t& codePoint) {
  const auto byte = [&](size_t i) { return i < text.size() ? static_cast<unsigned char>(text[i]) : 0u; };
  const unsigned lead = byte(at);
  size_t length;
  unsigned low = 0x80, high = 0xBF;  // the range of the second byte
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2;
    codePoint = lead & 0x1Fu;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3;
    codePoint = lead & 0x0Fu;
    if (lead == 0xE0) low = 0xA0;   // no overlong forms
    if (lead == 0xED) high = 0x9F;  // no surrogates
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4;
    codePoint = lead & 0x07u;
    if (lead == 0xF0) low = 0x90;
    if (lead == 0xF4) high = 0x8F;  // nothing beyond U+10FFFF
  } else {
    return 0;
  }
  for (size_t i = 1; i < length; ++i) {
    const unsigned next = byte(at + i);
    if (next < (i == 1 ? low : 0x80u) || next > (i == 1 ? high : 0xBFu)) return 0;
    codePoint = (codePoint << 6) | (next & 0x3Fu);
  }
  return length;
}

// Characters a terminal acts on rather than shows: the C1 controls, and the
// marks that turn the direction of the text around it.
bool isHiddenControl(uint32_t c) {
  return (c >= 0x80 && c <= 0x9F) || c == 0x061C || c == 0x200E || c == 0x200F || (c >= 0x2028 && c <= 0x202E) ||
         (c >= 0x2066 && c <= 0x2069);
}

}  // namespace

std::string printablePath(const std::string& path) {
  std::string out;
  out.reserve(path.size());
  auto escape = [&out](unsigned char c) {
    static const char digits[] = "0123456789abcdef";
    if (c == '\t')
      out += "\\t";
    else if (c == '\n')
      out += "\\n";
    else if (c == '\r')
      out += "\\r";
    else
      out += {'\\', 'x', digits[c >> 4], digits[c & 15]};
  };
  for (size_t i = 0; i < path.size();) {
    const unsigned char c = static_cast<unsigned char>(path[i]);
    if (c >= 0x20 && c < 0x7F) {
      out += static_cast<char>(c);
      ++i;
      continue;
    }
    uint32_t codePoint = 0;
    const size_t length = c < 0x80 ? 0 : utf8Sequence(path, i, codePoint);
    if (length == 0) {
      escape(c);
      ++i;
    } else if (isHiddenControl(codePoint)) {
      for (size_t k = 0; k < length; ++k) escape(static_cast<unsigned char>(path[i + k]));
      i += length;
    } else {
      out.append(path, i, length);
      i += length;
    }
  }
  return out;
}

WholeFile readRegularFile(const std::string& path, uint64_t maxBytes) {
  WholeFile file;
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    file.problem = WholeFile::Problem::CannotOpen;
    file.error = errno;
    return file;
  }
  struct stat info;
  if (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
    close(fd);
    file.problem = WholeFile::Problem::NotRegularFile;
    return file;
  }
  try {
    if (static_cast<uint64_t>(info.st_size) > maxBytes) throw std::length_error("file");
    file.bytes.resize(static_cast<size_t>(info.st_size));
  } catch (const std::exception&) {
    close(fd);
    file.problem = WholeFile::Problem::TooLarge;
    return file;
  }
  size_t got = 0;
  while (got < file.bytes.size()) {
    const ssize_t n = read(fd, &file.bytes[got], file.bytes.size() - got);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      file.error = errno;
      close(fd);
      file.bytes.clear();
      file.problem = WholeFile::Problem::ReadFailed;
      return file;
    }
    if (n == 0) break;  // shrank while being read
    got += static_cast<size_t>(n);
  }
  close(fd);
  file.bytes.resize(got);
  return file;
}

std::string readTextFile(const std::string& path) {
  WholeFile file = readRegularFile(path);
  if (file.problem != WholeFile::Problem::None) return std::string();
  std::string text = std::move(file.bytes);
  if (text.find('\r') == std::string::npos) return text;

  // CR LF becomes LF: the line feed takes the carriage return's place.
  size_t out = 0;
  for (size_t in = 0; in < text.size(); ++in) {
    if (in > 0 && text[in] == '\n' && text[in - 1] == '\r')
      text[out - 1] = '\n';
    else
      text[out++] = text[in];
  }
  text.resize(out);
  return text;
}

std::string Path_GetExecutablePath() {
  // Wide enough for any path the kernel hands back.
  std::vector<char> buffer(32767);
  const ssize_t length = readlink("/proc/self/exe", buffer.data(), buffer.size());
  if (length <= 0 || static_cast<size_t>(length) >= buffer.size()) return std::string();
  return std::string(buffer.data(), static_cast<size_t>(length));
}

std::string joinPath(const std::string& a, const std::string& b, char separator) {
  if (a.empty()) return b;
  std::string head = a;
  if (head.back() == '/' || head.back() == '\\') head.pop_back();
  return head + separator + b;
}

std::string findAncestorNamed(const std::string& start, const std::string& name) {
  if (start.empty()) return std::string();
  for (std::string dir = trimTrailingSlashes(start); !dir.empty(); dir = parentPath(dir))
    if (strcasecmp(lastComponent(dir).c_str(), name.c_str()) == 0) return dir;
  return std::string();
}

std::string findEntryUpwards(const std::string& start, const std::string& name) {
  for (std::string dir = trimTrailingSlashes(start); !dir.empty(); dir = parentPath(dir)) {
    const std::string candidate = joinPath(dir, name);
    if (entryExists(candidate)) return candidate;
  }
  return std::string();
}

std::string findResourceRoot() {
  const std::string cwd = workingDirectory();
  std::string found = findAncestorNamed(cwd, "tessmain");
  if (found.empty()) found = findAncestorNamed(cwd, "tessruntime");
  if (found.empty()) found = findEntryUpwards(Path_GetExecutablePath(), "runtime");
  const std::string driver = findEntryUpwards(cwd, "tessdriver");
  if (!driver.empty()) return driver;
  return joinPath(joinPath(found, "drivers"), "tessdriver");
}

std::string readResourceFile(const std::string& relativePath) {
  return readTextFile(joinPath(findResourceRoot(), relativePath));
}

}  // namespace sensorlay
