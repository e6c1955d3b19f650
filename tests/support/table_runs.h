#pragma once
// The analysis tables printed into memory, for the tests of the tables.
// Header only.

#include <cstdio>
#include <cstdlib>
#include <string>

#include "common/rotation.h"
#include "common/worker_pool.h"
#include "reports/report_tables.h"

namespace sensorlay::testing {

// Degrees to the radians of a grid step.
inline double degrees(double d) { return degreesToRadians(d); }

// A table's text, and its complaint or the sensors no row saw, in the lines
// the program prints them as.
struct PrintedTable {
  std::string out, err;
};

inline PrintedTable printTable(CoverageEvaluator& evaluator, WorkerPool& pool, bool sensitivity = false,
                               RowPath path = RowPath::Fast) {
  char* buffer = nullptr;
  size_t size = 0;
  std::FILE* memory = open_memstream(&buffer, &size);
  // The evaluator's own samples serve as the grid.
  const std::vector<OrientationSample>& grid = evaluator.score.samples;
  const Result<std::vector<int32_t>> unseen = sensitivity ? printSensitivityTable(evaluator, grid, pool, memory, path)
                                                          : printCoverageTable(evaluator, grid, pool, memory, path);
  std::fclose(memory);
  PrintedTable table{std::string(buffer, size), std::string()};
  std::free(buffer);
  if (!unseen) {
    table.err = unseen.message() + "\n";
  } else {
    for (int32_t channel : *unseen) table.err += "did not see sensor id " + std::to_string(channel) + "\n";
  }
  return table;
}

// The same on one thread.
inline PrintedTable printTable(CoverageEvaluator& evaluator, bool sensitivity = false) {
  WorkerPool pool(1);
  return printTable(evaluator, pool, sensitivity);
}

}  // namespace sensorlay::testing
