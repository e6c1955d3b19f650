#pragma once
// The project's own STL reader, for ASCII and binary files.
//
// Every triangle gets three vertices of its own: `vertices` has 3n rows and
// row i of `faces` is 3i, 3i+1, 3i+2. The file's normals are kept as given.
// Nothing is welded, cleaned or dropped, so degenerate and duplicate
// triangles stay in the lists.

#include <Eigen/Core>

#include <cstdint>
#include <string>

#include "common/result.h"

namespace sensorlay {

using StlVertices = Eigen::Matrix<float, Eigen::Dynamic, Eigen::Dynamic>;
using StlFaces = Eigen::Matrix<int32_t, Eigen::Dynamic, Eigen::Dynamic>;

// Reads the file into the three matrices (each with 3 columns). A failure's
// message is one line beginning "IOError: " that names the file and the
// problem; the outputs are then untouched. A well-formed file without
// triangles is a success with no rows. A file with a coordinate or a normal
// component that is not finite or larger than 1e9 in size is refused, naming
// the first such triangle: no part of the program can work with it.
Status readStl(const std::string& path, StlVertices& vertices, StlFaces& faces, StlVertices& normals);

// The same on bytes already in memory; `path` only names the data in messages.
Status parseStl(const std::string& path, const std::string& bytes, StlVertices& vertices, StlFaces& faces,
                StlVertices& normals);

}  // namespace sensorlay
