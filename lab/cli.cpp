#include "lab/cli.h"

#include <getopt.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace sensorlay::lab {

namespace {

constexpr int kHelpIndex = -2;

}  // namespace

ParseOutcome parseCommandLine(const CommandSyntax& syntax, int argc, char** argv, std::vector<std::string>& positionals,
                              const OptionTaker& take) {
  std::vector<option> table;
  for (size_t i = 0; i < syntax.options.size(); ++i)
    table.push_back({syntax.options[i].name, syntax.options[i].argument ? required_argument : no_argument, nullptr,
                     static_cast<int>(i)});
  table.push_back({"help", no_argument, nullptr, kHelpIndex});
  table.push_back({nullptr, 0, nullptr, 0});

  // getopt keeps its place in globals; each parse starts afresh.
  optind = 0;
  opterr = 0;
  // The leading colon tells a missing value from an unknown option.
  for (;;) {
    int index = -1;
    const int code = getopt_long(argc, argv, ":", table.data(), &index);
    if (code == -1) break;
    if (code == kHelpIndex) {
      std::fputs(helpText(syntax).c_str(), stdout);
      return ParseOutcome::Help;
    }
    if (code == '?' || code == ':') {
      const char* word = argv[optind - 1];
      // An abbreviation that fits several options is unknown too.
      usageError(syntax.name,
                 code == ':' ? std::string(word) + " needs a value" : std::string("unknown option ") + word);
      return ParseOutcome::Usage;
    }
    const OptionDef& def = syntax.options[static_cast<size_t>(code)];
    const std::string problem = take(def.name, optarg);
    if (!problem.empty()) {
      usageError(syntax.name, problem);
      return ParseOutcome::Usage;
    }
  }
  for (int i = optind; i < argc; ++i) positionals.push_back(argv[i]);
  return ParseOutcome::Run;
}

void usageError(const std::string& command, const std::string& message) {
  std::fprintf(stderr, "sensorlay-lab %s: %s\ntry 'sensorlay-lab %s --help'\n", command.c_str(), message.c_str(),
               command.c_str());
}

std::string helpText(const CommandSyntax& syntax) {
  std::string text = std::string("usage: sensorlay-lab ") + syntax.name + " " + syntax.synopsis + "\n\n" +
                     syntax.description + "\n\nOptions:\n";
  std::vector<OptionDef> all = syntax.options;
  all.push_back({"help", nullptr, "this text"});
  for (const OptionDef& def : all) {
    std::string head = std::string("  --") + def.name;
    if (def.argument) head += std::string(" ") + def.argument;
    const size_t column = 26;
    head += head.size() + 2 <= column ? std::string(column - head.size(), ' ') : "\n" + std::string(column, ' ');
    text += head;
    for (const char* c = def.help; *c; ++c) {
      text += *c;
      if (*c == '\n') text += std::string(column, ' ');
    }
    text += "\n";
  }
  text += std::string("\nExamples:\n") + syntax.examples + "\n";
  return text;
}

std::optional<double> parseNumber(const char* text) {
  if (text == nullptr || *text == '\0') return std::nullopt;
  char* end = nullptr;
  errno = 0;
  const double value = std::strtod(text, &end);
  if (*end != '\0' || errno == ERANGE || !std::isfinite(value)) return std::nullopt;
  return value;
}

std::optional<int64_t> parseWholeNumber(const char* text) {
  if (text == nullptr || *text == '\0') return std::nullopt;
  char* end = nullptr;
  errno = 0;
  const long long value = std::strtoll(text, &end, 10);
  if (*end != '\0' || errno == ERANGE) return std::nullopt;
  return static_cast<int64_t>(value);
}

std::string badValue(const std::string& name, const char* value, const std::string& requirement) {
  return "--" + name + " must be " + requirement + ", not '" + (value ? value : "") + "'";
}

std::string plural(size_t n, const std::string& word) { return std::to_string(n) + " " + word + (n == 1 ? "" : "s"); }

}  // namespace sensorlay::lab
