// The option scan and its validation on a fuzzed command line: the input is
// the arguments, each ended by a NUL byte (a last one without it counts too).

#include <strings.h>

#include <cstdint>
#include <string>
#include <vector>

#include "app/options.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace sensorlay;
  std::vector<std::string> arguments{"sensorlay"};
  std::string current;
  for (size_t i = 0; i < size; ++i) {
    if (data[i] != 0) {
      current += static_cast<char>(data[i]);
      continue;
    }
    arguments.push_back(current);
    current.clear();
  }
  if (!current.empty()) arguments.push_back(current);
  // The two tools run in the middle of the scan on a file the line names.
  // Their readers have targets of their own, and a fuzzed path must not make
  // the scan read this machine's files, so they are left out here.
  for (const std::string& argument : arguments)
    if (strcasecmp(argument.c_str(), "/trackref_from_imu") == 0 || strcasecmp(argument.c_str(), "/formatconvert") == 0)
      return 0;

  std::vector<char*> argv;
  for (std::string& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  DesignOptions options;
  bool parseFailed = false, versionRequested = false;
  scanOptions(static_cast<int>(arguments.size()), argv.data(), options, parseFailed, versionRequested);
  validateOptions(options, parseFailed);
  return 0;
}
