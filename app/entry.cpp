#include "app/entry.h"

#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <memory>

#include "app/modes.h"
#include "app/options.h"
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

}  // namespace

int runEntry(int argc, char** argv) {
  DesignOptions options;
  bool parseFailed = false;
  bool versionRequested = false;
  if (const std::optional<int> toolStatus = scanOptions(argc, argv, options, parseFailed, versionRequested))
    return *toolStatus;

  // /version wins over a bad switch that follows it; a bad switch before it
  // stopped the scan, so it was never seen.
  if (versionRequested) return printVersion() ? 0 : 1;

  switch (validateOptions(options, parseFailed)) {
    case ValidationOutcome::Failed:
      return 1;
    case ValidationOutcome::ShowUsage:
      printUsage();
      return 1;
    case ValidationOutcome::Passed:
      break;
  }

  std::unique_ptr<SensorModel> model;
  if (!options.modelPath.empty()) {
    Result<std::unique_ptr<SensorModel>> loaded = loadSensorModel(options.modelPath);
    if (!loaded) {
      std::fprintf(stderr, "%s\n", loaded.message().c_str());
      return 1;
    }
    model = std::move(*loaded);
  }

  std::unique_ptr<TrackedSurface> surface;
  if (!prepareRun(options, model.get(), surface)) return 1;

  if (model != nullptr && !options.generate && !options.outScadPath.empty())
    return convertModelToScad(options, surface.get());

  // Validation has required /sensors for both of these, and preparation has
  // built the surface from it.
  if (options.verifyCoverage != 0) return runVerifyCoverage(options, *surface);

  if (options.generate) lowerThreadPriority();
  WorkerPool pool(0);
  if (options.generate) {
    // The designed model takes the place of the immutable one for the analysis.
    model = runDesign(options, *surface, model.get(), pool);
    if (model == nullptr) return 1;
  }
  return runAnalysis(options, *model, surface.get(), pool);
}

}  // namespace sensorlay
