// Inputs a second of the model and device readers, the files being the fuzz
// seeds (the project's own writers made them, 0.1 to 3 KB each), read from a
// memory file system as the fuzz targets read them:
//   ModelFile      /model's reader and the run-time model made from it
//   DeviceRecord   a device file read and parsed into its record
//   FormatConvert  /formatconvert whole: the read, the record written in the
//                  other layout and printed (to /dev/null)

#include <benchmark/benchmark.h>

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "common/files.h"
#include "device/device_config.h"
#include "device/model_loading.h"
#include "tools/tools.h"

namespace {

using namespace sensorlay;

// The seeds of one target copied into a private folder; `skip` leading bytes
// of each (the device target's first byte picks the layout) are left out.
class SeedFiles {
 public:
  SeedFiles(const std::string& target, size_t skip) {
    for (const char* base : {"/dev/shm", "/tmp"}) {
      std::string pattern = std::string(base) + "/sensorlay_bench_XXXXXX";
      if (mkdtemp(pattern.data()) != nullptr) {
        folder_ = pattern;
        break;
      }
    }
    const std::string seeds = std::string(SENSORLAY_SOURCE_DIR) + "/fuzz/corpus/" + target;
    std::vector<std::string> names;
    if (DIR* dir = opendir(seeds.c_str())) {
      while (const dirent* entry = readdir(dir))
        if (entry->d_name[0] != '.') names.push_back(entry->d_name);
      closedir(dir);
    }
    std::sort(names.begin(), names.end());
    for (const std::string& name : names) {
      const std::string bytes = readRegularFile(seeds + "/" + name).bytes;
      if (bytes.size() <= skip) continue;
      const std::string path = folder_ + "/" + name + ".json";
      if (FILE* out = std::fopen(path.c_str(), "wb")) {
        std::fwrite(bytes.data() + skip, 1, bytes.size() - skip, out);
        std::fclose(out);
        paths_.push_back(path);
        formats_.push_back(static_cast<unsigned char>(bytes[0]) % 3);
      }
    }
  }
  ~SeedFiles() {
    for (const std::string& path : paths_) unlink(path.c_str());
    rmdir(folder_.c_str());
  }
  SeedFiles(const SeedFiles&) = delete;
  SeedFiles& operator=(const SeedFiles&) = delete;

  const std::vector<std::string>& paths() const { return paths_; }
  int format(size_t i) const { return formats_[i]; }

 private:
  std::string folder_;
  std::vector<std::string> paths_;
  std::vector<int> formats_;
};

void BM_ModelFile(benchmark::State& state) {
  const SeedFiles seeds("model_file", 0);
  for (auto _ : state)
    for (const std::string& path : seeds.paths()) benchmark::DoNotOptimize(loadSensorModel(path));
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * seeds.paths().size()));
}
BENCHMARK(BM_ModelFile);

void BM_DeviceRecord(benchmark::State& state) {
  const SeedFiles seeds("device_record", 1);
  for (auto _ : state)
    for (const std::string& path : seeds.paths()) {
      DeviceConfig config;
      std::string errorText;
      benchmark::DoNotOptimize(parseDeviceConfig(config, errorText, readTextFile(path)));
    }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * seeds.paths().size()));
}
BENCHMARK(BM_DeviceRecord);

void BM_FormatConvert(benchmark::State& state) {
  const SeedFiles seeds("device_record", 1);
  std::fflush(stdout);
  const int saved = dup(1);
  const int devNull = open("/dev/null", O_WRONLY);
  dup2(devNull, 1);
  close(devNull);
  for (auto _ : state)
    for (size_t i = 0; i < seeds.paths().size(); ++i)
      benchmark::DoNotOptimize(convertDeviceFile(seeds.paths()[i], seeds.format(i)));
  std::fflush(stdout);
  dup2(saved, 1);
  close(saved);
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * seeds.paths().size()));
}
BENCHMARK(BM_FormatConvert);

}  // namespace

BENCHMARK_MAIN();
