#include "common/output_file.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>
#include <filesystem>
#include <string>

#include "tests/support/run_binary.h"

namespace sensorlay {
namespace {

using testing::readFile;
using testing::TempDir;

// The names in a folder: a temporary left behind would show here.
size_t entries(const TempDir& dir) {
  return static_cast<size_t>(std::distance(std::filesystem::directory_iterator(dir.path()), {}));
}

TEST(OutputFile, AppearsWholeOrNotAtAll) {
  TempDir dir;
  const std::string path = dir.file("out.txt");
  ASSERT_TRUE(writeWholeFile(path, "first").ok());
  // Replaced whole, keeping the older file's mode; no temporary is left.
  chmod(path.c_str(), 0640);
  ASSERT_TRUE(writeWholeFile(path, "second, longer").ok());
  EXPECT_EQ(readFile(path), "second, longer");
  struct stat info;
  ASSERT_EQ(stat(path.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0640u);
  EXPECT_EQ(entries(dir), 1u);

  // Abandoned before the commit, or failing to write (here at the file size
  // limit): the older file stays and nothing is left over.
  OutputFile::open(path)->write("half");
  struct rlimit saved, small;
  getrlimit(RLIMIT_FSIZE, &saved);
  small = saved;
  small.rlim_cur = 8;
  const auto oldHandler = std::signal(SIGXFSZ, SIG_IGN);
  setrlimit(RLIMIT_FSIZE, &small);
  const Status cut = writeWholeFile(path, std::string(100, 'x'));
  setrlimit(RLIMIT_FSIZE, &saved);
  std::signal(SIGXFSZ, oldHandler);
  EXPECT_EQ(cut.message().rfind("cannot write " + path + ": ", 0), 0u) << cut.message();
  EXPECT_EQ(readFile(path), "second, longer");
  EXPECT_EQ(entries(dir), 1u);

  // A link is written through; a device is written in place, never replaced.
  std::filesystem::create_symlink(path, dir.file("link.txt"));
  ASSERT_TRUE(writeWholeFile(dir.file("link.txt"), "new").ok());
  EXPECT_TRUE(std::filesystem::is_symlink(dir.file("link.txt")));
  EXPECT_EQ(readFile(path), "new");
  EXPECT_FALSE(writeWholeFile("/dev/full", "too much").ok());
  EXPECT_TRUE(std::filesystem::is_character_file("/dev/full"));
}

TEST(OutputFile, PreflightNamesWhatStandsInTheWay) {
  TempDir dir;
  testing::writeFile(dir.file("old.txt"), "x");
  EXPECT_TRUE(checkWritable(dir.file("new.txt")).ok());
  EXPECT_TRUE(checkWritable(dir.file("old.txt")).ok());
  EXPECT_EQ(checkWritable(dir.file("no/such.txt")).message(),
            "cannot write " + dir.file("no/such.txt") + ": its folder " + dir.file("no") + " does not exist");
  EXPECT_EQ(checkWritable(dir.path()).message(), "cannot write " + dir.path() + ": it is a folder");
  EXPECT_EQ(checkWritable(dir.file("old.txt/inside")).message(),
            "cannot write " + dir.file("old.txt/inside") + ": " + dir.file("old.txt") + " is not a folder");
  EXPECT_FALSE(OutputFile::open(dir.file("no/such.txt")).ok());
  EXPECT_EQ(entries(dir), 1u);
}

}  // namespace
}  // namespace sensorlay
