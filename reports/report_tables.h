#pragma once
// The analysis tables: one text row per direction around the device, telling
// how many sensors a base station sees from there and how well the pose can be
// solved from them. The tables themselves are CoverageEvaluator members
// (buildReportGrid, printCoverageTable, printSensitivityTable); this header
// holds the per-row solvability check and the limits that the tables need.
// The rows are computed on all threads of the default worker pool and printed
// in row order: the text, and the evaluator's state after a table, are the
// same for every thread count.

#include <cstdint>
#include <string>
#include <vector>

#include "model/constellation.h"

namespace sensorlay {

// One sweep hit as the solvability check counts it: a sensor's channel and the
// axis (0 or 1) that saw it.
struct AxisObservation {
  int32_t channel = 0;
  int32_t axis = 0;
};

// The per-channel axis mask has room for the channels 0 to 31, and the
// measurement information matrix for two rows of each of 32 sensors.
constexpr int32_t kReportChannelLimit = 32;
constexpr size_t kReportSensorLimit = 32;

// A grid larger than this is refused: its samples alone would take gigabytes,
// and the table would run for hours. 0.1 degrees (6.5 million rows) still fits.
constexpr uint64_t kReportRowLimit = 7000000;

// Decides whether the sensors seen in one view give enough hits on both axes,
// spread in all three dimensions, for a pose to be solved. Built per table row
// over the row's observation list; it allocates nothing.
class PoseSolvability {
 public:
  PoseSolvability(const SensorModel& model, const std::vector<AxisObservation>& observations)
      : model(model), observations(observations) {}

  // Counts the observations added since the last call. An observation on a
  // channel outside 0..31 or on an axis other than 0 and 1 is passed over.
  void update();
  // At least 4 hits on each axis and 8 in all.
  bool hasEnoughHits();
  bool isSolvable();
  // Whether the sensors of these channels, at their model positions, span a
  // volume: some triangle of them is wider than `minSpread` and some other
  // sensor lies farther than `minSpread` off its plane. A channel that the
  // model has no position for makes it false and is kept in
  // `missingChannel`; isSolvable is then false too. The tables end the
  // process over it, once the rows before have gone out.
  bool spansVolume(const int32_t* channelIds, int32_t count);

  const SensorModel& model;
  double minSpread = 0.0085;
  const std::vector<AxisObservation>& observations;
  uint64_t consumed = 0;
  int32_t axisCount[2] = {0, 0};
  int32_t bothAxesCount = 0;
  uint8_t axisMask[kReportChannelLimit] = {};
  int32_t missingChannel = -1;
};

// The grade of a view, two whole numbers that add up to 100.
struct ViewGrade {
  int32_t first = 0;
  int32_t second = 100;
};

// The grade of a coverage row before the sigma clamps.
ViewGrade gradeView(PoseSolvability& solvability);

// Why the tables cannot serve this model, or empty when they can: more than
// 32 sensors, or a channel of 32 or above.
std::string reportModelProblem(const SensorModel& model);

// The number of rows buildReportGrid would lay for this span and step, up to a
// row or so per axis; UINT64_MAX when the step is not a positive finite number
// or the span is not finite and non-negative.
uint64_t estimateReportRows(double span, double step);

}  // namespace sensorlay
