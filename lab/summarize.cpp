// `sensorlay-lab summarize`: a sweep's runs, read from their own records, as
// a table, the best design of each count, and a plot of the score against
// the count.

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <map>
#include <set>
#include <sstream>

#include "common/files.h"
#include "common/output_file.h"
#include "lab/cli.h"
#include "lab/design.h"
#include "lab/lab.h"
#include "lab/processes.h"
#include "lab/settings.h"
#include "lab/sweep_folder.h"

namespace sensorlay::lab {

namespace {

// The smallest count whose best score is within this share of the best of
// all counts is the one to build: more sensors buy little beyond it.
constexpr double kWithin = 0.05;

const CommandSyntax& summarizeSyntax() {
  static const CommandSyntax syntax{
      "summarize",
      "DIR",
      "Summarizes the sweep in DIR from each run's own run record and coverage summary, whatever\n"
      "engine ran it, and writes:\n"
      "  DIR/summary.csv         one line per planned run: variant, count, seed, score, share of\n"
      "                          directions with a full fix, median position (mm) and rotation\n"
      "                          (degrees) uncertainty, wall time (s), status\n"
      "  DIR/best/<variant>-n<count>.json, .scad, .run.json  the finished seed with the best\n"
      "                          score: its model, script and run record\n"
      "  DIR/best/<variant>-n<count>.html  its page, as sensorlay-lab view makes it\n"
      "  DIR/score-vs-count.png  best, median and worst score over the seeds against the count,\n"
      "                          one colour per variant, and the best seed's full-fix share on the\n"
      "                          right-hand axis (gnuplot; score-vs-count.gp and .tsv beside it\n"
      "                          draw it again)\n"
      "and prints a table of the counts with the smallest count whose best score is within 5 %\n"
      "of the best of all counts. Runs that did not finish are listed with their status and the\n"
      "end of their standard error stream. It can be run while a sweep goes on.\n"
      "\n"
      "Exit status: 0 when everything was written, 1 when no run has finished yet or a file or\n"
      "the plot could not be made, 2 for a wrong command line.",
      {},
      "  sensorlay-lab summarize ctl"};
  return syntax;
}

// A number as the shortest text that reads back as the same double.
std::string exact(double value) {
  char text[32];
  const std::to_chars_result end = std::to_chars(text, text + sizeof text, value);
  return std::string(text, end.ptr);
}

struct Row {
  const PlannedRun* run = nullptr;
  std::string status;
  std::optional<double> score, fullFix, positionMm, rotationDegrees, wallSeconds;
};

Row rowOf(const std::string& folder, const PlannedRun& run) {
  Row row;
  row.run = &run;
  const RunState state = readRunState(folder, run);
  row.status = state.status;
  const Json::Value& record = state.record;
  if (record["wallSeconds"].isNumeric()) row.wallSeconds = record["wallSeconds"].asDouble();
  // An interrupted run has a score too: that of the best placement it had.
  if (record["score"].isNumeric()) row.score = record["score"].asDouble();
  if (!row.score) return row;
  const WholeFile coverage = readRegularFile(runPrefix(folder, run) + ".coverage.json");
  Json::Value summary;
  std::string errors;
  if (coverage.problem == WholeFile::Problem::None && parseJsonText(coverage.bytes, summary, errors)) {
    if (summary["fullFixShare"].isNumeric()) row.fullFix = summary["fullFixShare"].asDouble();
    // The uncertainties are those of the directions with a fix; with none,
    // there are none to tell.
    if (!(summary["fixShare"].asDouble() > 0.0)) return row;
    if (summary["positionSigmaMeters"]["median"].isNumeric())
      row.positionMm = summary["positionSigmaMeters"]["median"].asDouble() * 1000.0;
    if (summary["rotationSigmaRadians"]["median"].isNumeric())
      row.rotationDegrees = summary["rotationSigmaRadians"]["median"].asDouble() * 180.0 / M_PI;
  }
  return row;
}

std::string csvText(const std::vector<Row>& rows) {
  std::ostringstream csv;
  csv << "variant,count,seed,score,full_fix_share,median_position_mm,median_rotation_deg,wall_seconds,status\n";
  const auto cell = [](const std::optional<double>& value) { return value ? exact(*value) : std::string(); };
  for (const Row& row : rows)
    csv << row.run->variant << "," << row.run->count << "," << row.run->seed << "," << cell(row.score) << ","
        << cell(row.fullFix) << "," << cell(row.positionMm) << "," << cell(row.rotationDegrees) << ","
        << cell(row.wallSeconds) << "," << row.status << "\n";
  return csv.str();
}

// The finished runs of one variant and count.
struct CountStats {
  int32_t count = 0;
  int32_t planned = 0;
  std::vector<const Row*> finished;  // best first
  double median() const {
    const size_t n = finished.size();
    return n % 2 == 1 ? *finished[n / 2]->score : (*finished[n / 2 - 1]->score + *finished[n / 2]->score) / 2.0;
  }
};

struct VariantStats {
  std::string name;
  std::vector<CountStats> counts;  // in the plan's order
};

std::vector<VariantStats> statsOf(const std::vector<Row>& rows) {
  std::vector<VariantStats> variants;
  for (const Row& row : rows) {
    if (variants.empty() || variants.back().name != row.run->variant) variants.push_back({row.run->variant, {}});
    std::vector<CountStats>& counts = variants.back().counts;
    if (counts.empty() || counts.back().count != row.run->count) counts.push_back({row.run->count, 0, {}});
    ++counts.back().planned;
    if (row.status == "finished" && row.score) counts.back().finished.push_back(&row);
  }
  for (VariantStats& variant : variants)
    for (CountStats& count : variant.counts)
      // Equal scores keep the plan's order: the lower seed comes first.
      std::stable_sort(count.finished.begin(), count.finished.end(),
                       [](const Row* a, const Row* b) { return *a->score < *b->score; });
  return variants;
}

std::string percentText(const std::optional<double>& share) {
  char text[32];
  if (!share) return "-";
  std::snprintf(text, sizeof text, "%.1f %%", 100.0 * *share);
  return text;
}

std::string tableText(const std::vector<VariantStats>& variants) {
  std::ostringstream table;
  table << "scores: lower is better; full fix: share of directions with a full fix, of the best seed\n";
  char line[256];
  std::snprintf(line, sizeof line, "%-16s %5s %7s %10s %10s %10s %9s %10s\n", "variant", "count", "runs", "best",
                "median", "worst", "full fix", "best seed");
  table << line;
  for (const VariantStats& variant : variants) {
    const CountStats* bestCount = nullptr;
    for (const CountStats& c : variant.counts) {
      const std::string runs = std::to_string(c.finished.size()) + "/" + std::to_string(c.planned);
      if (c.finished.empty()) {
        std::snprintf(line, sizeof line, "%-16s %5d %7s %10s %10s %10s %9s %10s\n", variant.name.c_str(), c.count,
                      runs.c_str(), "-", "-", "-", "-", "-");
      } else {
        std::snprintf(line, sizeof line, "%-16s %5d %7s %10.3f %10.3f %10.3f %9s %10u\n", variant.name.c_str(), c.count,
                      runs.c_str(), *c.finished.front()->score, c.median(), *c.finished.back()->score,
                      percentText(c.finished.front()->fullFix).c_str(), c.finished.front()->run->seed);
        if (bestCount == nullptr || *c.finished.front()->score < *bestCount->finished.front()->score) bestCount = &c;
      }
      table << line;
    }
    if (bestCount == nullptr) {
      table << variant.name << ": no run has finished\n";
      continue;
    }
    const double best = *bestCount->finished.front()->score;
    const CountStats* enough = nullptr;
    for (const CountStats& c : variant.counts)
      if (!c.finished.empty() && *c.finished.front()->score <= best * (1.0 + kWithin) &&
          (enough == nullptr || c.count < enough->count))
        enough = &c;
    std::snprintf(line, sizeof line,
                  "%s: the best of all counts is %.3f with %d sensors; the smallest count within %.0f %% of it is "
                  "%d (%.3f)\n",
                  variant.name.c_str(), best, bestCount->count, 100.0 * kWithin, enough->count,
                  *enough->finished.front()->score);
    table << line;
  }
  return table.str();
}

// The plot's data, a block per variant with finished runs, and its script.
std::string plotData(const std::vector<VariantStats>& variants) {
  std::ostringstream data;
  for (const VariantStats& variant : variants) {
    data << "# " << variant.name << "\n# count\tbest\tmedian\tworst\tfull fix of the best (%)\n";
    for (const CountStats& c : variant.counts)
      if (!c.finished.empty())
        data << c.count << "\t" << exact(*c.finished.front()->score) << "\t" << exact(c.median()) << "\t"
             << exact(*c.finished.back()->score) << "\t"
             << (c.finished.front()->fullFix ? exact(100.0 * *c.finished.front()->fullFix) : "NaN") << "\n";
    data << "\n\n";
  }
  return data.str();
}

// gnuplot takes a string in double quotes with backslash escapes.
std::string gnuplotString(const std::string& text) {
  std::string quoted = "\"";
  for (char c : text) {
    if (c == '"' || c == '\\') quoted += '\\';
    quoted += c;
  }
  return quoted + "\"";
}

std::string plotScript(const std::vector<VariantStats>& variants) {
  std::vector<int32_t> counts;
  for (const VariantStats& variant : variants)
    for (const CountStats& c : variant.counts) counts.push_back(c.count);
  std::sort(counts.begin(), counts.end());
  counts.erase(std::unique(counts.begin(), counts.end()), counts.end());
  std::ostringstream gp;
  gp << "# The score against the sensor count of a sweep, from score-vs-count.tsv beside it.\n"
        "# sensorlay-lab summarize writes both; `gnuplot score-vs-count.gp` in this folder draws it\n"
        "# again, `gnuplot -e 'out=\"-\"' score-vs-count.gp` to the standard output stream.\n"
        "if (!exists(\"out\")) out = \"score-vs-count.png\"\n"
        "if (strstrt(GPVAL_TERMINALS, \"pngcairo\") > 0) {\n"
        "  set terminal pngcairo size 1000,600 noenhanced\n"
        "} else {\n"
        "  set terminal png size 1000,600 noenhanced\n"
        "}\n"
        "if (out ne \"-\") set output out\n"
        "set datafile separator \"\\t\"\n"
        "set title \"Design score over the seeds of each count (band: best to worst)\"\n"
        "set xlabel \"sensors\"\n"
        "set ylabel \"score (lower is better)\"\n"
        "set y2label \"directions with a full fix, best seed (%)\"\n"
        "set y2range [0:100]\n"
        "set ytics nomirror\n"
        "set y2tics\n"
        "set grid ytics\n"
        "set key below\n";
  gp << "set xrange [" << counts.front() - 1 << ":" << counts.back() + 1 << "]\nset xtics (";
  for (size_t i = 0; i < counts.size(); ++i) gp << (i ? ", " : "") << counts[i];
  gp << ")\nplot ";
  int block = 0;
  for (const VariantStats& variant : variants) {
    const bool any = std::any_of(variant.counts.begin(), variant.counts.end(),
                                 [](const CountStats& c) { return !c.finished.empty(); });
    if (!any) continue;
    const std::string lt = " lt " + std::to_string(block + 1);
    const std::string from =
        (block == 0 ? "\"score-vs-count.tsv\"" : "\"\"") + std::string(" index ") + std::to_string(block);
    gp << (block ? ", \\\n     " : "") << from << " using 1:2:4 with filledcurves" << lt
       << " fill transparent solid 0.15 notitle, \\\n     \"\" index " << block << " using 1:2 with linespoints" << lt
       << " lw 2 pt 7 title " << gnuplotString(variant.name + " best") << ", \\\n     \"\" index " << block
       << " using 1:3 with linespoints" << lt << " dt 2 pt 1 title " << gnuplotString(variant.name + " median")
       << ", \\\n     \"\" index " << block << " using 1:5 axes x1y2 with linespoints" << lt << " dt 3 pt 4 title "
       << gnuplotString(variant.name + " full fix");
    ++block;
  }
  gp << "\n";
  return gp.str();
}

Status drawPlot(const std::string& folder, const std::vector<VariantStats>& variants) {
  const std::string data = folder + "/score-vs-count.tsv", script = folder + "/score-vs-count.gp";
  if (Status s = writeWholeFile(data, plotData(variants)); !s) return s;
  if (Status s = writeWholeFile(script, plotScript(variants)); !s) return s;
  if (!onSearchPath("gnuplot"))
    return Status::failure("gnuplot not found: the plot needs it; install the Debian package gnuplot-nox");
  // gnuplot draws to its standard output stream, and the picture goes to its
  // place whole.
  const ProgramRun drawn = runProgram({"gnuplot", "-e", "out=\"-\"", "score-vs-count.gp"}, folder);
  if (drawn.status != 0 || drawn.out.compare(0, 4, "\x89PNG") != 0)
    return Status::failure("gnuplot could not draw " + printablePath(script) + " (status " +
                           std::to_string(drawn.status) + "): " + drawn.err);
  return writeWholeFile(folder + "/score-vs-count.png", drawn.out);
}

// The best seed's model, script and run record of each count, under best/,
// and its page.
struct BestDesigns {
  int written = 0;
  std::vector<std::string> pages;
  std::vector<std::string> pageFailures;
};

// The options of the sweep's designs that the page takes: those of the
// meshes and the score (the search's are taken too, and change nothing).
std::vector<std::string> pageOptions(const Sweep& sweep) {
  std::set<std::string> taken;
  for (const auto& defs : {meshOptionDefs(), scoreSettingDefs(), searchSettingDefs()})
    for (const OptionDef& def : defs) taken.insert(std::string("--") + def.name);
  std::set<std::string> withValue;
  for (const OptionDef& def : designSyntax().options)
    if (def.argument != nullptr) withValue.insert(std::string("--") + def.name);
  std::vector<std::string> options;
  for (size_t i = 0; i < sweep.designOptions.size(); ++i) {
    const std::string& option = sweep.designOptions[i];
    const size_t words = withValue.count(option) != 0 && i + 1 < sweep.designOptions.size() ? 2 : 1;
    if (taken.count(option) != 0) options.insert(options.end(), &option, &option + words);
    i += words - 1;
  }
  return options;
}

// The page of a best design, made as `sensorlay-lab view` makes it.
Status writePage(const Sweep& sweep, const SweepVariant& variant, const CountStats& c, const std::string& model,
                 const std::string& page) {
  const PlannedRun& run = *c.finished.front()->run;
  std::vector<std::string> words = {"view", model, "--sensors", variant.sensors};
  for (const std::string& obstacle : variant.obstacles) words.insert(words.end(), {"--obstacles", obstacle});
  for (const std::string& option : pageOptions(sweep)) words.push_back(option);
  const std::string title = variant.name + ", " + std::to_string(c.count) + " sensors, seed " +
                            std::to_string(run.seed) + " (best of " + std::to_string(c.finished.size()) + ")";
  words.insert(words.end(), {"--title", title, "--out", page});
  if (runSubcommand(runView, std::move(words)) != kExitOk)
    return Status::failure("the page " + printablePath(page) + " could not be made");
  return Status();
}

Result<BestDesigns> writeBest(const Sweep& sweep, const std::vector<VariantStats>& variants) {
  const std::string& folder = sweep.folder;
  BestDesigns best;
  for (const VariantStats& stats : variants)
    for (const CountStats& c : stats.counts) {
      if (c.finished.empty()) continue;
      if (best.written == 0 && mkdir((folder + "/best").c_str(), 0777) != 0 && errno != EEXIST)
        return Status::failure("cannot make the folder " + printablePath(folder + "/best"));
      const PlannedRun& run = *c.finished.front()->run;
      const std::string name = folder + "/best/" + stats.name + "-n" + std::to_string(c.count);
      for (const char* suffix : {".json", ".scad", ".run.json"}) {
        const std::string from = runPrefix(folder, run) + suffix;
        const WholeFile file = readRegularFile(from);
        if (file.problem != WholeFile::Problem::None) return Status::failure("cannot read " + printablePath(from));
        if (Status s = writeWholeFile(name + suffix, file.bytes); !s) return s;
      }
      ++best.written;
      for (const SweepVariant& variant : sweep.variants)
        if (variant.name == stats.name) {
          if (Status page = writePage(sweep, variant, c, name + ".json", name + ".html"); page)
            best.pages.push_back(name + ".html");
          else
            best.pageFailures.push_back(page.message());
        }
    }
  return best;
}

}  // namespace

int runSummarize(int argc, char** argv) {
  std::vector<std::string> positionals;
  const ParseOutcome parsed = parseCommandLine(summarizeSyntax(), argc, argv, positionals,
                                               [](const std::string&, const char*) { return std::string(); });
  if (parsed != ParseOutcome::Run) return parsed == ParseOutcome::Help ? kExitOk : kExitUsage;
  if (positionals.size() != 1) {
    usageError("summarize", positionals.empty() ? "which sweep? give its folder" : "one sweep at a time");
    return kExitUsage;
  }
  const auto fail = [](const std::string& message) {
    std::fprintf(stderr, "sensorlay-lab summarize: %s\n", message.c_str());
    return kExitFailed;
  };
  const Result<Sweep> sweep = readSweep(positionals[0]);
  if (!sweep) return fail(sweep.message());
  const std::string& folder = sweep->folder;

  std::vector<Row> rows;
  for (const PlannedRun& run : sweep->runs) rows.push_back(rowOf(folder, run));
  const std::vector<VariantStats> variants = statsOf(rows);
  if (Status s = writeWholeFile(folder + "/summary.csv", csvText(rows)); !s) return fail(s.message());
  const Result<BestDesigns> best = writeBest(*sweep, variants);
  if (!best) return fail(best.message());

  std::ostringstream report;
  report << tableText(variants);
  const RunTally tally = tallyRuns(folder, sweep->runs);
  if (tally.byStatus.size() > 1 || tally.byStatus.count("finished") == 0)
    report << plural(rows.size(), "run") << ": " << tally.counts() << "\n" << tally.unfinished;
  report << "written: " << printablePath(folder + "/summary.csv");
  if (best->written > 0)
    report << ", " << printablePath(folder + "/best/") << " (" << plural(static_cast<size_t>(best->written), "model")
           << " with their scripts and run records)";
  Status plotted;
  if (best->written > 0) {
    plotted = drawPlot(folder, variants);
    if (plotted) report << ", " << printablePath(folder + "/score-vs-count.png");
  }
  report << "\n";
  if (!best->pages.empty()) report << "pages of the best designs, to open in a browser:\n";
  for (const std::string& page : best->pages) report << "  " << printablePath(page) << "\n";
  std::fputs(report.str().c_str(), stdout);
  if (Status s = flushStandardOutput("the summary"); !s) return fail(s.message());
  if (best->written == 0) return fail("no run of the sweep has finished yet: nothing to compare");
  for (const std::string& failure : best->pageFailures) fail(failure);
  if (!plotted) return fail(plotted.message());
  if (!best->pageFailures.empty()) return kExitFailed;
  return kExitOk;
}

}  // namespace sensorlay::lab
