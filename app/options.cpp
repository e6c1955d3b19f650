#include "app/options.h"

#include <strings.h>

#include <cfloat>
#include <cmath>
#include <cstdio>
#include <string>
#include <utility>

#include "common/files.h"
#include "common/output_file.h"
#include "common/rotation.h"
#include "model/constellation.h"
#include "tools/tools.h"

namespace sensorlay {

namespace {

// The distance goes squared into the length of the device's position; beyond
// about 1e154 metres that square overflows and every row comes out unseen.
constexpr double kMaxStationDistance = 1e150;

// "%d" and "%lf" skip leading blanks and ignore trailing text: "12abc" reads
// as 12. A token that yields nothing leaves the field as it was.
bool scanInt(const char* text, int32_t& field) {
  int value = 0;
  if (std::sscanf(text, "%d", &value) != 1) return false;
  field = value;
  return true;
}

bool scanDouble(const char* text, double& field) {
  double value = 0.0;
  if (std::sscanf(text, "%lf", &value) != 1) return false;
  field = value;
  return true;
}

// /formatconvert reads its format and file and runs the conversion; yields
// the process status.
int runFormatConvert(const char* formatToken, const char* fileToken) {
  int format = 0;
  std::sscanf(formatToken, "%d", &format);  // a token that is no number means format 0
  if (format < 0 || format > 2) {
    std::fprintf(stderr, "Unrecognized json format [ %s ]. Allowed values {0,1,2}\n",
                 printablePath(formatToken).c_str());
    format = 0;
  }
  // An empty token is a file name like any other; only a missing one fails.
  if (fileToken == nullptr) {
    std::fprintf(stderr, "/formatconvert %s needs a device file: /formatconvert <jsonformatnumber> <object.json>\n",
                 printablePath(formatToken).c_str());
    return 1;
  }
  return convertDeviceFile(fileToken, format);
}

int runImuTool(const char* fileToken) { return fileToken != nullptr ? runImuTransform(fileToken) : writeImuTemplate(); }

}  // namespace

std::optional<int> scanOptions(int argc, char** argv, DesignOptions& options, bool& parseFailed,
                               bool& versionRequested) {
  int remaining = argc - 1;
  int next = 1;
  while (remaining > 0) {
    if (parseFailed) return std::nullopt;
    const char* token = argv[next++];
    --remaining;
    if (token[0] != '/') {
      std::fprintf(stderr, "Unrecognized command line argument [ %s ].\n", printablePath(token).c_str());
      parseFailed = true;
      continue;
    }
    // A switch matches only when enough tokens follow it for its values.
    auto is = [&](const char* name, int needs) { return strcasecmp(token, name) == 0 && remaining >= needs; };
    auto takeValue = [&]() {
      --remaining;
      return argv[next++];
    };
    auto intValue = [&](int32_t& field) {
      if (!scanInt(takeValue(), field)) parseFailed = true;
    };
    auto doubleValue = [&](double& field) {
      if (!scanDouble(takeValue(), field)) parseFailed = true;
    };

    if (is("/generate", 0)) {
      options.generate = true;
    } else if (is("/withscadnormals", 0)) {
      options.withScadNormals = true;
    } else if (is("/verifycoverage", 1)) {
      intValue(options.verifyCoverage);
    } else if (is("/model", 1)) {
      options.modelPath = takeValue();
    } else if (is("/sensors", 1)) {
      options.sensorsPath = takeValue();
    } else if (is("/qualitymap", 1)) {
      options.qualityMapPath = takeValue();
    } else if (is("/obstacles", 1)) {
      options.obstaclePaths.push_back(takeValue());
    } else if (is("/outmodel", 1)) {
      options.outModelPath = takeValue();
    } else if (is("/outscad", 1)) {
      options.outScadPath = takeValue();
    } else if (is("/maxincidenceangle", 1)) {
      doubleValue(options.maxIncidenceAngle);
    } else if (is("/maxsurfaceangle", 1)) {
      doubleValue(options.maxSurfaceAngle);
    } else if (is("/coolingrate", 1)) {
      doubleValue(options.coolingRate);
    } else if (is("/nsensors", 1)) {
      intValue(options.nSensors);
    } else if (is("/norientations", 1)) {
      intValue(options.nOrientations);
    } else if (is("/niterations", 1)) {
      intValue(options.nIterations);
    } else if (is("/angleresolutiondegrees", 1)) {
      doubleValue(options.angleResolutionDegrees);
    } else if (is("/sensorsize", 1)) {
      doubleValue(options.sensorSize);
    } else if (is("/distancebasemeters", 1)) {
      doubleValue(options.distanceBaseMeters);
    } else if (is("/qualityrange", 2)) {
      // Both values are read whatever became of the first.
      doubleValue(options.qualityRangeLow);
      doubleValue(options.qualityRangeHigh);
      if (options.qualityRangeHigh < options.qualityRangeLow)
        std::swap(options.qualityRangeLow, options.qualityRangeHigh);
    } else if (is("/trackref_from_imu", 0)) {
      return runImuTool(remaining > 0 ? argv[next] : nullptr);
    } else if (is("/formatconvert", 1)) {
      return runFormatConvert(argv[next], remaining > 1 ? argv[next + 1] : nullptr);
    } else if (is("/srbtiltdegrees", 1)) {
      double degrees = 0.0;
      if (scanDouble(takeValue(), degrees))
        options.srbTiltRadians = degreesToRadians(degrees);
      else
        parseFailed = true;
    } else if (is("/basestationsensitivity", 0)) {
      options.baseStationSensitivity = true;
    } else if (is("/version", 0)) {
      versionRequested = true;
    } else {
      std::fprintf(stderr, "Unrecognized command line switch [ %s ].\n", printablePath(token).c_str());
      parseFailed = true;
    }
  }
  return std::nullopt;
}

ValidationOutcome validateOptions(const DesignOptions& options, bool parseFailed) {
  auto fail = [](const char* message) {
    std::fputs(message, stderr);
    return ValidationOutcome::Failed;
  };
  if (options.nSensors > kMaxSensors) {
    std::fprintf(stderr, "Maximum of %d sensors is allowed.\n", kMaxSensors);
    return ValidationOutcome::Failed;
  }
  if (options.generate) {
    if (options.sensorsPath.empty()) return fail("/generate requires /sensors <surface.stl>\n");
    if (options.outScadPath.empty() && options.outModelPath.empty())
      return fail("/generate output needs /outscad <foo.scad> and/or /outmodel <foo.json>\n");
    if (options.nSensors < 1) return fail("must specify /nsensors with /generate\n");
    if (options.coolingRate >= 1.0) return fail("/coolingrate >= 1.0 would never finish\n");
  }
  if (options.verifyCoverage != 0 && (options.sensorsPath.empty() || options.outScadPath.empty()))
    return fail("/verifycoverage requires /sensors and /outscad\n");
  if (!options.generate && options.verifyCoverage == 0 && options.modelPath.empty())
    return ValidationOutcome::ShowUsage;
  if (options.srbTiltRadians != 0.0 && options.generate)
    return fail("/srbtiltdegrees is not plumbed to /generate yet\n");
  if (parseFailed) return ValidationOutcome::ShowUsage;

  // Values that a run could only turn into a meaningless result (a score of
  // not-a-number, a table of empty rows) written as if it were good: refused
  // before any work. Values the run copes with keep their behaviour.
  char message[256];
  auto failWith = [&](const char* format, double a, double b = 0.0) {
    std::snprintf(message, sizeof message, format, a, b);
    return fail(message);
  };
  if (options.generate) {
    if (std::isnan(options.coolingRate)) return fail("/coolingrate must be a number below 1.0, not nan\n");
    // A range with a bound at or below zero is dropped, so only a used one
    // can leave the quality curve without a width (an infinite slope).
    const double low = options.qualityRangeLow, high = options.qualityRangeHigh;
    if (low > 0.0 && high > 0.0 && !(std::isfinite(high) && high - low >= DBL_MIN))
      return failWith("/qualityrange %g %g cannot shape the quality curve: give two different finite values\n", low,
                      high);
  }
  // Only the coverage and sensitivity tables place the station.
  const bool tablePrinted = options.verifyCoverage == 0 && (options.generate || options.outScadPath.empty());
  if (tablePrinted) {
    const double distance = std::fabs(options.distanceBaseMeters);
    if (!(distance > 0.0 && distance <= kMaxStationDistance))
      return failWith(
          "/distancebasemeters %g cannot place the base station: give a distance above 0 and at most %g "
          "metres\n",
          options.distanceBaseMeters, kMaxStationDistance);
    if (!std::isfinite(options.srbTiltRadians)) return fail("/srbtiltdegrees must be a finite number of degrees\n");
  }
  return ValidationOutcome::Passed;
}

const char* usageText() {
  return "\n"
         "usage: sensorlay /generate /nsensors <count> [/model <immutable_points.json>] [/maxsurfaceangle <0.0>] "
         "[/outmodel <json>] [/outscad <scad>] [/withscadnormals] /sensors <stl> [/obstacles <stl>]... "
         "[/model <json>] [/coolingrate <~0.95>] [/norientations <~1000-5000>] [/niterations <~1-20>] "
         "[/qualityrange low high] [/qualitymap latlongimg.ext] [/sensorsize 0.006] [plot options below]\n"
         "\n"
         "usage: sensorlay /verifycoverage <1000-5000> /outscad <scad> /sensors <stl> [/sensorsize 0.006]\n"
         "\t(shows where sensors will fit)\n"
         "\n"
         "usage: sensorlay /model <json> [/sensors <stl>] [/obstacles <stl>]... /distancebasemeters <2.0> "
         "/angleresolutiondegrees <0.5> /maxincidenceangle <70.0> > results.txt\n"
         "\n"
         "usage: sensorlay /trackref_from_imu [imu_cad_info.json] -- Run with no args for sample file and "
         "instructions.\n"
         "\n"
         "usage: sensorlay /formatconvert <jsonformatnumber> [object.json] -- Reformat the existing model file. "
         "Valid format ids: {0,1}\n"
         "\n"
         "\t/sensors\tsurface to place sensors on (also occludes sensors) -- scale in meters or mm inferred by "
         "object size\n"
         "\t/obstacles\tsurface for occlusion only (also blocks impossible sensor placement) -- same scale as "
         "/sensors.  Multiple /obstacles allowed.\n"
         "\n"
         "usage: sensorlay /version -- Print version information\n"
         "\n";
}

void printUsage() {
  printVersion();
  // The version line must reach its stream before the usage reaches the other,
  // so that a shared terminal shows them in this order.
  const Status written = flushStandardOutput("the version line");
  std::fputs(usageText(), stderr);
  if (!written) std::fprintf(stderr, "%s\n", written.message().c_str());
}

}  // namespace sensorlay
