#pragma once
// Fewer triangles for a picture of a mesh: vertex clustering on a grid of
// cubic cells. Every corner moves to the mean of the corners in its cell; a
// triangle whose corners land in fewer than three cells vanishes, and of
// triangles that land on the same three cells with the same winding one is
// kept. The outline survives to within a cell, which is all a picture needs,
// and the work grows linearly with the mesh.

#include <cstddef>
#include <vector>

namespace sensorlay::lab {

// Triangles as 9 coordinates each (x y z of three corners), no sharing.
using TriangleSoup = std::vector<float>;

// The soup clustered on cells of edge `cell` (in the soup's unit), laid from
// its bounding box's lowest corner.
TriangleSoup clusterVertices(const TriangleSoup& soup, double cell);

// At most `budget` triangles: the soup itself when it has no more, else the
// clustering with the finest cell found, in a few trials, that keeps within
// the budget.
TriangleSoup decimateToBudget(const TriangleSoup& soup, size_t budget);

// Shares `budget` triangles among meshes of these counts: meshes below an even
// share keep all of theirs, and what they leave goes to the larger ones.
std::vector<size_t> shareTriangleBudget(const std::vector<size_t>& counts, size_t budget);

}  // namespace sensorlay::lab
