#include "tests/support/run_binary.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace sensorlay::testing {

namespace {

// An unlinked temporary file, so that large outputs can't fill a pipe and
// stall the child.
int temporaryFd() {
  char name[] = "/tmp/sl_stream_XXXXXX";
  const int fd = mkstemp(name);
  if (fd < 0) throw std::runtime_error("cannot make temporary files");
  unlink(name);
  return fd;
}

// Reads the whole file from its start and closes it.
std::string slurpFd(int fd) {
  std::string out;
  lseek(fd, 0, SEEK_SET);
  char buffer[65536];
  ssize_t n;
  while ((n = read(fd, buffer, sizeof buffer)) > 0) out.append(buffer, static_cast<size_t>(n));
  close(fd);
  return out;
}

}  // namespace

namespace {

// With `until`, the run is sent `signal` once its standard error stream holds
// that text, and killed if it has not ended `seconds` after its start.
RunResult run(const std::vector<std::string>& args, const RunSetup& setup, const std::string* until, double seconds,
              int signal = SIGKILL) {
  const int outFd = temporaryFd(), errFd = temporaryFd();
  pid_t pid = fork();
  if (pid < 0) throw std::runtime_error("fork failed");
  if (pid == 0) {
    int devNull = open("/dev/null", O_RDONLY);
    dup2(devNull, 0);
    dup2(outFd, 1);
    dup2(errFd, 2);
    if (!setup.standardOutput.empty()) {
      const int fd = open(setup.standardOutput.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      if (fd < 0 || dup2(fd, 1) < 0) _exit(127);
    }
    if (!setup.workingDirectory.empty() && chdir(setup.workingDirectory.c_str()) != 0) _exit(127);
    for (const std::string& entry : setup.environment) putenv(strdup(entry.c_str()));
    std::vector<std::string> copies(setup.launcher);
    copies.push_back(setup.binary.empty() ? std::string(SENSORLAY_BINARY) : setup.binary);
    copies.insert(copies.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (auto& a : copies) argv.push_back(a.data());
    argv.push_back(nullptr);
    execvp(argv[0], argv.data());
    _exit(127);
  }
  RunResult result;
  int wstatus = 0;
  if (until == nullptr) {
    waitpid(pid, &wstatus, 0);
  } else {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    bool signalled = false;
    for (;;) {
      if (waitpid(pid, &wstatus, WNOHANG) == pid) break;
      const bool late = std::chrono::steady_clock::now() > deadline;
      if (late) {
        kill(pid, SIGKILL);
        waitpid(pid, &wstatus, 0);
        result.stopped = true;
        break;
      }
      if (!signalled) {
        std::string err(1 << 16, '\0');
        const ssize_t n = pread(errFd, err.data(), err.size(), 0);
        err.resize(n > 0 ? static_cast<size_t>(n) : 0);
        if (err.find(*until) != std::string::npos) {
          kill(pid, signal);
          signalled = result.stopped = true;
          if (signal == SIGKILL) {
            waitpid(pid, &wstatus, 0);
            break;
          }
        }
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  }
  if (WIFEXITED(wstatus))
    result.status = WEXITSTATUS(wstatus);
  else if (WIFSIGNALED(wstatus))
    result.status = 128 + WTERMSIG(wstatus);
  result.out = slurpFd(outFd);
  result.err = slurpFd(errFd);
  return result;
}

}  // namespace

RunResult runSensorlay(const std::vector<std::string>& args, const std::string& workingDirectory) {
  RunSetup setup;
  setup.workingDirectory = workingDirectory;
  return run(args, setup, nullptr, 0.0);
}

RunResult runSensorlay(const std::vector<std::string>& args, const RunSetup& setup) {
  return run(args, setup, nullptr, 0.0);
}

RunResult runSensorlayUntil(const std::vector<std::string>& args, const std::string& until, double seconds,
                            const std::string& workingDirectory) {
  RunSetup setup;
  setup.workingDirectory = workingDirectory;
  return run(args, setup, &until, seconds);
}

RunResult runLab(const std::vector<std::string>& args, const std::string& workingDirectory) {
  RunSetup setup;
  setup.workingDirectory = workingDirectory;
  return runLab(args, setup);
}

RunResult runLab(const std::vector<std::string>& args, RunSetup setup) {
  setup.binary = SENSORLAY_LAB_BINARY;
  return run(args, setup, nullptr, 0.0);
}

RunResult runLabUntil(const std::vector<std::string>& args, const std::string& until, int signal, double seconds,
                      const std::string& workingDirectory) {
  RunSetup setup;
  setup.workingDirectory = workingDirectory;
  setup.binary = SENSORLAY_LAB_BINARY;
  return run(args, setup, &until, seconds, signal);
}

TempDir::TempDir() {
  char name[] = "/tmp/sensorlay_test_XXXXXX";
  if (!mkdtemp(name)) throw std::runtime_error("mkdtemp failed");
  path_ = name;
}

TempDir::~TempDir() {
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
}

size_t countOf(const std::string& text, const std::string& part) {
  size_t n = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++n;
  return n;
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

void writeFile(const std::string& path, const std::string& content) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << content;
}

bool fileExists(const std::string& path) {
  std::error_code ec;
  return std::filesystem::exists(path, ec);
}

}  // namespace sensorlay::testing
