#pragma once
// Files and paths: whole-file reads, path joins, the walks up a directory
// tree, the running executable and the folder that bare model names live in.

#include <cstdint>
#include <string>

namespace sensorlay {

// A path (or any text the user gave) as it may be printed in a message: the
// control characters and other bytes that a terminal would act on or could
// not show (escape sequences, C1 controls, bytes that are not UTF-8, marks
// that reverse the direction of the text) come out as \t, \n, \r or \xNN;
// everything else, plain printable paths whole, comes out as it is.
std::string printablePath(const std::string& path);

// The whole of a regular file of at most `maxBytes`. Only a regular file has
// a length worth trusting: a directory or a device would report nonsense,
// block or never end.
struct WholeFile {
  enum class Problem { None, CannotOpen, NotRegularFile, TooLarge, ReadFailed };
  std::string bytes;
  Problem problem = Problem::None;
  int error = 0;  // errno of CannotOpen and ReadFailed
};
WholeFile readRegularFile(const std::string& path, uint64_t maxBytes = UINT64_MAX);

// The whole file with CR LF collapsed to LF; empty on any failure.
std::string readTextFile(const std::string& path);
std::string joinPath(const std::string& a, const std::string& b, char separator = '/');

// The running executable's path, from /proc/self/exe; empty on failure.
std::string Path_GetExecutablePath();

// The first of `start` and its ancestors whose last component is `name`,
// compared without regard to case; empty when there is none.
std::string findAncestorNamed(const std::string& start, const std::string& name);
// `name` joined to the first of `start` and its ancestors that holds an entry
// of that name; empty when the walk runs out.
std::string findEntryUpwards(const std::string& start, const std::string& name);

// The folder under which bare model names are looked up (cfg/hmd/<name>.json).
std::string findResourceRoot();
std::string readResourceFile(const std::string& relativePath);

}  // namespace sensorlay
