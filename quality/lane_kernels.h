// The kernels of quality/score_lanes.h, compiled once for each vector width
// in a namespace of its own, which SENSORLAY_LANES names (the files that
// include this one). Nothing here may use an inline function that other
// files use too: the linker could keep this file's wider copy for them.

#include <cstring>

#include "quality/score_lanes.h"

#ifndef SENSORLAY_LANES
#error "SENSORLAY_LANES names the namespace of this copy of the kernels"
#endif

namespace sensorlay::SENSORLAY_LANES {

namespace {

using Lanes = double __attribute__((vector_size(kLanes * sizeof(double))));
using IntLanes = int64_t __attribute__((vector_size(kLanes * sizeof(int64_t))));

Lanes load(const double* p) {
  Lanes v;
  std::memcpy(&v, p, sizeof v);
  return v;
}
IntLanes loadInts(const int64_t* p) {
  IntLanes v;
  std::memcpy(&v, p, sizeof v);
  return v;
}
void store(double* p, Lanes v) { std::memcpy(p, &v, sizeof v); }
void storeInts(int64_t* p, IntLanes v) { std::memcpy(p, &v, sizeof v); }
Lanes broadcast(double x) { return Lanes{} + x; }

// The lanes whose bit is set in `bits`, as all-ones.
IntLanes laneMask(uint32_t bits) {
  IntLanes m;
  for (int lane = 0; lane < kLanes; ++lane) m[lane] = (bits >> lane & 1) != 0 ? -1 : 0;
  return m;
}

constexpr int kOuterIndex[kOuterEntries][2] = {{0, 0}, {0, 2}, {0, 3}, {0, 4}, {0, 5}, {1, 1}, {1, 2},
                                               {1, 3}, {1, 4}, {1, 5}, {2, 2}, {2, 3}, {2, 4}, {2, 5},
                                               {3, 3}, {3, 4}, {3, 5}, {4, 4}, {4, 5}, {5, 5}};
constexpr int kFirstRowColumns[5] = {0, 2, 3, 4, 5};
constexpr int kSecondRowColumns[5] = {1, 2, 3, 4, 5};

// The rows of a sensor at `point`: X = R p + t, its derivative by the
// rotation vector M = sum_i p_i dR e_i, and the gradients of the two angles.
void rows(const LaneFrames& frames, const ShareScales& scales, const double point[3], Lanes r0[6], Lanes r1[6]) {
  const double px = point[0], py = point[1], pz = point[2];
  const double* t = scales.translation;
  auto F = [&](int i) { return load(frames.number[i]); };
  const Lanes x = F(0) * px + F(1) * py + F(2) * pz + t[0];
  const Lanes y = F(3) * px + F(4) * py + F(5) * pz + t[1];
  const Lanes z = F(6) * px + F(7) * py + F(8) * pz + t[2];
  Lanes M[9];
  for (int e = 0; e < 9; ++e) M[e] = px * F(9 + e) + py * F(18 + e) + pz * F(27 + e);

  // The gradients of atan2(-z, x) and atan2(-z, -y) in X; the translation
  // enters X with the identity.
  const Lanes inverse0 = 1.0 / (x * x + z * z);
  const Lanes g0x = z * inverse0, g0z = -x * inverse0;
  const Lanes inverse1 = 1.0 / (y * y + z * z);
  const Lanes g1y = -z * inverse1, g1z = y * inverse1;
  r0[0] = g0x;
  r0[1] = Lanes{};
  r0[2] = g0z;
  r1[0] = Lanes{};
  r1[1] = g1y;
  r1[2] = g1z;
  for (int j = 0; j < 3; ++j) {
    r0[3 + j] = (g0x * M[j] + g0z * M[6 + j]) * scales.rotationScale;
    r1[3 + j] = (g1y * M[3 + j] + g1z * M[6 + j]) * scales.rotationScale;
  }
}

// The share of the rows in fixed point; a lane with an entry too large for
// it gets no entries and a count of one in the oversize slot, so that its
// sample goes to the reference computation.
void share(const Lanes r0[6], const Lanes r1[6], double fixedScale, IntLanes out[kShareSize]) {
  Lanes values[kOversizedAt];
  for (int e = 0; e < kOuterEntries; ++e) {
    const int i = kOuterIndex[e][0], j = kOuterIndex[e][1];
    values[e] = r0[i] * r0[j] + r1[i] * r1[j];
  }
  for (int e = 0; e < 5; ++e) {
    values[kFirstRowAt + e] = r0[kFirstRowColumns[e]];
    values[kSecondRowAt + e] = r1[kSecondRowColumns[e]];
  }
  IntLanes fits = IntLanes{} - 1;
  for (int e = 0; e < kOversizedAt; ++e) {
    values[e] *= fixedScale;
    // Also false for not-a-number.
    fits &= (values[e] <= kEntryLimit) & (values[e] >= -kEntryLimit);
  }
  for (int e = 0; e < kOversizedAt; ++e) {
    // Truncation, the plain conversion: any fixed rule serves, as long as a
    // share is always the same number for the same rows.
    const Lanes safe = fits ? values[e] : Lanes{};
    out[e] = __builtin_convertvector(safe, IntLanes);
  }
  out[kOversizedAt] = fits ? IntLanes{} : IntLanes{} + 1;
  out[kOversizedAt + 1] = IntLanes{};
}

}  // namespace

void sensorRows(const LaneFrames& frames, const ShareScales& scales, const double point[3], LaneRows& out) {
  Lanes r0[6], r1[6];
  rows(frames, scales, point, r0, r1);
  for (int c = 0; c < 6; ++c) {
    store(out.value[c], r0[c]);
    store(out.value[6 + c], r1[c]);
  }
}

void exchangeShares(const LaneFrames& frames, const ShareScales& scales, const double removedPoint[3],
                    uint32_t removing, const double addedPoint[3], uint32_t adding, LaneSums& sums) {
  IntLanes removed[kShareSize], added[kShareSize];
  Lanes r0[6], r1[6];
  const IntLanes removeMask = laneMask(removing), addMask = laneMask(adding);
  if (removing != 0) {
    rows(frames, scales, removedPoint, r0, r1);
    share(r0, r1, scales.fixedScale, removed);
  }
  if (adding != 0) {
    rows(frames, scales, addedPoint, r0, r1);
    share(r0, r1, scales.fixedScale, added);
  }
  for (int e = 0; e < kShareSize; ++e) {
    const IntLanes old = loadInts(sums.entry[e]);
    const IntLanes less = removing != 0 ? removed[e] & removeMask : IntLanes{};
    const IntLanes more = adding != 0 ? added[e] & addMask : IntLanes{};
    storeInts(sums.entry[e], old - less + more);
  }
}

void solve(const LaneSums& sums, const ShareScales& scales, double pivotFloor, LaneSolve& out) {
  // The 1 / s2 is applied to the variances at the end.
  const double unit = 1.0 / scales.fixedScale;
  auto entry = [&](int e) { return __builtin_convertvector(loadInts(sums.entry[e]), Lanes) * unit; };
  Lanes a[6] = {}, b[6] = {};
  for (int e = 0; e < 5; ++e) {
    a[kFirstRowColumns[e]] = entry(kFirstRowAt + e);
    b[kSecondRowColumns[e]] = entry(kSecondRowAt + e);
  }
  Lanes A[6][6];
  A[0][1] = A[1][0] = -scales.sharedAngleShare * (a[0] * a[1] + b[0] * b[1]);
  for (int e = 0; e < kOuterEntries; ++e) {
    const int i = kOuterIndex[e][0], j = kOuterIndex[e][1];
    A[i][j] = A[j][i] = entry(e) - scales.sharedAngleShare * (a[i] * a[j] + b[i] * b[j]);
  }

  // LDL^T.
  Lanes L[6][6], d[6], inverseD[6];
  IntLanes solved = IntLanes{} - 1;
  for (int j = 0; j < 6; ++j) {
    Lanes LD[6];  // L[j][k] d[k]
    Lanes pivot = A[j][j];
    for (int k = 0; k < j; ++k) {
      LD[k] = L[j][k] * d[k];
      pivot -= L[j][k] * LD[k];
    }
    solved &= pivot > pivotFloor * A[j][j];
    d[j] = pivot;
    inverseD[j] = 1.0 / pivot;
    for (int i = j + 1; i < 6; ++i) {
      Lanes v = A[i][j];
      for (int k = 0; k < j; ++k) v -= L[i][k] * LD[k];
      L[i][j] = v * inverseD[j];
    }
  }
  // diag(A^-1) from the unit lower inverse: (A^-1)_ii = sum_r (L^-1)_ri^2 / d_r.
  Lanes variance[6];
  for (int i = 0; i < 6; ++i) {
    Lanes column[6];
    column[i] = broadcast(1.0);
    Lanes sum = inverseD[i];
    for (int r = i + 1; r < 6; ++r) {
      Lanes v = Lanes{};
      for (int k = i; k < r; ++k) v -= L[r][k] * column[k];
      column[r] = v;
      sum += v * v * inverseD[r];
    }
    variance[i] = sum * scales.angleVariance;
  }
  // The rotation columns were scaled up by rotationScale before the sums.
  const double rotationUnit = scales.rotationScale * scales.rotationScale;
  store(out.position, variance[0] + variance[1] + variance[2]);
  store(out.rotation, (variance[3] + variance[4] + variance[5]) * rotationUnit);
  for (int lane = 0; lane < kLanes; ++lane) out.solved[lane] = solved[lane] != 0;
}

}  // namespace sensorlay::SENSORLAY_LANES
