// Writes the seed corpora of the fuzz targets into <folder>/<target>/, with
// the project's own writers: the test meshes, the model and device writers,
// the JSON writer. The output is the same on every run, so that the seeds in
// the repository can be made again (fuzz/make-seeds.sh).
//   seed_writer <folder>

#include <sys/stat.h>

#include <Eigen/Core>

#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "common/json_io.h"
#include "device/device_config.h"
#include "fuzz/surface_query.h"
#include "model/constellation.h"
#include "tests/support/device_files.h"
#include "tests/support/meshes.h"
#include "tests/support/png_images.h"

namespace {

using namespace sensorlay;
namespace t = sensorlay::testing;

std::string root;

std::string folder(const std::string& target) {
  const std::string path = root + "/" + target;
  mkdir(path.c_str(), 0755);
  return path;
}

void put(const std::string& target, const std::string& name, const std::string& bytes) {
  const std::string path = folder(target) + "/" + name;
  std::FILE* file = std::fopen(path.c_str(), "wb");
  if (file == nullptr || std::fwrite(bytes.data(), 1, bytes.size(), file) != bytes.size() || std::fclose(file) != 0) {
    std::fprintf(stderr, "seed_writer: cannot write %s\n", path.c_str());
    std::exit(1);
  }
}

std::string slurp(const std::string& path) {
  std::string bytes;
  std::FILE* file = std::fopen(path.c_str(), "rb");
  if (file == nullptr) std::exit(1);
  char buffer[4096];
  size_t n;
  while ((n = std::fread(buffer, 1, sizeof buffer, file)) > 0) bytes.append(buffer, n);
  std::fclose(file);
  return bytes;
}

// The mesh writers write files; their bytes are what the seeds hold.
std::string stlBytes(const t::Mesh& mesh, bool ascii, const std::string& header = "sensorlay seed") {
  const std::string path = root + "/.mesh.stl";
  if (ascii)
    t::writeStlAscii(path, mesh, header);
  else
    t::writeStlBinary(path, mesh, header);
  std::string bytes = slurp(path);
  std::remove(path.c_str());
  return bytes;
}

t::Mesh withZeroNormals(t::Mesh mesh, size_t every) {
  for (size_t i = 0; i < mesh.size(); i += every) mesh[i].normal = Eigen::Vector3f::Zero();
  return mesh;
}

void stlSeeds() {
  put("stl_reader", "cube-ascii.stl", stlBytes(t::cubeMesh(1.0f), true));
  put("stl_reader", "cube-binary.stl", stlBytes(t::cubeMesh(30.0f), false));
  // A binary header that begins with "solid", as some exporters write.
  put("stl_reader", "sphere-solid-header.stl", stlBytes(t::sphereMesh(0.02f, 4, 6), false, "solid sphere"));
  put("stl_reader", "two-triangles-zero-normals.stl", stlBytes(withZeroNormals(t::twoTrianglesMesh(), 1), true));
}

void surfaceSeeds() {
  const std::string box = stlBytes(t::cubeMesh(40.0f, 2), false);
  const std::string plate = stlBytes(t::plateMesh(0.2f, 0.0f, 2), true);
  fuzz::SurfaceQuery query;
  query.origin[2] = 0.1f;
  query.direction[2] = -1.0f;
  put("surface", "box.bin", fuzz::surfaceInput(query, box, ""));
  put("surface", "box-ball-obstacle.bin",
      fuzz::surfaceInput(query, box, stlBytes(t::sphereMesh(10.0f, 4, 8, Eigen::Vector3f(0, 0, 30)), false)));
  query.maxSurfaceAngle = 30.0f;
  query.seed = 7;
  put("surface", "plate-tilted-normals.bin", fuzz::surfaceInput(query, plate, ""));
  query.flags = fuzz::kNormalsFromWinding;
  put("surface", "plate-zero-normals-wound.bin",
      fuzz::surfaceInput(query, stlBytes(withZeroNormals(t::plateMesh(0.2f, 0.0f, 2), 2), true), ""));
  query.flags = 0;
  put("surface", "plate-zero-normals.bin",
      fuzz::surfaceInput(query, stlBytes(withZeroNormals(t::plateMesh(0.2f, 0.0f, 2), 2), true), ""));
  fuzz::SurfaceQuery large;
  large.sensorSize = 1e20f;
  large.tFar = 1e30f;
  put("surface", "box-huge-sensor.bin", fuzz::surfaceInput(large, box, ""));
}

Constellation threeSensors() {
  Constellation c;
  c.valid = true;
  c.modelCad = "seed.stl";
  c.channelMap = {0, 1, 2};
  c.modelPoints = {Eigen::Vector3f(0.05f, 0.0f, 0.01f), Eigen::Vector3f(-0.04f, 0.02f, 0.0f),
                   Eigen::Vector3f(0.0f, -0.03f, 0.02f)};
  c.modelNormals = {Eigen::Vector3f(1.0f, 0.0f, 0.0f), Eigen::Vector3f(-0.6f, 0.8f, 0.0f),
                    Eigen::Vector3f(0.0f, -0.8f, 0.6f)};
  return c;
}

void modelSeeds() {
  const std::string json = writeStyledJson(constellationToJson(threeSensors()));
  // As a design run writes it, with its score comment on top.
  put("model_file", "design.json", "// Final Quality Score: 123.5 / 1000 (lower is better)\n" + json + "\n");
  Constellation skipped = threeSensors();
  skipped.channelMap = {0, -1, 5};
  put("model_file", "negative-channel.json", writeStyledJson(constellationToJson(skipped)));
  put("model_file", "device-form.json", t::minimalHmdJson("\"beaconet_config\": " + json));
}

void deviceSeeds() {
  put("device_record", "rich", std::string(1, '\1') + t::richDeviceJson());
  put("device_record", "minimal", std::string(1, '\0') + t::minimalHmdJson());
  // The rich record cut into parts, each written in another generation:
  // small inputs keep the fuzzer fast.
  DeviceConfig rich;
  std::string errorText;
  if (!parseDeviceConfig(rich, errorText, t::richDeviceJson())) std::exit(1);
  DeviceConfig display = rich;
  display.cameras.clear();
  display.ispDrivers.clear();
  display.constellation = Constellation();
  display.trackrefFromImu = RigidTransform();
  display.trackrefFromHead = RigidTransform();
  display.imuCalibration = ImuCalibration();
  display.firmwareConfig = Json::Value();
  display.mfgBuildInfo = Json::Value();
  DeviceConfig tracking = rich;
  tracking.deviceClass = DeviceClass::Controller;  // no display keys
  tracking.cameras.resize(1);
  tracking.constellation = Constellation();
  DeviceConfig cameras = tracking;
  cameras.cameras = rich.cameras;
  cameras.trackrefFromImu = RigidTransform();
  cameras.imuCalibration = ImuCalibration();
  const std::pair<const char*, DeviceConfig*> parts[] = {
      {"display", &display}, {"tracking", &tracking}, {"cameras", &cameras}};
  for (int format = 0; format < 3; ++format)
    for (const auto& [name, config] : parts) {
      config->jsonFormat = format;
      put("device_record", std::string(name) + "-format" + std::to_string(format),
          std::string(1, static_cast<char>(2 - format)) + writeStyledJson(writeDeviceRecord(*config)));
    }
}

std::string imuInput(const Eigen::Vector3d& position, const Eigen::Vector3d& plusZ, const Eigen::Vector3d& plusX) {
  JsonOut root = JsonOut::object();
  const std::pair<const char*, const Eigen::Vector3d*> keys[] = {
      {"imu_from_trackref", &position}, {"imu_plusz_in_trackref", &plusZ}, {"imu_plusx_in_trackref", &plusX}};
  for (const auto& [key, v] : keys) {
    JsonOut a = JsonOut::array();
    for (int i = 0; i < 3; ++i) a.append((*v)[i]);
    root[key] = a;
  }
  return writeStyledJson(root);
}

void imuSeeds() {
  put("imu_input", "template.json", "// the sample the tool prints\n" + imuInput({0, 0, 0}, {0, 0, 0}, {0, 0, 0}));
  put("imu_input", "board.json", imuInput({0.012, -0.004, 0.031}, {0, 0, 1}, {1, 0, 0}));
  put("imu_input", "tilted.json", imuInput({0.1, 0.2, 0.3}, {0, 0.6, 0.8}, {1, 0.01, 0}));
}

void optionSeeds() {
  auto line = [](const std::vector<std::string>& words) {
    std::string bytes;
    for (const std::string& w : words) bytes += w + '\0';
    return bytes;
  };
  put("option_scan", "design", line({"/generate",   "/nsensors",       "20",
                                     "/sensors",    "headset.stl",     "/obstacles",
                                     "head.stl",    "/outmodel",       "design.json",
                                     "/outscad",    "design.scad",     "/coolingrate",
                                     "0.96",        "/qualityrange",   "0.05",
                                     "0.002",       "/qualitymap",     "map.png",
                                     "/sensorsize", "0.006",           "/maxsurfaceangle",
                                     "10",          "/withscadnormals"}));
  put("option_scan", "analysis",
      line({"/model", "m.json", "/sensors", "s.stl", "/distancebasemeters", "2.0", "/angleresolutiondegrees", "0.5",
            "/maxincidenceangle", "60", "/srbtiltdegrees", "10", "/basestationsensitivity"}));
  put("option_scan", "verify", line({"/verifycoverage", "500", "/sensors", "s.stl", "/outscad", "v.scad"}));
  put("option_scan", "version-then-bad", line({"/VERSION", "/nosuchswitch", "12abc"}));
  put("option_scan", "missing-value", line({"/niterations", "3", "/norientations"}));
}

// Small maps in every layout the decoders know, with samples from a fixed
// generator.
void qualityMapSeeds() {
  std::mt19937 generator(3);
  struct Layout {
    const char* name;
    int colourType, depth;
    bool interlaced, transparent;
  };
  const Layout layouts[] = {
      {"grey8.png", 0, 8, false, false},         {"grey2-trns.png", 0, 2, false, true},
      {"grey-alpha16.png", 4, 16, false, false}, {"rgb16-trns-interlaced.png", 2, 16, true, true},
      {"rgba8.png", 6, 8, false, false},         {"palette4-trns-interlaced.png", 3, 4, true, true},
  };
  for (const Layout& layout : layouts) {
    const t::PngImage png =
        t::noisePng(9, 5, layout.colourType, layout.depth, layout.interlaced, layout.transparent, generator);
    put("quality_map", layout.name, t::pngBytes(png));
  }
  std::string pixels;
  for (int i = 0; i < 2 * 3 * 9 * 5; ++i) pixels += static_cast<char>(generator());
  put("quality_map", "grey.pgm", "P5\n# a comment\n9 5\n255\n" + pixels.substr(0, 45));
  put("quality_map", "grey16.pgm", "P5 9 5 65535\n" + pixels.substr(0, 90));
  put("quality_map", "colour.ppm", "P6\n9 5\n255\n" + pixels.substr(0, 135));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: seed_writer <folder>\n");
    return 1;
  }
  root = argv[1];
  mkdir(root.c_str(), 0755);
  stlSeeds();
  surfaceSeeds();
  modelSeeds();
  deviceSeeds();
  imuSeeds();
  optionSeeds();
  qualityMapSeeds();
  return 0;
}
