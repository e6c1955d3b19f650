#pragma once
// The unit directions drawn so far, filed so that the one nearest to a new
// candidate is found among a few neighbours instead of all of them.

#include <cstddef>
#include <cstdint>
#include <vector>

namespace sensorlay {

// The directions are filed in cells: bands of equal height in z, of equal
// area therefore, each cut into sectors of equal azimuth. A cell is passed
// over only when no point in it can come as near as the nearest found so far,
// and the cells are made finer each time the count doubles, so that each holds
// one or two directions and a search costs the same at any count. Distances
// are worked out as (c - p) . (c - p), term for term; their least does not
// depend on the order in which they are met, so it is the value a comparison
// with every direction gives, bit for bit.
class NearestDirections {
 public:
  // Room for `capacity` directions is taken at once.
  explicit NearestDirections(size_t capacity);

  // Files a unit direction; `azimuth` is atan2(y, x) of it, or any value for
  // one on the z axis.
  void add(const double d[3], double azimuth);

  // The least squared distance from the unit direction `c` (at `azimuth`) to
  // a direction added so far, 9999.0 when there is none; or, once one at or
  // below `enough` is found, that one, when the caller needs no more.
  double nearest(const double c[3], double azimuth, double enough) const;

  size_t size() const { return points_.size(); }

 private:
  struct Point {
    double x, y, z, azimuth;
  };
  struct Search;

  int32_t bandOf(double z) const;
  int32_t sectorOf(double azimuth) const;
  size_t cellOf(int32_t band, int32_t sector) const;
  void file(int32_t i);
  void rebuild();
  void scanCell(Search& search, int32_t band, int32_t sector) const;
  double reach(const Search& search, double zGap) const;
  bool scanBand(Search& search, int32_t band, double zGap) const;

  std::vector<Point> points_;
  std::vector<int32_t> next_;   // the next direction in the same cell, or -1
  std::vector<int32_t> heads_;  // the last direction filed in each cell, or -1
  size_t nextRebuild_ = 8;
  int32_t bands_ = 1;
  int32_t sectors_ = 4;
  double bandHeight_ = 2.0;
  double sectorWidth_;
};

// Bytes each direction takes in the grid, its cell included.
constexpr size_t kNearestDirectionBytes = 4 * sizeof(double) + 2 * sizeof(int32_t);

}  // namespace sensorlay
