#include "lab/decimation.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <numeric>
#include <unordered_map>
#include <unordered_set>

namespace sensorlay::lab {

namespace {

// Cells per axis that a 64-bit key holds; a finer cell is coarsened to fit.
constexpr double kCellsPerAxis = 1 << 20;

struct Bounds {
  double low[3] = {INFINITY, INFINITY, INFINITY};
  double high[3] = {-INFINITY, -INFINITY, -INFINITY};
  double diagonal() const {
    return std::sqrt(std::pow(high[0] - low[0], 2) + std::pow(high[1] - low[1], 2) + std::pow(high[2] - low[2], 2));
  }
};

Bounds boundsOf(const TriangleSoup& soup) {
  Bounds b;
  for (size_t i = 0; i + 2 < soup.size(); i += 3)
    for (int k = 0; k < 3; ++k) {
      b.low[k] = std::min(b.low[k], static_cast<double>(soup[i + k]));
      b.high[k] = std::max(b.high[k], static_cast<double>(soup[i + k]));
    }
  return b;
}

double areaOf(const TriangleSoup& soup) {
  double area = 0.0;
  for (size_t t = 0; t + 8 < soup.size(); t += 9) {
    double u[3], v[3];
    for (int k = 0; k < 3; ++k) {
      u[k] = soup[t + 3 + k] - soup[t + k];
      v[k] = soup[t + 6 + k] - soup[t + k];
    }
    area += 0.5 * std::sqrt(std::pow(u[1] * v[2] - u[2] * v[1], 2) + std::pow(u[2] * v[0] - u[0] * v[2], 2) +
                            std::pow(u[0] * v[1] - u[1] * v[0], 2));
  }
  return area;
}

struct TriangleKey {
  std::array<uint32_t, 3> clusters;
  bool operator==(const TriangleKey& other) const { return clusters == other.clusters; }
};
struct TriangleKeyHash {
  size_t operator()(const TriangleKey& k) const {
    return (k.clusters[0] * 0x9E3779B97F4A7C15ull) ^ (k.clusters[1] * 0xC2B2AE3D27D4EB4Full) ^
           (k.clusters[2] * 0x165667B19E3779F9ull);
  }
};

}  // namespace

TriangleSoup clusterVertices(const TriangleSoup& soup, double cell) {
  const size_t corners = soup.size() / 3;
  if (corners == 0 || !(cell > 0.0)) return soup;
  const Bounds bounds = boundsOf(soup);
  for (int k = 0; k < 3; ++k) cell = std::max(cell, (bounds.high[k] - bounds.low[k]) / kCellsPerAxis);

  std::unordered_map<uint64_t, uint32_t> clusterOfCell;
  clusterOfCell.reserve(corners / 4);
  std::vector<uint32_t> cornerCluster(corners);
  std::vector<double> sums;
  std::vector<uint32_t> members;
  for (size_t i = 0; i < corners; ++i) {
    uint64_t key = 0;
    for (int k = 0; k < 3; ++k) {
      const double index = std::floor((soup[3 * i + k] - bounds.low[k]) / cell);
      key |= static_cast<uint64_t>(std::clamp(index, 0.0, kCellsPerAxis)) << (21 * k);
    }
    const auto [at, fresh] = clusterOfCell.try_emplace(key, static_cast<uint32_t>(members.size()));
    if (fresh) {
      sums.insert(sums.end(), 3, 0.0);
      members.push_back(0);
    }
    const uint32_t c = at->second;
    cornerCluster[i] = c;
    for (int k = 0; k < 3; ++k) sums[3 * c + k] += soup[3 * i + k];
    ++members[c];
  }

  TriangleSoup out;
  std::unordered_set<TriangleKey, TriangleKeyHash> kept;
  for (size_t t = 0; t + 2 < corners; t += 3) {
    std::array<uint32_t, 3> c = {cornerCluster[t], cornerCluster[t + 1], cornerCluster[t + 2]};
    if (c[0] == c[1] || c[1] == c[2] || c[0] == c[2]) continue;
    // The smallest first, keeping the winding, so that one triangle has one key.
    std::rotate(c.begin(), std::min_element(c.begin(), c.end()), c.end());
    if (!kept.insert({c}).second) continue;
    for (uint32_t cluster : c)
      for (int k = 0; k < 3; ++k) out.push_back(static_cast<float>(sums[3 * cluster + k] / members[cluster]));
  }
  return out;
}

TriangleSoup decimateToBudget(const TriangleSoup& soup, size_t budget) {
  const size_t triangles = soup.size() / 9;
  if (triangles <= budget) return soup;
  if (budget == 0) return {};
  // A cell wider than the whole mesh leaves nothing: the coarse end that
  // always keeps within the budget.
  double coarse = 2.0 * boundsOf(soup).diagonal() + 1e-30;
  double fine = 0.0;  // a cell known to give too many, once one is tried
  // About three triangles per cell that the surface crosses.
  const double area = areaOf(soup);
  double cell = area > 0.0 ? std::sqrt(3.0 * area / static_cast<double>(budget)) : coarse / 4.0;
  cell = std::min(cell, coarse / 2.0);
  TriangleSoup best;
  for (int trial = 0; trial < 10; ++trial) {
    TriangleSoup clustered = clusterVertices(soup, cell);
    const size_t count = clustered.size() / 9;
    if (count <= budget) {
      best = std::move(clustered);
      coarse = cell;
      if (count >= budget * 8 / 10) break;
    } else {
      fine = cell;
    }
    if (fine > 0.0)
      cell = std::sqrt(fine * coarse);
    else
      cell *= count > 0 ? std::sqrt(static_cast<double>(count) / (0.9 * static_cast<double>(budget))) : 0.25;
  }
  return best;
}

std::vector<size_t> shareTriangleBudget(const std::vector<size_t>& counts, size_t budget) {
  std::vector<size_t> shares = counts;
  if (std::accumulate(counts.begin(), counts.end(), size_t{0}) <= budget) return shares;
  std::vector<size_t> order(counts.size());
  std::iota(order.begin(), order.end(), size_t{0});
  std::sort(order.begin(), order.end(), [&](size_t a, size_t b) { return counts[a] < counts[b]; });
  size_t left = budget;
  for (size_t i = 0; i < order.size(); ++i) {
    const size_t share = left / (order.size() - i);
    shares[order[i]] = std::min(counts[order[i]], share);
    left -= shares[order[i]];
  }
  return shares;
}

}  // namespace sensorlay::lab
