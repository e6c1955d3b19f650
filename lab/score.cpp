// `sensorlay-lab score`: the design score of an existing model under a
// design's settings, and its coverage summary.

#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include "common/json_io.h"
#include "common/worker_pool.h"
#include "lab/cli.h"
#include "lab/lab.h"
#include "lab/scene.h"
#include "lab/settings.h"

namespace sensorlay::lab {

namespace {

const CommandSyntax& scoreSyntax() {
  static const CommandSyntax syntax = [] {
    CommandSyntax s{
        "score", "MODEL.json --sensors S.stl [--obstacles O.stl]... [options]",
        "Scores a sensor model as a design run with the same settings scores its placements\n"
        "(0 to 1000, lower is better), and summarises its coverage over a grid of directions,\n"
        "with the numbers of sensorlay's analysis table: the share of the sphere by the number\n"
        "of sensors seen and by grade, the median and 95th percentile of the position and\n"
        "rotation uncertainty where a pose can be solved, and the sensors never seen. The\n"
        "model is a model file of sensorlay or sensorlay-lab (coordinates in metres). Given a\n"
        "design's settings, it reproduces the score the design recorded. Zero normals of the\n"
        "surface are taken from the winding, with a note.",
        meshOptionDefs(),
        "  sensorlay-lab score puck-12.json --sensors puck.stl\n"
        "  sensorlay-lab score hmd.json --sensors shell.stl --obstacles head.stl --unseen-cost flat --json"};
    appendDesignSettingDefs(s.options, "accepted as a design takes it; it does not change a score");
    s.options.push_back({"threads", "N", "threads for the coverage summary (default 0: one per core)"});
    s.options.push_back({"json", nullptr, "print the score, settings and coverage summary as one JSON object"});
    return s;
  }();
  return syntax;
}

}  // namespace

int runScore(int argc, char** argv) {
  MeshInputs inputs;
  DesignSettings settings;
  bool json = false;
  int32_t threads = 0;
  std::vector<std::string> positionals;
  const ParseOutcome parsed =
      parseCommandLine(scoreSyntax(), argc, argv, positionals, [&](const std::string& name, const char* value) {
        if (name == "json") {
          json = true;
          return std::string();
        }
        if (std::optional<std::string> taken = takeThreads(name, value, threads)) return *taken;
        if (std::optional<std::string> taken = takeMeshOption(inputs, name, value)) return *taken;
        return takeSetting(settings, name, value).value_or("--" + name + " is not an option of score");
      });
  if (parsed != ParseOutcome::Run) return parsed == ParseOutcome::Help ? kExitOk : kExitUsage;
  if (positionals.size() != 1) {
    usageError("score", positionals.empty() ? "which model? give MODEL.json"
                                            : "one model at a time, not also '" + positionals[1] + "'");
    return kExitUsage;
  }
  if (inputs.sensors.empty()) {
    usageError("score", "--sensors is required");
    return kExitUsage;
  }
  const std::string modelPath = positionals[0];

  auto fail = [](const std::string& message) {
    std::fprintf(stderr, "sensorlay-lab score: %s\n", message.c_str());
    return kExitFailed;
  };
  Result<std::unique_ptr<SensorModel>> model = loadModel(modelPath);
  if (!model) return fail(model.message());
  Result<Scene> scene = buildScene(inputs);
  if (!scene) return fail(scene.message());
  const Result<QualityMap> map = loadWeights(settings);
  if (!map) return fail(map.message());

  std::vector<std::string> notes = scene->notes;
  if (std::optional<std::string> off = offSurfaceNote(*scene->surface, **model, modelPath)) notes.push_back(*off);
  for (const std::string& note : notes) std::fprintf(stderr, "note: %s\n", note.c_str());

  const Result<double> score = designScore(*scene, **model, settings, *map);
  if (!score) return fail(score.message());
  WorkerPool pool(threads);
  if (std::optional<std::string> note = poolNote(pool)) std::fprintf(stderr, "note: %s\n", note->c_str());
  const Result<CoverageSummary> coverage = coverageOf(*scene, **model, settings, pool);
  if (!coverage) return fail(coverage.message());

  if (json) {
    JsonOut out = JsonOut::object();
    out["model"] = modelPath;
    out["score"] = *score;
    out["sensors"] = static_cast<int64_t>((*model)->sensorCount());
    out["settings"] = settingsJson(inputs, settings, false);
    out["coverage"] = coverageSummaryJson(*coverage);
    JsonOut noteList = JsonOut::array();
    for (const std::string& note : notes) noteList.append(note);
    out["notes"] = noteList;
    std::fputs(writeStyledJson(out).c_str(), stdout);
  } else {
    std::ostringstream text;
    text << "score: " << *score << " / 1000 (lower is better) for the " << (*model)->sensorCount() << " sensors of "
         << modelPath << "\n"
         << "settings: " << settings.orientations << " orientations, incidence up to " << settings.maxIncidenceDegrees
         << " degrees, unseen cost " << (settings.unseenCost == UnseenCost::Weighted ? "weighted" : "flat") << ", "
         << (settings.qualityMap.empty() ? "no quality map" : "quality map " + settings.qualityMap) << "\n"
         << coverageText(*coverage);
    std::fputs(text.str().c_str(), stdout);
  }
  if (std::fflush(stdout) != 0 || std::ferror(stdout)) return fail("the report could not be written in full");
  return kExitOk;
}

}  // namespace sensorlay::lab
