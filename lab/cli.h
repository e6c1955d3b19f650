#pragma once
// The lab's command line: GNU-style options per subcommand, each subcommand's
// --help drawn from the same table that the parser reads, and the exit
// statuses the lab keeps to.

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace sensorlay::lab {

constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;  // the run failed; a message says why
constexpr int kExitUsage = 2;   // the command line is wrong
constexpr int kExitInterrupted = 130;
constexpr int kExitTerminated = 143;

struct OptionDef {
  const char* name;      // without the dashes
  const char* argument;  // the value's placeholder, or nullptr for a switch
  // What it does, with its unit and default; line ends start new lines of
  // the help.
  const char* help;
};

struct CommandSyntax {
  const char* name;         // "score"
  const char* synopsis;     // what follows the name in the usage line
  const char* description;  // what the subcommand does, in paragraphs
  std::vector<OptionDef> options;
  const char* examples;
};

// An option's value as the parser hands it over; yields an empty string when
// taken, or what is wrong with it.
using OptionTaker = std::function<std::string(const std::string& name, const char* value)>;

enum class ParseOutcome { Run, Help, Usage };

// Parses argv[1..] (argv[0] being the subcommand's name) by the table. --help
// prints the help on the standard output stream; a usage error prints the two
// lines of usageError. Options may come before, after or between the
// positional arguments, which go to `positionals`.
ParseOutcome parseCommandLine(const CommandSyntax& syntax, int argc, char** argv, std::vector<std::string>& positionals,
                              const OptionTaker& take);

// "sensorlay-lab CMD: MESSAGE" and "try 'sensorlay-lab CMD --help'" on the
// standard error stream.
void usageError(const std::string& command, const std::string& message);

std::string helpText(const CommandSyntax& syntax);

// A whole text as a number; nothing for anything else, trailing text and
// numbers that are not finite included.
std::optional<double> parseNumber(const char* text);
std::optional<int64_t> parseWholeNumber(const char* text);

// "--name must be ..., not 'value'".
std::string badValue(const std::string& name, const char* value, const std::string& requirement);

// "1 run", "8 runs".
std::string plural(size_t n, const std::string& word);

}  // namespace sensorlay::lab
