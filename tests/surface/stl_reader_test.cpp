#include "surface/stl_reader.h"

#include <gtest/gtest.h>

#include <cstring>
#include <limits>

#include "tests/support/meshes.h"
#include "tests/support/run_binary.h"

namespace sensorlay {
namespace {

using namespace sensorlay::testing;

struct Read {
  bool ok = false;
  StlVertices V, N;
  StlFaces F;
  std::string err;
};

Read readReporting(const std::string& path) {
  Read r;
  const Status read = readStl(path, r.V, r.F, r.N);
  r.ok = read.ok();
  if (!r.ok) r.err = read.message() + "\n";
  return r;
}

TEST(StlReader, BinaryAsciiAndSolidHeaderReadTheSameTriangles) {
  TempDir dir;
  Mesh m = twoTrianglesMesh();
  m[0].normal = Eigen::Vector3f(0, 0, 2.5f);  // kept as given
  m[1].a = Eigen::Vector3f(2.125f, -1e-7f, 123456.789f);
  writeStlBinary(dir.file("b.stl"), m);
  writeStlBinary(dir.file("s.stl"), m, "solid exported by some CAD tool");  // common in CAD exports
  writeStlAscii(dir.file("a.stl"), m);                                      // nine digits keep every float
  for (const char* name : {"b.stl", "s.stl", "a.stl"}) {
    const Read r = readReporting(dir.file(name));
    ASSERT_TRUE(r.ok) << r.err;
    EXPECT_EQ(r.err, "");
    ASSERT_EQ(r.F.rows(), 2);
    ASSERT_EQ(r.V.rows(), 6);
    for (int t = 0; t < 2; ++t) {
      EXPECT_EQ(r.N.row(t), m[t].normal.transpose()) << name;
      EXPECT_EQ(r.F.row(t), Eigen::RowVector3i(3 * t, 3 * t + 1, 3 * t + 2));
      EXPECT_EQ(r.V.row(3 * t + 0), m[t].a.transpose()) << name;
      EXPECT_EQ(r.V.row(3 * t + 2), m[t].c.transpose()) << name;
    }
  }
}

TEST(StlReader, AsciiVariantsAreAccepted) {
  TempDir dir;
  // A byte-order mark, upper case keywords, CR LF line ends, an unnamed solid, two solids in one file.
  writeFile(dir.file("u.stl"),
            "\xEF\xBB\xBFSOLID\r\nFACET NORMAL 0 0 1\r\nOUTER LOOP\r\nVERTEX 0 0 0\r\nVERTEX 1 0 0\r\nVERTEX 0 1 0\r\n"
            "ENDLOOP\r\nENDFACET\r\nENDSOLID\r\n"
            "solid second\n facet normal 0 0 -1 outer loop vertex 0 0 0 vertex 0 1 0 vertex 1 0 0 endloop endfacet\n"
            "endsolid second\n");
  Read r = readReporting(dir.file("u.stl"));
  ASSERT_TRUE(r.ok) << r.err;
  EXPECT_EQ(r.F.rows(), 2);
  EXPECT_EQ(r.N(1, 2), -1.0f);
  EXPECT_EQ(r.V(5, 0), 1.0f);
  // A solid without facets is a good file with no triangles.
  writeFile(dir.file("e.stl"), "solid empty\nendsolid empty\n");
  r = readReporting(dir.file("e.stl"));
  EXPECT_TRUE(r.ok);
  EXPECT_EQ(r.F.rows(), 0);
}

TEST(StlReader, BadFilesAreReportedWithTheirNameAndProblem) {
  TempDir dir;
  writeStlBinary(dir.file("full.stl"), cubeMesh(1.0f));
  const std::string full = readFile(dir.file("full.stl"));
  std::string hugeCount = full;
  std::memset(&hugeCount[80], 0xFF, 4);
  std::string solidTruncated = "solid" + full.substr(5, full.size() - 12);

  const std::vector<std::array<std::string, 3>> cases = {
      {"empty.stl", "", "empty"},
      {"short.stl", "xyz", "too few"},
      {"cut.stl", full.substr(0, full.size() - 1), "truncated"},
      {"cutsolid.stl", solidTruncated, "truncated"},
      {"header.stl", full.substr(0, 84), "truncated"},
      {"huge.stl", hugeCount, "truncated"},
      {"long.stl", full + "junk", "not an STL"},
      {"garbage.stl", std::string(1000, '\x7f'), "no STL at all"},
      {"nofacet.stl", "solid x\n facet normal 0 0 1\n outer loop\n vertex 0 0 0\n", "inside a facet"},
      {"noend.stl", "solid x\n", "without \"endsolid\""},
      {"badnum.stl", "solid x\nfacet normal 0 0 1x\n", "line 2: expected a number, found \"1x\""},
      {"badword.stl", "solid x\nfacet normal 0 0 1\nouter loop\nvertx 0 0 0\n", "line 4: expected \"vertex\""},
      {"tail.stl", "solid x\nendsolid x\nfacet\n", "line 3"},
  };
  for (const auto& [name, content, problem] : cases) {
    writeFile(dir.file(name), content);
    const Read r = readReporting(dir.file(name));
    EXPECT_FALSE(r.ok) << name;
    EXPECT_EQ(r.err.rfind("IOError: \"" + dir.file(name) + "\": ", 0), 0u) << r.err;
    EXPECT_NE(r.err.find(problem), std::string::npos) << name << ": " << r.err;
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
    EXPECT_EQ(r.F.size(), 0) << name;
  }
  EXPECT_NE(readReporting(dir.file("missing.stl")).err.find("\": cannot be opened"), std::string::npos);
  EXPECT_NE(readReporting(dir.path()).err.find("not a regular file"), std::string::npos);
}

TEST(StlReader, NumbersMustBeFiniteAndWithinRange) {
  TempDir dir;
  Mesh cube = cubeMesh(1.0f);
  cube[4].b.y() = 1.8e28f;  // a corrupt vertex
  writeStlBinary(dir.file("far.stl"), cube);
  Mesh tilted = twoTrianglesMesh();
  tilted[0].normal.x() = -std::numeric_limits<float>::infinity();
  writeStlBinary(dir.file("normal.stl"), tilted);
  writeFile(dir.file("nan.stl"),
            "solid x\nfacet normal 0 0 1 outer loop vertex 0 0 0 vertex 1 0 0 vertex 0 1 0 endloop endfacet\n"
            "facet normal 0 0 1 outer loop vertex 0 0 0 vertex 1 nan 0 vertex 0 1 0 endloop endfacet\nendsolid x\n");
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"far.stl", "triangle 5 of 12 has the vertex coordinate 1.8e+28; "},
      {"normal.stl", "triangle 1 of 2 has the normal component -inf; "},
      {"nan.stl", "triangle 2 of 2 has the vertex coordinate nan; "},
  };
  for (const auto& [name, problem] : cases) {
    const Read r = readReporting(dir.file(name));
    EXPECT_FALSE(r.ok) << name;
    EXPECT_EQ(r.err.rfind("IOError: \"" + dir.file(name) + "\": " + problem, 0), 0u) << r.err;
    EXPECT_EQ(r.F.size(), 0) << name;
  }
  // The bound itself is still a number the surface can work with.
  Mesh edge = twoTrianglesMesh();
  edge[1].c = Eigen::Vector3f(-1e9f, 1e9f, 0);
  writeStlBinary(dir.file("edge.stl"), edge);
  EXPECT_TRUE(readReporting(dir.file("edge.stl")).ok);
  edge[1].c.x() = -1.0001e9f;
  writeStlBinary(dir.file("edge.stl"), edge);
  EXPECT_FALSE(readReporting(dir.file("edge.stl")).ok);
}

}  // namespace
}  // namespace sensorlay
