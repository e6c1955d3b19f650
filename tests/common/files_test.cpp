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

TEST(PrintablePath, EscapesWhatATerminalWouldActOn) {
  const std::pair<std::string, std::string> cases[] = {
      // Printable paths come out whole, UTF-8 letters and backslashes included.
      {"out/design.json", "out/design.json"},
      {"C:\\models\\caf\xc3\xa9 \xe6\x97\xa5\xf0\x9f\x98\x80.json",
       "C:\\models\\caf\xc3\xa9 \xe6\x97\xa5\xf0\x9f\x98\x80.json"},
      // Control characters, DEL, and the escape sequences they start.
      {"\x1b[2J\x1b]0;x\x07"
       "a\tb\nc\rd\x7f",
       "\\x1b[2J\\x1b]0;x\\x07a\\tb\\nc\\rd\\x7f"},
      {std::string("a\0b", 3), "a\\x00b"},
      // The C1 control CSI, in UTF-8 and as a bare byte; a mark that reverses
      // the text after it.
      {"a\xc2\x9b"
       "31mb",
       "a\\xc2\\x9b31mb"},
      {"a\x9b"
       "31m",
       "a\\x9b31m"},
      {"x\xe2\x80\xaegnp.exe", "x\\xe2\\x80\\xaegnp.exe"},
      // Bytes that are no UTF-8: a lone continuation, a cut sequence, an
      // overlong form, a surrogate, a code point beyond U+10FFFF.
      {"\x80\xc3", "\\x80\\xc3"},
      {"\xe6\x97.", "\\xe6\\x97."},
      {"\xc0\xaf\xe0\x80\xaf", "\\xc0\\xaf\\xe0\\x80\\xaf"},
      {"\xed\xa0\x80", "\\xed\\xa0\\x80"},
      {"\xf4\x90\x80\x80", "\\xf4\\x90\\x80\\x80"},
  };
  for (const auto& [path, shown] : cases) EXPECT_EQ(printablePath(path), shown) << shown;
}

}  // namespace
}  // namespace sensorlay
