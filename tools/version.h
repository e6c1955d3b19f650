#pragma once
// The build's name and version, as the version line reports them.

#include <string>

namespace sensorlay {

// The internal name and the file version with its full stops taken out
// (1.2.3.4 -> 1234). On false `errorText` holds an "ERROR:  ..." line. Either
// result pointer may be null; the lookup still runs.
bool GetExeVersionInformation(std::string& errorText, std::string* internalName, std::string* fileVersion);

// The lookup behind GetExeVersionInformation with its sources given: the
// executable's path and the two texts the build stores.
bool lookUpVersionInformation(const std::string& executablePath, const std::string& storedName,
                              const std::string& storedVersion, std::string& errorText, std::string* internalName,
                              std::string* fileVersion);

// Prints a lookup's outcome on the standard output stream: the version line,
// or the two error lines. Yields `found`.
bool printVersionReport(bool found, const std::string& errorText, const std::string& internalName,
                        const std::string& fileVersion);

}  // namespace sensorlay
