#pragma once
// The entry points that take a path read the fuzz input from a file: one
// file a target, in a private folder on a memory file system when there is
// one, rewritten for every input and removed at exit.

#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace sensorlay::fuzz {

class InputFile {
 public:
  // `name` is the file's name inside the folder; the readers that look at
  // the extension see it.
  explicit InputFile(const std::string& name) {
    for (const char* base : {"/dev/shm", "/tmp"}) {
      std::string pattern = std::string(base) + "/sensorlay_fuzz_XXXXXX";
      if (mkdtemp(pattern.data()) != nullptr) {
        folder_ = pattern;
        break;
      }
    }
    if (folder_.empty()) std::abort();
    path_ = folder_ + "/" + name;
  }
  ~InputFile() {
    unlink(path_.c_str());
    rmdir(folder_.c_str());
  }
  InputFile(const InputFile&) = delete;
  InputFile& operator=(const InputFile&) = delete;

  const std::string& path() const { return path_; }

  void write(const uint8_t* data, size_t size) const {
    const int fd = open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) std::abort();
    while (size > 0) {
      const ssize_t n = ::write(fd, data, size);
      if (n <= 0) std::abort();
      data += n;
      size -= static_cast<size_t>(n);
    }
    close(fd);
  }
  void write(const std::string& text) const { write(reinterpret_cast<const uint8_t*>(text.data()), text.size()); }

 private:
  std::string folder_;
  std::string path_;
};

}  // namespace sensorlay::fuzz
