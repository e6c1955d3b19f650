#include "lab/processes.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

namespace sensorlay::lab {

namespace {

sigset_t stopSignals() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  return set;
}

// An unlinked temporary file for a child's stream: a file never fills up
// the way a pipe does, so a talkative child cannot stall.
int streamFile() {
  const char* folder = std::getenv("TMPDIR");
  std::string name = std::string(folder != nullptr && *folder != '\0' ? folder : "/tmp") + "/sensorlay-lab.XXXXXX";
  const int fd = mkostemp(name.data(), O_CLOEXEC);
  if (fd >= 0) unlink(name.c_str());
  return fd;
}

std::string readBack(int fd) {
  std::string text;
  if (fd < 0) return text;
  lseek(fd, 0, SEEK_SET);
  char buffer[8192];
  ssize_t n;
  while ((n = read(fd, buffer, sizeof buffer)) > 0) text.append(buffer, static_cast<size_t>(n));
  close(fd);
  return text;
}

// Forks and execs. In the child only calls that are safe after fork run;
// an exec that fails sends its errno back through a pipe closed on exec.
pid_t spawn(const std::vector<std::string>& argv, int outFd, int errFd, const std::string& workingDirectory,
            bool holdStopSignals, std::string& why) {
  if (argv.empty()) {
    why = "no program";
    return -1;
  }
  std::vector<char*> words;
  for (const std::string& word : argv) words.push_back(const_cast<char*>(word.c_str()));
  words.push_back(nullptr);
  int report[2];
  if (pipe2(report, O_CLOEXEC) != 0) {
    why = std::string("cannot start ") + argv[0] + ": " + std::strerror(errno);
    return -1;
  }
  const sigset_t held = stopSignals();
  sigset_t before;
  if (holdStopSignals) sigprocmask(SIG_BLOCK, &held, &before);
  const pid_t pid = fork();
  if (pid == 0) {
    int error = 0;
    const int devNull = open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (devNull < 0 || dup2(devNull, 0) < 0) error = errno;
    if (error == 0 && outFd >= 0 && dup2(outFd, 1) < 0) error = errno;
    if (error == 0 && errFd >= 0 && dup2(errFd, 2) < 0) error = errno;
    if (error == 0 && !workingDirectory.empty() && chdir(workingDirectory.c_str()) != 0) error = errno;
    if (error == 0) {
      execvp(words[0], words.data());
      error = errno;
    }
    (void)!write(report[1], &error, sizeof error);
    _exit(127);
  }
  const int forkError = errno;
  if (holdStopSignals) sigprocmask(SIG_SETMASK, &before, nullptr);
  close(report[1]);
  if (pid < 0) {
    close(report[0]);
    why = std::string("cannot start ") + argv[0] + ": " + std::strerror(forkError);
    return -1;
  }
  int error = 0;
  ssize_t got;
  do got = read(report[0], &error, sizeof error);
  while (got < 0 && errno == EINTR);
  close(report[0]);
  if (got == sizeof error) {
    waitpid(pid, nullptr, 0);
    why = std::string("cannot start ") + argv[0] + ": " + std::strerror(error);
    return -1;
  }
  return pid;
}

}  // namespace

bool onSearchPath(const std::string& program) {
  const char* path = std::getenv("PATH");
  if (path == nullptr) return false;
  const std::string folders = path;
  size_t start = 0;
  for (;;) {
    const size_t end = folders.find(':', start);
    std::string folder = folders.substr(start, end == std::string::npos ? std::string::npos : end - start);
    if (folder.empty()) folder = ".";
    const std::string candidate = folder + "/" + program;
    struct stat info;
    if (stat(candidate.c_str(), &info) == 0 && S_ISREG(info.st_mode) && access(candidate.c_str(), X_OK) == 0)
      return true;
    if (end == std::string::npos) return false;
    start = end + 1;
  }
}

int exitStatusOf(int waitStatus) {
  if (WIFEXITED(waitStatus)) return WEXITSTATUS(waitStatus);
  if (WIFSIGNALED(waitStatus)) return 128 + WTERMSIG(waitStatus);
  return 127;
}

ProgramRun runProgram(const std::vector<std::string>& argv, const std::string& workingDirectory) {
  ProgramRun run;
  const int outFd = streamFile(), errFd = streamFile();
  if (outFd < 0 || errFd < 0) {
    run.err = std::string("cannot make a temporary file for ") + argv[0] + ": " + std::strerror(errno);
    if (outFd >= 0) close(outFd);
    if (errFd >= 0) close(errFd);
    return run;
  }
  std::string why;
  const pid_t pid = spawn(argv, outFd, errFd, workingDirectory, false, why);
  if (pid > 0) {
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    run.status = exitStatusOf(status);
  }
  run.out = readBack(outFd);
  run.err = pid > 0 ? readBack(errFd) : (readBack(errFd), why);
  return run;
}

pid_t startProgram(const std::vector<std::string>& argv, bool holdStopSignals, std::string& why) {
  return spawn(argv, -1, -1, "", holdStopSignals, why);
}

void releaseStopSignals() {
  const sigset_t held = stopSignals();
  sigprocmask(SIG_UNBLOCK, &held, nullptr);
}

}  // namespace sensorlay::lab
