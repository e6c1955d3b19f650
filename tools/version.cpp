#include "tools/version.h"

#include <cstdio>

#include "common/files.h"
#include "tools/tools.h"

namespace sensorlay {

bool lookUpVersionInformation(const std::string& executablePath, const std::string& storedName,
                              const std::string& storedVersion, std::string& errorText, std::string* internalName,
                              std::string* fileVersion) {
  if (executablePath.empty()) {
    errorText = "ERROR:  Path_GetExecutablePath() failed in GetExeVersionInformation().\n";
    return false;
  }
  // A Linux executable carries no version resource; the build stores the two
  // texts instead, and a build that left one out fails the way a resource
  // without that entry would.
  if (storedName.empty()) {
    errorText = "ERROR:  Could not read InternalName in GetExeVersionInformation().\n";
    return false;
  }
  if (internalName != nullptr) *internalName = storedName;
  if (storedVersion.empty()) {
    errorText = "ERROR:  Could not read FileVersion in GetExeVersionInformation().\n";
    return false;
  }
  if (fileVersion != nullptr) {
    fileVersion->clear();
    for (char c : storedVersion)
      if (c != '.') *fileVersion += c;
  }
  errorText.clear();
  return true;
}

bool GetExeVersionInformation(std::string& errorText, std::string* internalName, std::string* fileVersion) {
  return lookUpVersionInformation(Path_GetExecutablePath(), SENSORLAY_INTERNAL_NAME, SENSORLAY_FILE_VERSION, errorText,
                                  internalName, fileVersion);
}

bool printVersionReport(bool found, const std::string& errorText, const std::string& internalName,
                        const std::string& fileVersion) {
  if (found) {
    std::printf("Version:  %s  %s\n", internalName.c_str(), fileVersion.c_str());
    return true;
  }
  std::printf("ERROR:  GetExeVersionInformation() failed.\n");
  std::printf("    error string: %s\n", errorText.c_str());
  return false;
}

bool printVersion() {
  std::string errorText, internalName, fileVersion;
  const bool found = GetExeVersionInformation(errorText, &internalName, &fileVersion);
  return printVersionReport(found, errorText, internalName, fileVersion);
}

}  // namespace sensorlay
