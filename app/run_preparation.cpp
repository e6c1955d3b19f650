#include <cstdint>
#include <iostream>
#include <utility>

#include "app/modes.h"
#include "common/files.h"
#include "common/output_file.h"
#include "reports/report_tables.h"
#include "surface/tracked_surface.h"

namespace sensorlay {

bool prepareRun(const DesignOptions& options, const Constellation* constellation, std::unique_ptr<SensorModel>& model,
                std::unique_ptr<TrackedSurface>& surface) {
  if (!options.sensorsPath.empty()) {
    surface = std::make_unique<TrackedSurface>(options.sensorsPath, options.obstaclePaths);
    surface->setSensorSize(options.sensorSize);
    surface->notices = &std::cerr;
    if (surface->faceCount() == 0) {
      if (!surface->loadProblem.empty()) std::cerr << surface->loadProblem << std::endl;
      std::cerr << "Could not build tracked surface from \"" << printablePath(options.sensorsPath) << "\"";
      for (const std::string& obstacle : options.obstaclePaths)
        std::cerr << " and \"" << printablePath(obstacle) << "\"";
      std::cerr << std::endl;
      return false;
    }
  }

  if (constellation != nullptr) {
    // The counts are checked before the model is made: making it takes the
    // distances of all pairs, seconds for a file of a hundred thousand sensors.
    const int64_t count = static_cast<int64_t>(keptSensorCount(*constellation));
    if (options.generate) {
      if (count > options.nSensors) {
        std::cerr << "Model of immutable sensors has more than /nsensors " << options.nSensors << "!" << std::endl;
        return false;
      }
      if (count == options.nSensors) {
        std::cerr << "Model of immutable sensors has the same count as /nsensors " << options.nSensors
                  << ".  Nothing would change!" << std::endl;
        return false;
      }
    }
    const bool analysis = !options.generate && options.outScadPath.empty() && options.verifyCoverage == 0;
    if (const std::string problem = reportCountProblem(static_cast<size_t>(count)); analysis && !problem.empty()) {
      refuseAnalysis(options, problem);
      return false;
    }
    model = std::make_unique<SensorModel>(*constellation, ModelTransform());
    if (surface) {
      for (size_t i = 0; i < model->sensorCount(); ++i) {
        const Eigen::Vector3f point = model->points[i].cast<float>();
        const Eigen::Vector3f normal = model->normals[i].cast<float>();
        if (!surface->isOnSurface(point, normal))
          std::cerr << "WARNING: Input model point " << i << " doesn't seem to be on the supplied sensor surface at "
                    << point << std::endl;
      }
    }
    if (model->sensorCount() == 0) {
      std::cerr << "WARNING: model does not define any points. "
                   "Confirm channelMap, modelNormals, modelPoints exist in json"
                << std::endl;
      return false;
    }
  }
  return true;
}

std::vector<std::string> writeOutputFiles(const std::vector<OutputText>& outputs) {
  auto cutShort = [](const OutputText& output) {
    return "Could not write the whole " + output.what + " to " + printablePath(output.path) + ".";
  };
  std::vector<std::string> complaints;
  std::vector<std::pair<OutputFile, const OutputText*>> finished;
  for (const OutputText& output : outputs) {
    Result<OutputFile> file = OutputFile::open(output.path);
    if (!file) continue;
    file->write(output.text);
    if (file->finish())
      finished.emplace_back(std::move(*file), &output);
    else
      complaints.push_back(cutShort(output));
  }
  if (!complaints.empty()) {
    // The temporaries of the finished files go with them.
    for (const auto& [file, output] : finished)
      complaints.push_back("Left " + printablePath(output->path) +
                           " as it was too: these files are replaced together or not at all.");
    return complaints;
  }
  for (auto& [file, output] : finished)
    if (!file.publish()) complaints.push_back(cutShort(*output));
  return complaints;
}

}  // namespace sensorlay
