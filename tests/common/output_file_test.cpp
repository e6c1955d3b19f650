#include "common/output_file.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <string>

#include "tests/support/run_binary.h"

namespace sensorlay {
namespace {

using testing::readFile;
using testing::TempDir;
using testing::writeFile;

// The names in a folder: a temporary left behind would show here.
size_t entries(const TempDir& dir) {
  size_t count = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(dir.path())) ++count;
  return count;
}

mode_t modeOf(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0 ? (info.st_mode & 07777) : 0;
}

TEST(OutputFile, AppearsWholeOrNotAtAll) {
  TempDir dir;
  const std::string path = dir.file("out.txt");
  ASSERT_TRUE(writeWholeFile(path, "first").ok());
  const mode_t mask = umask(0);
  umask(mask);
  EXPECT_EQ(modeOf(path), 0666 & ~mask);

  // Replaced whole, keeping the older file's mode; the temporary is gone.
  chmod(path.c_str(), 0640);
  ASSERT_TRUE(writeWholeFile(path, "second, longer").ok());
  EXPECT_EQ(readFile(path), "second, longer");
  EXPECT_EQ(modeOf(path), 0640u);
  EXPECT_EQ(entries(dir), 1u);

  // Abandoned before the commit: the older file stays, nothing is left over.
  {
    Result<OutputFile> file = OutputFile::open(path);
    ASSERT_TRUE(file.ok()) << file.message();
    file->write("half");
    EXPECT_EQ(entries(dir), 2u);
  }
  EXPECT_EQ(readFile(path), "second, longer");
  EXPECT_EQ(entries(dir), 1u);

  // A write that fails (here the file size limit) fails the commit and keeps
  // the older file.
  struct rlimit saved;
  getrlimit(RLIMIT_FSIZE, &saved);
  const auto oldHandler = std::signal(SIGXFSZ, SIG_IGN);
  struct rlimit small = saved;
  small.rlim_cur = 8;
  setrlimit(RLIMIT_FSIZE, &small);
  const Status cut = writeWholeFile(path, std::string(100, 'x'));
  setrlimit(RLIMIT_FSIZE, &saved);
  std::signal(SIGXFSZ, oldHandler);
  EXPECT_FALSE(cut.ok());
  EXPECT_EQ(cut.message().rfind("cannot write " + path + ": ", 0), 0u) << cut.message();
  EXPECT_EQ(readFile(path), "second, longer");
  EXPECT_EQ(entries(dir), 1u);
}

TEST(OutputFile, LinksAndDevicesAreWrittenThrough) {
  TempDir dir;
  writeFile(dir.file("target.txt"), "old");
  std::filesystem::create_symlink(dir.file("target.txt"), dir.file("link.txt"));
  ASSERT_TRUE(writeWholeFile(dir.file("link.txt"), "new").ok());
  EXPECT_TRUE(std::filesystem::is_symlink(dir.file("link.txt")));
  EXPECT_EQ(readFile(dir.file("target.txt")), "new");

  // A device is written in place, never replaced.
  EXPECT_TRUE(writeWholeFile("/dev/null", "nothing").ok());
  EXPECT_TRUE(std::filesystem::is_character_file("/dev/null"));
  const Status full = writeWholeFile("/dev/full", "too much");
  EXPECT_FALSE(full.ok());
  EXPECT_TRUE(std::filesystem::is_character_file("/dev/full"));
}

TEST(OutputFile, PreflightNamesWhatStandsInTheWay) {
  TempDir dir;
  EXPECT_TRUE(checkWritable(dir.file("new.txt")).ok());
  writeFile(dir.file("old.txt"), "x");
  EXPECT_TRUE(checkWritable(dir.file("old.txt")).ok());
  EXPECT_EQ(
      checkWritable(dir.file("no/such/folder.txt")).message(),
      "cannot write " + dir.file("no/such/folder.txt") + ": its folder " + dir.file("no/such") + " does not exist");
  EXPECT_EQ(checkWritable(dir.path()).message(), "cannot write " + dir.path() + ": it is a folder");
  EXPECT_EQ(checkWritable(dir.file("old.txt/inside")).message(),
            "cannot write " + dir.file("old.txt/inside") + ": " + dir.file("old.txt") + " is not a folder");
  EXPECT_FALSE(checkWritable("").ok());
  EXPECT_FALSE(OutputFile::open(dir.file("no/such/folder.txt")).ok());
  // Permissions mean nothing to the superuser.
  if (geteuid() != 0) {
    chmod(dir.file("old.txt").c_str(), 0444);
    EXPECT_FALSE(checkWritable(dir.file("old.txt")).ok());
    chmod(dir.path().c_str(), 0555);
    EXPECT_FALSE(checkWritable(dir.file("new.txt")).ok());
    chmod(dir.path().c_str(), 0755);
  }
  EXPECT_EQ(entries(dir), 1u);
}

}  // namespace
}  // namespace sensorlay
