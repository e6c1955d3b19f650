#include "common/files.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "tests/support/run_binary.h"

namespace sensorlay {
namespace {

using testing::TempDir;
using testing::writeFile;

TEST(TextFile, CollapsesCrLfAndYieldsEmptyOnAnyFailure) {
  TempDir dir;
  writeFile(dir.file("crlf"), std::string("a\r\nb\r\r\n\rc\n\r", 11));
  EXPECT_EQ(readTextFile(dir.file("crlf")), "a\nb\r\n\rc\n\r");
  writeFile(dir.file("nul"), std::string("\0\r\n", 3));
  EXPECT_EQ(readTextFile(dir.file("nul")), std::string("\0\n", 2));
  writeFile(dir.file("empty"), "");
  EXPECT_EQ(readTextFile(dir.file("empty")), "");
  EXPECT_EQ(readTextFile(dir.file("missing")), "");
  EXPECT_EQ(readTextFile(dir.path()), "");
  EXPECT_EQ(readTextFile(""), "");
}

TEST(Paths, JoinAndUpwardSearch) {
  EXPECT_EQ(
      joinPath("", "b") + " " + joinPath("a\\", "b") + " " + joinPath("a//", "/b") + " " + joinPath("a", "b", '\\'),
      "b a/b a///b a\\b");

  TempDir dir;
  const std::string deep = dir.file("One/two/three");
  std::filesystem::create_directories(deep);
  writeFile(dir.file("One/marker"), "x");
  EXPECT_EQ(findAncestorNamed(deep + "/", "one"), dir.file("One"));
  EXPECT_EQ(findAncestorNamed(deep, "nowhere"), "");
  EXPECT_EQ(findAncestorNamed("", "tmp"), "");
  EXPECT_EQ(findEntryUpwards(deep, "marker"), dir.file("One/marker"));
  EXPECT_EQ(findEntryUpwards(deep, "no_entry_of_this_name"), "");
}

}  // namespace
}  // namespace sensorlay
