#pragma once
// The command line: the option scan into DesignOptions, the validation chain
// and the usage text.

#include <optional>

#include "app/design_options.h"

namespace sensorlay {

// Scans argv[1..argc-1] into `options`. A bad token, a switch that lacks its
// values or a number that does not convert sets `parseFailed`, and the scan
// stops at the next token. /trackref_from_imu and /formatconvert run their tool
// at once, and the scan ends with the status the process is to end with.
std::optional<int> scanOptions(int argc, char** argv, DesignOptions& options, bool& parseFailed,
                               bool& versionRequested);

enum class ValidationOutcome {
  Passed,
  Failed,     // a check's message has been printed
  ShowUsage,  // nothing to run, or the scan failed: the usage text follows
};

// The fixed chain of checks, in order; the first that fires decides.
ValidationOutcome validateOptions(const DesignOptions& options, bool parseFailed);

// The version line on the standard output stream, then the usage texts on the
// standard error stream. The run then ends with status 1.
void printUsage();

// The usage texts alone, as printUsage writes them to the standard error stream.
const char* usageText();

}  // namespace sensorlay
