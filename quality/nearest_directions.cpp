#include "quality/nearest_directions.h"

#include <algorithm>
#include <cmath>

namespace sensorlay {

namespace {

constexpr double kPi = 3.141592653589793;
// A cell's gap to the candidate is shrunk by this much before it is compared:
// a direction may sit a rounding error outside the cell it was filed in.
constexpr double kMargin = 1e-12;
// The distances found are rounded and so are the bounds; a cell is passed
// over only when its bound beats the best by more than either error.
constexpr double kSlack = 1e-9;

}  // namespace

struct NearestDirections::Search {
  const double* c;
  double radius;  // of the candidate from the z axis
  int32_t band, sector;
  double offset;  // of the candidate's azimuth from its sector's start
  double enough;
  double best;
};

NearestDirections::NearestDirections(size_t capacity) : heads_(4, -1), sectorWidth_(2.0 * kPi / 4) {
  points_.reserve(capacity);
  next_.reserve(capacity);
}

int32_t NearestDirections::bandOf(double z) const {
  return std::min(std::max(static_cast<int32_t>((z + 1.0) / bandHeight_), 0), bands_ - 1);
}

int32_t NearestDirections::sectorOf(double azimuth) const {
  return std::min(std::max(static_cast<int32_t>((azimuth + kPi) / sectorWidth_), 0), sectors_ - 1);
}

size_t NearestDirections::cellOf(int32_t band, int32_t sector) const {
  return static_cast<size_t>(band) * static_cast<size_t>(sectors_) + static_cast<size_t>(sector);
}

void NearestDirections::add(const double d[3], double azimuth) {
  points_.push_back({d[0], d[1], d[2], azimuth});
  next_.push_back(-1);
  if (points_.size() >= nextRebuild_) {
    rebuild();
    nextRebuild_ *= 2;
  } else {
    file(static_cast<int32_t>(points_.size() - 1));
  }
}

void NearestDirections::file(int32_t i) {
  const Point& p = points_[static_cast<size_t>(i)];
  int32_t& head = heads_[cellOf(bandOf(p.z), sectorOf(p.azimuth))];
  next_[static_cast<size_t>(i)] = head;
  head = i;
}

void NearestDirections::rebuild() {
  // About one cell for each direction.
  const double n = static_cast<double>(points_.size());
  bands_ = std::max(1, static_cast<int32_t>(std::sqrt(n / kPi)));
  // At least four sectors, so that a sector that begins beyond a quarter
  // turn one way round is also beyond a quarter turn the other way.
  sectors_ = std::max(4, static_cast<int32_t>(std::lround(kPi * bands_)));
  bandHeight_ = 2.0 / bands_;
  sectorWidth_ = 2.0 * kPi / sectors_;
  heads_.assign(static_cast<size_t>(bands_) * static_cast<size_t>(sectors_), -1);
  for (size_t i = 0; i < points_.size(); ++i) file(static_cast<int32_t>(i));
}

double NearestDirections::nearest(const double c[3], double azimuth, double enough) const {
  Search search{c, std::sqrt(c[0] * c[0] + c[1] * c[1]), bandOf(c[2]), sectorOf(azimuth), 0.0, enough, 9999.0};
  search.offset = std::min(std::max(azimuth + kPi - search.sector * sectorWidth_, 0.0), sectorWidth_);
  scanBand(search, search.band, 0.0);
  // Then the bands above and below in turn, each side until one is out of
  // reach.
  bool up = true, down = true;
  for (int32_t step = 1; (up || down) && search.best > enough; ++step) {
    const int32_t above = search.band + step, below = search.band - step;
    if (up) up = above < bands_ && scanBand(search, above, -1.0 + above * bandHeight_ - c[2]);
    if (down && search.best > enough)
      down = below >= 0 && scanBand(search, below, c[2] - (-1.0 + (below + 1) * bandHeight_));
  }
  return search.best;
}

void NearestDirections::scanCell(Search& search, int32_t band, int32_t sector) const {
  const double* c = search.c;
  for (int32_t i = heads_[cellOf(band, sector)]; i >= 0; i = next_[static_cast<size_t>(i)]) {
    const Point& p = points_[static_cast<size_t>(i)];
    const double dx = c[0] - p.x;
    const double dy = c[1] - p.y;
    const double dz = c[2] - p.z;
    const double distance = dx * dx + dy * dy + dz * dz;
    if (distance < search.best) search.best = distance;
  }
}

// The widest azimuth gap at which a sector of a band `zGap` away in z can
// still hold a direction as near as the best so far; negative when no part of
// the band can. A direction at an azimuth gap g (up to a quarter turn) lies at
// least radius * sin(g) from the candidate across the z axis, and one beyond
// a quarter turn at least radius.
double NearestDirections::reach(const Search& search, double zGap) const {
  const double g = std::max(zGap - kMargin, 0.0);
  const double room = search.best * (1.0 + kSlack) - g * g;
  if (room < 0.0) return -1.0;
  if (search.radius * search.radius <= room) return 2.0 * kPi;
  return std::asin(std::sqrt(room) / search.radius) + kSlack;
}

// Scans the sectors of `band` outwards from the candidate's azimuth, as far as
// the best so far allows. False when the band is out of reach, and so is every
// band beyond it.
bool NearestDirections::scanBand(Search& search, int32_t band, double zGap) const {
  double limit = reach(search, zGap);
  if (limit < 0.0) return false;
  double best = search.best;
  scanCell(search, band, search.sector);
  // Each side goes at most half way round, so no sector is seen twice.
  const int32_t forward = sectors_ / 2, backward = sectors_ - 1 - forward;
  bool ahead = true, behind = true;
  for (int32_t j = 1; (ahead || behind) && search.best > search.enough; ++j) {
    if (search.best < best) {
      best = search.best;
      limit = reach(search, zGap);
    }
    ahead = ahead && j <= forward && j * sectorWidth_ - search.offset - kMargin <= limit;
    if (ahead) scanCell(search, band, (search.sector + j) % sectors_);
    behind = behind && j <= backward && (j - 1) * sectorWidth_ + search.offset - kMargin <= limit;
    if (behind) scanCell(search, band, (search.sector - j + sectors_) % sectors_);
  }
  return true;
}

}  // namespace sensorlay
