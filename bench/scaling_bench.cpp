// How the costs that depend on the size of the inputs grow: the orientation
// samples at three counts (the time per sample should stay flat), and the
// surface set-up on a generated mesh of two million triangles, without and
// with an obstacle of 9,000, in time and peak memory. Each set-up runs in a
// child process of its own, whose peak resident memory is the measure; the
// child's memory at its start is given too, so that what the set-up adds per
// triangle can be told. Times are the best of three: the machine may be
// shared.
//
//   scaling_bench [triangles]     (default 2000000)

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "quality/orientation_samples.h"
#include "surface/tracked_surface.h"

namespace {

using namespace sensorlay;
using Clock = std::chrono::steady_clock;

constexpr int kRepetitions = 3;

double secondsSince(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

// A UV sphere of `stacks` x `slices` quads, two triangles each (those at the
// poles without area), written as binary STL in millimetres one triangle at a
// time, so that the bench never holds the mesh.
void writeSphere(const std::string& path, double radius, const double centre[3], int stacks, int slices) {
  FILE* file = std::fopen(path.c_str(), "wb");
  if (!file) {
    std::perror(path.c_str());
    std::exit(1);
  }
  char header[80] = "scaling bench sphere";
  const uint32_t count = static_cast<uint32_t>(2 * stacks * slices);
  std::fwrite(header, 1, sizeof header, file);
  std::fwrite(&count, 4, 1, file);
  auto point = [&](int stack, int slice, float out[3]) {
    const double theta = M_PI * stack / stacks, phi = 2.0 * M_PI * slice / slices;
    out[0] = static_cast<float>(centre[0] + radius * std::sin(theta) * std::cos(phi));
    out[1] = static_cast<float>(centre[1] + radius * std::sin(theta) * std::sin(phi));
    out[2] = static_cast<float>(centre[2] + radius * std::cos(theta));
  };
  for (int i = 0; i < stacks; ++i)
    for (int j = 0; j < slices; ++j) {
      float record[2][12];
      const int corners[2][3][2] = {{{i, j}, {i + 1, j}, {i + 1, j + 1}}, {{i, j}, {i + 1, j + 1}, {i, j + 1}}};
      for (int t = 0; t < 2; ++t) {
        for (int k = 0; k < 3; ++k) point(corners[t][k][0], corners[t][k][1], record[t] + 3 + 3 * k);
        // The outward normal of the quad's middle.
        const double theta = M_PI * (i + 0.5) / stacks, phi = 2.0 * M_PI * (j + 0.5) / slices;
        record[t][0] = static_cast<float>(std::sin(theta) * std::cos(phi));
        record[t][1] = static_cast<float>(std::sin(theta) * std::sin(phi));
        record[t][2] = static_cast<float>(std::cos(theta));
        const uint16_t attribute = 0;
        std::fwrite(record[t], 4, 12, file);
        std::fwrite(&attribute, 2, 1, file);
      }
    }
  if (std::fclose(file) != 0) {
    std::perror(path.c_str());
    std::exit(1);
  }
}

long residentKilobytes() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line))
    if (line.rfind("VmRSS:", 0) == 0) return std::atol(line.c_str() + 6);
  return 0;
}

struct ChildMeasure {
  double seconds = 0.0;
  long startKilobytes = 0;
  long peakKilobytes = 0;
};

// Runs `work` in a child process; its time, the child's memory before it,
// and the child's peak.
ChildMeasure inChild(const std::function<void()>& work) {
  int channel[2];
  if (pipe(channel) != 0) std::exit(1);
  const pid_t child = fork();
  if (child == 0) {
    close(channel[0]);
    ChildMeasure m;
    m.startKilobytes = residentKilobytes();
    const Clock::time_point start = Clock::now();
    work();
    m.seconds = secondsSince(start);
    if (write(channel[1], &m, sizeof m) != static_cast<ssize_t>(sizeof m)) _exit(1);
    _exit(0);
  }
  close(channel[1]);
  ChildMeasure m;
  const bool told = read(channel[0], &m, sizeof m) == static_cast<ssize_t>(sizeof m);
  close(channel[0]);
  int status = 0;
  struct rusage usage {};
  wait4(child, &status, 0, &usage);
  if (!told || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    std::fprintf(stderr, "the measured child failed\n");
    std::exit(1);
  }
  m.peakKilobytes = usage.ru_maxrss;
  return m;
}

