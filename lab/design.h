#pragma once
// What `design` is asked to do, and its options, shared with the sweep, which
// checks a design's options once and hands them to every run.

#include <cstdint>
#include <optional>
#include <string>

#include "common/json_io.h"
#include "common/result.h"
#include "lab/cli.h"
#include "lab/settings.h"

namespace sensorlay::lab {

struct DesignRequest {
  MeshInputs inputs;
  DesignSettings settings;
  int32_t count = 0;
  std::string prefix;
  std::string fixedPath;
  std::optional<uint32_t> seed;
  int32_t threads = 0;
  bool quiet = false;
};

const CommandSyntax& designSyntax();

// Takes one of design's options into the request: an empty text when taken,
// else what is wrong with it.
std::string takeDesignOption(DesignRequest& request, const std::string& name, const char* value);

// The path with symbolic links and dots resolved from the working folder, or
// the path as it is when that cannot be done (a file that is not there).
std::string absolutePath(const std::string& path);

// The time now, in UTC, as 2024-05-01T12:00:00Z.
std::string utcNow();

// Path, absolute path, size and SHA-256 of an input file, as run records and
// sweeps keep them.
Result<JsonOut> describeInput(const std::string& path);

}  // namespace sensorlay::lab
