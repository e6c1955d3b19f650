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

}  // namespace
}  // namespace sensorlay
