#include "app/entry.h"

#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "app/modes.h"
#include "app/options.h"
#include "common/output_file.h"
#include "common/worker_pool.h"
#include "device/model_loading.h"
#include "surface/tracked_surface.h"
#include "tools/tools.h"

namespace sensorlay {

namespace {

// The search takes minutes to hours; it should not slow the machine's
// interactive work. Only this thread is lowered, before the worker threads
// are made, so that they inherit it; failure is harmless.
void lowerThreadPriority() {
  const id_t thread = static_cast<id_t>(syscall(SYS_gettid));
  (void)setpriority(PRIO_PROCESS, thread, 19);
}

// Checks each file the selected mode will write: the script whenever one is
// named (design, preview or conversion), the model file only in a design run
// that the preview does not pre-empt. False after naming the path and why.
bool checkOutputPaths(const DesignOptions& options) {
  std::vector<std::string> paths;
  if (!options.outScadPath.empty()) paths.push_back(options.outScadPath);
  if (options.generate && options.verifyCoverage == 0 && !options.outModelPath.empty())
    paths.push_back(options.outModelPath);
  for (const std::string& path : paths) {
    const Status writable = checkWritable(path);
    if (!writable) {
      std::fprintf(stderr, "%s\n", writable.message().c_str());
      return false;
    }
  }
  return true;
}

}  // namespace

int runEntry(int argc, char** argv) {
  DesignOptions options;
  bool parseFailed = false;
  bool versionRequested = false;
  if (const std::optional<int> toolStatus = scanOptions(argc, argv, options, parseFailed, versionRequested))
    return *toolStatus;

  // /version wins over a bad switch that follows it; a bad switch before it
  // stopped the scan, so it was never seen.
  if (versionRequested) {
    const bool found = printVersion();
    const Status written = flushStandardOutput("the version line");
    if (!written) std::fprintf(stderr, "%s\n", written.message().c_str());
    return found && written ? 0 : 1;
  }

  switch (validateOptions(options, parseFailed)) {
    case ValidationOutcome::Failed:
      return 1;
    case ValidationOutcome::ShowUsage:
      printUsage();
      return 1;
    case ValidationOutcome::Passed:
      break;
  }

  // A design can run for hours; an output that cannot be created is found
  // out now, not when the result has nowhere to go.
  if (!checkOutputPaths(options)) return 1;

  std::optional<Constellation> constellation;
  if (!options.modelPath.empty()) {
    Result<Constellation> read = readModelFile(options.modelPath);
    if (!read) {
      std::fprintf(stderr, "%s\n", read.message().c_str());
      return 1;
    }
    constellation = std::move(*read);
  }

  std::unique_ptr<SensorModel> model;
  std::unique_ptr<TrackedSurface> surface;
  if (!prepareRun(options, constellation ? &*constellation : nullptr, model, surface)) return 1;

  if (model != nullptr && !options.generate && !options.outScadPath.empty())
    return convertModelToScad(options, surface.get());

  // Validation has required /sensors for both of these, and preparation has
  // built the surface from it.
  if (options.verifyCoverage != 0) return runVerifyCoverage(options, *surface);

  if (options.generate) lowerThreadPriority();
  WorkerPool pool(0);
  if (!pool.startProblem().empty())
    std::fprintf(stderr, "note: running on one thread, as no more could be started (%s)\n",
                 pool.startProblem().c_str());
  if (options.generate) {
    // The designed model takes the place of the immutable one for the analysis.
    model = runDesign(options, *surface, model.get(), pool);
    if (model == nullptr) return 1;
  }
  return runAnalysis(options, *model, surface.get(), pool);
}

}  // namespace sensorlay