// The best of kRepetitions runs in children: least time, least peak.
ChildMeasure bestInChildren(const std::function<void()>& work) {
  ChildMeasure best = inChild(work);
  for (int r = 1; r < kRepetitions; ++r) {
    const ChildMeasure m = inChild(work);
    best.seconds = std::min(best.seconds, m.seconds);
    best.startKilobytes = std::min(best.startKilobytes, m.startKilobytes);
    best.peakKilobytes = std::min(best.peakKilobytes, m.peakKilobytes);
  }
  return best;
}

void printMemoryRow(const char* name, const ChildMeasure& m, double triangles) {
  const double added = static_cast<double>(m.peakKilobytes - m.startKilobytes) * 1024.0;
  std::printf("%-34s %6.2f s %8.0f MB peak %6.0f MB at start %6.0f B per triangle\n", name, m.seconds,
              m.peakKilobytes / 1024.0, m.startKilobytes / 1024.0, added / triangles);
}

double samplingSeconds(int32_t count, NearestSearch search, int repetitions) {
  double best = 1e300;
  for (int r = 0; r < repetitions; ++r) {
    std::optional<double> normalization;
    const Clock::time_point start = Clock::now();
    const auto samples = sampleOrientations(count, QualityMap(), normalization, search);
    best = std::min(best, secondsSince(start));
    if (!samples) std::exit(1);
  }
  return best;
}

// The grid against the comparison with every earlier sample, which is run
// once and only where it takes seconds rather than minutes.
void sampling() {
  std::printf("orientation samples (grid: best of %d; every earlier sample: once)\n", kRepetitions);
  for (const int32_t count : {1250, 20000, 100000}) {
    const double grid = samplingSeconds(count, NearestSearch::Grid, kRepetitions);
    std::printf("  %7d %9.4f s %7.2f us per sample", count, grid, grid / count * 1e6);
    if (count <= 20000)
      std::printf("   every earlier sample: %8.4f s", samplingSeconds(count, NearestSearch::Exhaustive, 1));
    std::printf("\n");
  }
}

void surfaceSetUp(int64_t triangles) {
  char folder[] = "/tmp/sensorlay_scaling_XXXXXX";
  if (!mkdtemp(folder)) std::exit(1);
  const std::string surface = std::string(folder) + "/surface.stl", obstacle = std::string(folder) + "/obstacle.stl";
  // As many stacks as slices, as near to the count as that allows.
  const int stacks = std::max(1, static_cast<int>(std::lround(std::sqrt(static_cast<double>(triangles) / 2.0))));
  const int slices = std::max(1, static_cast<int>(std::lround(static_cast<double>(triangles) / (2.0 * stacks))));
  const double origin[3] = {0.0, 0.0, 0.0}, beside[3] = {150.0, 0.0, 0.0};
  writeSphere(surface, 100.0, origin, stacks, slices);
  writeSphere(obstacle, 30.0, beside, 45, 100);
  const double count = 2.0 * stacks * slices;

  std::printf("surface set-up, %.0f triangles (best of %d, each in a child process)\n", count, kRepetitions);
  printMemoryRow("  surface alone", bestInChildren([&] { TrackedSurface s(surface, {}); }), count);
  printMemoryRow("  with a 9,000-triangle obstacle", bestInChildren([&] { TrackedSurface s(surface, {obstacle}); }),
                 count);
  // Further peak-memory cases, such as the analysis table at a fine grid,
  // go here: bestInChildren runs the work, printMemoryRow reports it.
  std::remove(surface.c_str());
  std::remove(obstacle.c_str());
  rmdir(folder);
}

}  // namespace

int main(int argc, char** argv) {
  const int64_t triangles = argc > 1 ? std::atoll(argv[1]) : 2000000;
  sampling();
  surfaceSetUp(triangles);
  return 0;
}
