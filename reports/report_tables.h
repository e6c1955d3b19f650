#pragma once
// The analysis tables: one text row per direction around the device, telling
// how many sensors a base station sees from there and how well the pose can be
// solved from them. The rows are computed on all threads of the pool they are
// given and printed in row order: the text, and the evaluator's state after a
// table, are the same for every thread count.

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "common/result.h"
#include "model/constellation.h"
#include "quality/coverage_evaluator.h"
#include "quality/score_scratch.h"
#include "surface/ray_scene.h"

namespace sensorlay {

class WorkerPool;

// One sweep hit as the solvability check counts it: a sensor's channel and the
// axis (0 or 1) that saw it.
struct AxisObservation {
  int32_t channel = 0;
  int32_t axis = 0;
};

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
  // `missingChannel`; isSolvable is then false too. The tables stop there
  // with a complaint, once the rows before have gone out.
  bool spansVolume(const int32_t* channelIds, int32_t count);

  const SensorModel& model;
  double minSpread = 0.0085;
  const std::vector<AxisObservation>& observations;
  uint64_t consumed = 0;
  int32_t axisCount[2] = {0, 0};
  int32_t bothAxesCount = 0;
  uint8_t axisMask[kMaxSensors] = {};
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
// The first half of that, for a count known before the model is made.
std::string reportCountProblem(size_t sensorCount);

// What one thread changes while it computes rows: its own copy of the
// observation set, whose visibleNow bits the Jacobian reads and whose
// everVisible bits are OR-ed into the evaluator's at the end, and its buffers. All else that a row reads (model,
// surface, information matrix, samples) is shared and only read. Aligned so that two threads' rows never write to one
// cache line.
struct alignas(64) RowWorker {
  explicit RowWorker(const CoverageEvaluator& evaluator);
  SweepObservationSet view;
  ScoreScratch scratch;  // the buffers of its rows, made once per table
  std::vector<AxisObservation> hits;
  // The channel without a position that stopped this thread's last row, or -1.
  int32_t missingChannel = -1;
  // The rays of a fast row, and the sensor of each.
  RayPacket packet;
  int32_t laneSensor[RayPacket::kSize];
  // The block of fast rows under way: from row blockBegin, each row's
  // sample, its pose's objectRotation (4 numbers a row) and the sensors it
  // sees, made once per table.
  size_t blockBegin = 0;
  std::vector<OrientationSample> blockSamples;
  std::vector<double> blockTurns;
  std::vector<uint64_t> blockSeen;
  // The grade of the last fast row and the sensors it saw: a row that sees
  // the same ones has the same grade.
  uint64_t gradedSensors = 0;
  ViewGrade grade;
  bool graded = false;
};

// The numbers of one coverage row. The sensors seen are those whose
// visibleNow bit the row left set in its worker's view.
struct CoverageRow {
  int32_t visibleCount = 0;
  ViewGrade grade;
  double rotationSigma = 1.0;  // radians; 1 = no fix
  double positionSigma = 1.0;  // metres; 1 = no fix
};

// Computes the coverage row of `sample` with the worker's buffers, allocating
// nothing. False when the grade needs a sensor position that the model lacks
// (kept in w.missingChannel).
bool computeCoverageRow(const CoverageEvaluator& evaluator, const OrientationSample& sample, RowWorker& w,
                        CoverageRow& row);

// Whether the evaluator is set up for a table, and why not.
Status readyForTable(const CoverageEvaluator& evaluator);

// The directions of a table, one per row. Either the grid of the analysis,
// worked out row by row when asked for, so that a table of millions of rows
// holds a few thousand numbers and not its rows; or a list of samples.
class ReportGrid {
 public:
  // Longitude -span/2 .. span/2 (outer loop) and latitude -pi/2 .. pi/2
  // (inner loop) in steps of `step` radians. No rows when estimateReportRows
  // is beyond kReportRowLimit.
  ReportGrid(double span, double step);
  // The samples of `list`, which must outlive the grid.
  ReportGrid(const std::vector<OrientationSample>& list);  // NOLINT: a list serves as a grid

  size_t size() const { return list_ != nullptr ? list_->size() : latitudes_.size() * longitudes_.size(); }
  OrientationSample operator[](size_t row) const;

 private:
  struct Angle {
    double angle, sine, cosine;
  };
  const std::vector<OrientationSample>* list_ = nullptr;
  std::vector<Angle> latitudes_;
  std::vector<Angle> longitudes_;
};

// The rows of ReportGrid(span, step), all of them.
std::vector<OrientationSample> buildReportGrid(double span, double step);

// How a table works out its rows. Reference: each row as the score's own
// steps do it, sensor by sensor. Fast: the rays of a row cast together, the
// grade of a row that sees the sensors of the row before taken from it, and
// the covariance of views of four sensors or more from the closed-form rows,
// wherever its printed digits cannot differ from the reference's; the text is
// the same byte for byte.
enum class RowPath { Fast, Reference };

// The coverage table, one row per direction of `grid` with the device at the
// evaluator's position, to `output`. Yields the channels that no row saw, or
// the failure: a set-up the tables cannot serve, or a row whose grade needs a
// sensor position the model lacks (the rows before it have been written).
Result<std::vector<int32_t>> printCoverageTable(CoverageEvaluator& evaluator, const ReportGrid& grid, WorkerPool& pool,
                                                std::FILE* output, RowPath path = RowPath::Fast);

// The sensitivity table: the device moved across the field of view from the
// evaluator's position, keeping facing the station.
Result<std::vector<int32_t>> printSensitivityTable(CoverageEvaluator& evaluator, const ReportGrid& grid,
                                                   WorkerPool& pool, std::FILE* output, RowPath path = RowPath::Fast);

// The number of rows buildReportGrid would lay for this span and step, up to a
// row or so per axis; UINT64_MAX when the step is not a positive finite number
// or the span is not finite and non-negative.
uint64_t estimateReportRows(double span, double step);

}  // namespace sensorlay
