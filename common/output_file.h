#pragma once
// Output files that appear whole or not at all. The text goes into a temporary
// file in the target's folder, which is renamed onto the target only once
// everything has been written and closed without error: a failed or
// interrupted run never leaves a truncated file, and never destroys the older
// file at that path. A temporary that is abandoned is removed. A device or a
// pipe, and a writable file in a folder that takes no new files, are written
// in place, as nothing else can be done with them.

#include <cstddef>
#include <string>

#include "common/result.h"

namespace sensorlay {

// Whether `path` could be created or replaced by this process, checked without
// writing anything: a file that is already there must be writable, and a new
// one needs a folder that exists and takes new files. The failure names the
// path and why.
Status checkWritable(const std::string& path);

class OutputFile {
 public:
  // A file that is to replace `path`. Fails, with a message naming the path,
  // when checkWritable fails or the temporary cannot be made.
  static Result<OutputFile> open(const std::string& path);

  OutputFile(OutputFile&& other) noexcept;
  OutputFile& operator=(OutputFile&& other) noexcept;
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;
  // Removes the temporary unless commit succeeded.
  ~OutputFile();

  void write(const char* data, size_t size);
  void write(const std::string& text) { write(text.data(), text.size()); }

  // Flushes and closes the temporary and renames it onto the path. On failure
  // the temporary is removed and the older file stays as it was.
  Status commit() {
    const Status finished = finish();
    return finished ? publish() : finished;
  }

  // The two halves of commit, for files that must change together: finish
  // every one, and publish them only once all have finished.
  // finish: everything written reaches the disk and the temporary is closed;
  // on failure the temporary is removed.
  Status finish();
  // publish: the finished temporary is renamed onto the path.
  Status publish();

  const std::string& path() const { return path_; }

 private:
  OutputFile() = default;
  void abandon();

  std::string path_;       // where the file ends up
  std::string temporary_;  // empty when the path is written in place
  int fd_ = -1;
  int error_ = 0;  // the first write error
  bool finished_ = false;
};

// The whole text to `path` through an OutputFile.
Status writeWholeFile(const std::string& path, const std::string& text);

// Flushes the standard output stream. Fails when anything written to it was
// lost (a full disk, a closed device), with a message that names `what` was
// being written.
Status flushStandardOutput(const std::string& what);

}  // namespace sensorlay
