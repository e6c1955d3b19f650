#include "common/output_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

#include "common/files.h"

namespace sensorlay {

namespace {

std::string folderOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

Status cannotWrite(const std::string& path, const std::string& why) {
  return Status::failure("cannot write " + printablePath(path) + ": " + why);
}

// The file a path names: a symbolic link is followed, so that the rename
// replaces what it points to rather than the link.
std::string resolved(const std::string& path) {
  struct stat info;
  if (lstat(path.c_str(), &info) != 0 || !S_ISLNK(info.st_mode)) return path;
  char buffer[PATH_MAX];
  return realpath(path.c_str(), buffer) != nullptr ? std::string(buffer) : path;
}

// The mode that a new file gets from open(..., 0666) under the present umask.
mode_t newFileMode() {
  const mode_t mask = umask(0);
  umask(mask);
  return 0666 & ~mask;
}

bool writeAll(int fd, const char* data, size_t size) {
  while (size > 0) {
    const ssize_t n = ::write(fd, data, size);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

}  // namespace

Status checkWritable(const std::string& requested) {
  if (requested.empty()) return Status::failure("cannot write a file without a name");
  const std::string path = resolved(requested);
  struct stat info;
  if (stat(path.c_str(), &info) == 0) {
    if (S_ISDIR(info.st_mode)) return cannotWrite(requested, "it is a folder");
    if (access(path.c_str(), W_OK) != 0) return cannotWrite(requested, std::strerror(errno));
    // A writable file can always be written in place, whatever its folder.
    return Status();
  } else if (errno != ENOENT && errno != ENOTDIR) {
    return cannotWrite(requested, std::strerror(errno));
  }
  const std::string folder = folderOf(path);
  if (stat(folder.c_str(), &info) != 0)
    return cannotWrite(requested, "its folder " + printablePath(folder) + " does not exist");
  if (!S_ISDIR(info.st_mode)) return cannotWrite(requested, printablePath(folder) + " is not a folder");
  if (access(folder.c_str(), W_OK | X_OK) != 0)
    return cannotWrite(
        requested, "its folder " + printablePath(folder) + " does not take new files (" + std::strerror(errno) + ")");
  return Status();
}

Result<OutputFile> OutputFile::open(const std::string& requested) {
  const Status writable = checkWritable(requested);
  if (!writable) return writable;
  OutputFile file;
  file.path_ = resolved(requested);

  struct stat info;
  const bool exists = stat(file.path_.c_str(), &info) == 0;
  // A device or a pipe is written in place, and so is a file in a folder that
  // takes no new files: there is no temporary to be had for them.
  auto inPlace = [&]() -> Result<OutputFile> {
    file.fd_ = ::open(file.path_.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
    if (file.fd_ < 0) return cannotWrite(requested, std::strerror(errno));
    return std::move(file);
  };
  if (exists && !S_ISREG(info.st_mode)) return inPlace();

  // Hidden and named after the target, so that one left by a killed run is
  // neither mistaken for an output nor hard to place.
  const size_t slash = file.path_.rfind('/');
  const std::string pattern = slash == std::string::npos ? "." + file.path_ + ".partial-XXXXXX"
                                                         : file.path_.substr(0, slash + 1) + "." +
                                                               file.path_.substr(slash + 1) + ".partial-XXXXXX";
  std::vector<char> name(pattern.begin(), pattern.end());
  name.push_back('\0');
  file.fd_ = mkostemp(name.data(), O_CLOEXEC);
  if (file.fd_ < 0 && exists && (errno == EACCES || errno == EPERM || errno == EROFS)) return inPlace();
  if (file.fd_ < 0) return cannotWrite(requested, std::strerror(errno));
  file.temporary_ = name.data();
  // mkstemp makes the file private; the result gets the mode the older file
  // had, or the one a plainly created file would have.
  if (fchmod(file.fd_, exists ? (info.st_mode & 07777) : newFileMode()) != 0) {
    const int error = errno;
    file.abandon();
    return cannotWrite(requested, std::strerror(error));
  }
  return file;
}

OutputFile::OutputFile(OutputFile&& other) noexcept
    : path_(std::move(other.path_)),
      temporary_(std::move(other.temporary_)),
      fd_(std::exchange(other.fd_, -1)),
      error_(other.error_),
      finished_(std::exchange(other.finished_, false)) {
  other.temporary_.clear();
}

OutputFile& OutputFile::operator=(OutputFile&& other) noexcept {
  if (this != &other) {
    abandon();
    path_ = std::move(other.path_);
    temporary_ = std::move(other.temporary_);
    other.temporary_.clear();
    fd_ = std::exchange(other.fd_, -1);
    error_ = other.error_;
    finished_ = std::exchange(other.finished_, false);
  }
  return *this;
}

OutputFile::~OutputFile() { abandon(); }

void OutputFile::abandon() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
  if (!temporary_.empty()) ::unlink(temporary_.c_str());
  temporary_.clear();
  finished_ = false;
}

void OutputFile::write(const char* data, size_t size) {
  if (fd_ < 0 || error_ != 0) return;
  if (!writeAll(fd_, data, size)) error_ = errno;
}

Status OutputFile::finish() {
  if (fd_ < 0) return cannotWrite(path_, "the file is not open");
  int error = error_;
  // Written through to the disk before the rename, so that a crash leaves
  // the older file or the whole new one.
  if (error == 0 && !temporary_.empty() && fsync(fd_) != 0) error = errno;
  if (::close(fd_) != 0 && error == 0) error = errno;
  fd_ = -1;
  if (error != 0) {
    abandon();
    return cannotWrite(path_, std::strerror(error));
  }
  finished_ = true;
  return Status();
}

Status OutputFile::publish() {
  if (!finished_) return cannotWrite(path_, "the file is not finished");
  if (!temporary_.empty() && std::rename(temporary_.c_str(), path_.c_str()) != 0) {
    const int error = errno;
    abandon();
    return cannotWrite(path_, std::strerror(error));
  }
  temporary_.clear();
  finished_ = false;
  return Status();
}

Status writeWholeFile(const std::string& path, const std::string& text) {
  Result<OutputFile> file = OutputFile::open(path);
  if (!file) return file.status();
  file->write(text);
  return file->commit();
}

Status flushStandardOutput(const std::string& what) {
  errno = 0;
  const bool flushed = std::fflush(stdout) == 0;
  const int error = errno;
  // The error flag also keeps a failure of an earlier, automatic flush.
  if (flushed && !std::ferror(stdout)) return Status();
  return Status::failure("couldn't write " + what + " to the standard output stream" +
                         (!flushed && error != 0 ? std::string(": ") + std::strerror(error) : std::string()));
}

}  // namespace sensorlay
