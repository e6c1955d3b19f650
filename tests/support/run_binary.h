#pragma once
// Runs the real sensorlay binary for end-to-end tests.

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace sensorlay::testing {

struct RunResult {
  int status = -1;  // exit status, or 128 + signal number when killed
  std::string out;
  std::string err;
  bool stopped = false;  // ended by runSensorlayUntil
};

// Runs the binary with the arguments in `workingDirectory` (or the current one
// when empty), with no standard input, and collects both streams.
RunResult runSensorlay(const std::vector<std::string>& args, const std::string& workingDirectory = "");

// The same for a run that may go on for ever: it is killed as soon as its
// standard error stream holds `until`, or after `seconds`, and is then
// `stopped`.
RunResult runSensorlayUntil(const std::vector<std::string>& args, const std::string& until, double seconds,
                            const std::string& workingDirectory = "");

// The conditions a run meets, for the tests of failures that come from outside.
struct RunSetup {
  std::string workingDirectory;
  // When given, the standard output stream goes to this file (/dev/full, say)
  // instead of being collected.
  std::string standardOutput;
  // A program with its arguments that starts the binary, such as
  // {"prlimit", "--fsize=2000"}; looked up on the search path.
  std::vector<std::string> launcher;
  // NAME=value entries added to the environment.
  std::vector<std::string> environment;
  // The program run; empty: sensorlay.
  std::string binary;
};
RunResult runSensorlay(const std::vector<std::string>& args, const RunSetup& setup);

// sensorlay-lab with the arguments, as runSensorlay runs sensorlay.
RunResult runLab(const std::vector<std::string>& args, const std::string& workingDirectory = "");
RunResult runLab(const std::vector<std::string>& args, RunSetup setup);
// sensorlay-lab, sent `signal` as soon as its standard error stream holds
// `until`, and then waited for (`stopped` is set); killed when it has not
// ended `seconds` after its start.
RunResult runLabUntil(const std::vector<std::string>& args, const std::string& until, int signal, double seconds,
                      const std::string& workingDirectory = "");

// A fresh directory under the system's temporary folder, removed at exit of
// the object.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// What `run` writes to the standard error or output stream of this process.
template <class F>
std::string capturedStderr(F&& run) {
  ::testing::internal::CaptureStderr();
  run();
  return ::testing::internal::GetCapturedStderr();
}
template <class F>
std::string capturedStdout(F&& run) {
  ::testing::internal::CaptureStdout();
  run();
  return ::testing::internal::GetCapturedStdout();
}

std::string readFile(const std::string& path);
// How often `part` occurs in `text`, overlaps included.
size_t countOf(const std::string& text, const std::string& part);
void writeFile(const std::string& path, const std::string& content);
bool fileExists(const std::string& path);

}  // namespace sensorlay::testing
