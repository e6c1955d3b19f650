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

void store(double* p, Lanes v) { std::memcpy(p, &v, sizeof v); }
void storeInts(int64_t* p, IntLanes v) { std::memcpy(p, &v, sizeof v); }
Lanes broadcast(double x) { return Lanes{} + x; }

// Eight rows of eight numbers, each from its own place, as eight columns:
// out[j][lane] = row[lane][j].
template <class V, class T>
__attribute__((always_inline)) inline void transpose(const T* const row[kLanes], V out[kLanes]) {
  static_assert(kLanes == 8, "an 8 x 8 transpose");
#if defined(__clang__)
  // Without GCC's shuffle of two vectors by a vector of indices: element by
  // element.
  for (int j = 0; j < 8; ++j)
    for (int lane = 0; lane < 8; ++lane) out[j][lane] = row[lane][j];
#else
  V r[8];
#pragma GCC unroll 8
  for (int i = 0; i < 8; ++i) std::memcpy(&r[i], row[i], sizeof(V));
  const IntLanes low = {0, 8, 2, 10, 4, 12, 6, 14}, high = {1, 9, 3, 11, 5, 13, 7, 15};
  const IntLanes pairLow = {0, 1, 8, 9, 4, 5, 12, 13}, pairHigh = {2, 3, 10, 11, 6, 7, 14, 15};
  const IntLanes halfLow = {0, 1, 2, 3, 8, 9, 10, 11}, halfHigh = {4, 5, 6, 7, 12, 13, 14, 15};
  V t[8], u[8];
#pragma GCC unroll 4
  for (int i = 0; i < 8; i += 2) {
    t[i] = __builtin_shuffle(r[i], r[i + 1], low);
    t[i + 1] = __builtin_shuffle(r[i], r[i + 1], high);
  }
#pragma GCC unroll 2
  for (int i = 0; i < 8; i += 4) {
    u[i] = __builtin_shuffle(t[i], t[i + 2], pairLow);
    u[i + 1] = __builtin_shuffle(t[i], t[i + 2], pairHigh);
    u[i + 2] = __builtin_shuffle(t[i + 1], t[i + 3], pairLow);
    u[i + 3] = __builtin_shuffle(t[i + 1], t[i + 3], pairHigh);
  }
  // u[0] holds columns 0 and 4 of rows 0-3, u[1] 2 and 6, u[2] 1 and 5,
  // u[3] 3 and 7; u[4..7] the same of rows 4-7.
  const int first[4] = {0, 2, 1, 3};
#pragma GCC unroll 4
  for (int i = 0; i < 4; ++i) {
    out[first[i]] = __builtin_shuffle(u[i], u[i + 4], halfLow);
    out[first[i] + 4] = __builtin_shuffle(u[i], u[i + 4], halfHigh);
  }
#endif
}

// The frames' numbers as columns: F[i][lane] = frame[lane] number i.
void frameColumns(const LaneFrames& frames, Lanes F[40]) {
  for (int block = 0; block < 5; ++block) {
    const double* row[kLanes];
    for (int lane = 0; lane < kLanes; ++lane)
      row[lane] = reinterpret_cast<const double*>(frames.frame[lane]) + 8 * block;
    transpose(row, F + 8 * block);
  }
}

// The sums' entries as columns.
void sumColumns(const int64_t* const in[kLanes], IntLanes entry[kShareSize]) {
  for (int block = 0; block < kShareSize / 8; ++block) {
    const int64_t* row[kLanes];
    for (int lane = 0; lane < kLanes; ++lane) row[lane] = in[lane] + 8 * block;
    transpose(row, entry + 8 * block);
  }
}

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
__attribute__((always_inline)) inline void rows(const Lanes frame[40], const ShareScales& scales, const double point[3],
                                                Lanes r0[6], Lanes r1[6]) {
  const double px = point[0], py = point[1], pz = point[2];
  const double* t = scales.translation;
  auto F = [&](int i) { return frame[i]; };
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
__attribute__((always_inline)) inline void share(const Lanes r0[6], const Lanes r1[6], double fixedScale,
                                                 IntLanes out[kShareSize]) {
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

uint64_t mayFace(const double* blocks, int blockCount, const FacingLimit& limit) {
  uint64_t may = 0;
  for (int block = 0; block < blockCount; ++block) {
    const double* b = blocks + block * kFacingBlockSize;
    Lanes v[4];
    for (int c = 0; c < 4; ++c) std::memcpy(&v[c], b + c * kLanes, sizeof(Lanes));
    const Lanes dx = v[0] + limit.point[0], dy = v[1] + limit.point[1], dz = v[2] + limit.point[2];
    const Lanes facing = -(limit.normal[0] * dx + limit.normal[1] * dy + limit.normal[2] * dz);
    Lanes distance = dx * dx + dy * dy + dz * dz;
    for (int lane = 0; lane < kLanes; ++lane) distance[lane] = __builtin_sqrt(distance[lane]);
    // Not-a-number passes, to the exact test.
    const IntLanes pass = ~(facing < limit.threshold * distance) & (v[3] == 0.0);
    for (int lane = 0; lane < kLanes; ++lane) may |= static_cast<uint64_t>(pass[lane] & 1) << (block * kLanes + lane);
  }
  return may;
}

namespace {

// q p q*, in the order of the one-point rotation the visibility test uses.
__attribute__((always_inline)) inline void rotate(const Lanes q[4], const Lanes p[3], Lanes out[3]) {
  Lanes uv0 = q[2] * p[2] - q[3] * p[1];
  Lanes uv1 = q[3] * p[0] - q[1] * p[2];
  Lanes uv2 = q[1] * p[1] - q[2] * p[0];
  uv0 += uv0;
  uv1 += uv1;
  uv2 += uv2;
  out[0] = p[0] + q[0] * uv0;
  out[1] = p[1] + q[0] * uv1;
  out[2] = p[2] + q[0] * uv2;
  out[0] += q[2] * uv2 - q[3] * uv1;
  out[1] += q[3] * uv0 - q[1] * uv2;
  out[2] += q[1] * uv1 - q[2] * uv0;
}

}  // namespace

uint32_t facingRays(const double* const frame[kLanes], const FacingSensor& sensor, LaneDirections& directions) {
  Lanes columns[8];
  transpose(frame, columns);
  const Lanes* q = columns;
  const Lanes* conjugate = columns + 4;
  const Lanes point[3] = {broadcast(sensor.point[0]), broadcast(sensor.point[1]), broadcast(sensor.point[2])};
  const Lanes normal[3] = {broadcast(sensor.normal[0]), broadcast(sensor.normal[1]), broadcast(sensor.normal[2])};
  Lanes P[3], M[3];
  rotate(q, point, P);
  for (int c = 0; c < 3; ++c) P[c] += sensor.position[c];
  rotate(q, normal, M);
  Lanes length = P[0] * P[0] + P[1] * P[1] + P[2] * P[2];
  for (int lane = 0; lane < kLanes; ++lane) length[lane] = __builtin_sqrt(length[lane]);
  Lanes towards[3];
  for (int c = 0; c < 3; ++c) towards[c] = -P[c] / length;
  const IntLanes faces = M[0] * towards[0] + M[1] * towards[1] + M[2] * towards[2] > sensor.cosMaxIncidence;
  Lanes e[3];
  rotate(conjugate, towards, e);
  for (int c = 0; c < 3; ++c) {
    const auto single = __builtin_convertvector(e[c], float __attribute__((vector_size(kLanes * sizeof(float)))));
    std::memcpy(directions.value[c], &single, sizeof single);
  }
  uint32_t bits = 0;
  for (int lane = 0; lane < kLanes; ++lane) bits |= static_cast<uint32_t>(faces[lane] & 1) << lane;
  return bits;
}

namespace {

Lanes magnitude(Lanes x) {
  IntLanes bits;
  std::memcpy(&bits, &x, sizeof x);
  bits &= IntLanes{} + 0x7fffffffffffffff;
  std::memcpy(&x, &bits, sizeof x);
  return x;
}

// The steps of the one-view covarianceDiagonal, each lane on its own view.
template <int rows>
void covarianceOfRows(const double* W, long stride, const double* const jacobian[kLanes], LaneCovariance& out) {
  constexpr int blocks = (rows * 6 + kLanes - 1) / kLanes;
  Lanes J[blocks * kLanes];  // J[k * 6 + i] = J(k, i)
  for (int block = 0; block < blocks; ++block) {
    const double* row[kLanes];
    for (int lane = 0; lane < kLanes; ++lane) row[lane] = jacobian[lane] + block * kLanes;
    transpose(row, J + block * kLanes);
  }
  Lanes WT[6][rows];
  for (int i = 0; i < 6; ++i)
    for (int c = 0; c < rows; ++c) {
      const double* column = W + c * stride;
      Lanes sum = J[i] * column[0];
      for (int k = 1; k < rows; ++k) sum += J[k * 6 + i] * column[k];
      WT[i][c] = sum;
    }
  Lanes A[6][6];
  for (int i = 0; i < 6; ++i)
    for (int j = 0; j < 6; ++j) {
      Lanes sum = WT[i][0] * J[j];
      for (int k = 1; k < rows; ++k) sum += WT[i][k] * J[k * 6 + j];
      A[i][j] = sum;
    }

  // LU with partial pivoting, the choices made lane by lane.
  IntLanes permuted[6];
  IntLanes transposition[6];
  for (int k = 0; k < 6; ++k) {
    IntLanes p = IntLanes{} + k;
    Lanes biggest = magnitude(A[k][k]);
    for (int i = k + 1; i < 6; ++i) {
      const Lanes candidate = magnitude(A[i][k]);
      const IntLanes bigger = candidate > biggest;
      biggest = bigger ? candidate : biggest;
      p = bigger ? IntLanes{} + i : p;
    }
    transposition[k] = p;
    // Not-a-number is not zero either.
    const IntLanes pivoting = biggest != 0.0;
    for (int i = k + 1; i < 6; ++i) {
      const IntLanes swap = pivoting & (p == i);
      for (int j = 0; j < 6; ++j) {
        const Lanes a = A[k][j], b = A[i][j];
        A[k][j] = swap ? b : a;
        A[i][j] = swap ? a : b;
      }
    }
    for (int i = k + 1; i < 6; ++i) A[i][k] = pivoting ? A[i][k] / A[k][k] : A[i][k];
    for (int j = k + 1; j < 6; ++j)
      for (int i = k + 1; i < 6; ++i) A[i][j] -= A[k][j] * A[i][k];
  }
  for (int k = 0; k < 6; ++k) permuted[k] = IntLanes{} + k;
  for (int k = 5; k >= 0; --k) {
    const IntLanes kept = permuted[k];
    for (int m = k + 1; m < 6; ++m) {
      const IntLanes at = transposition[k] == m;
      permuted[k] = at ? permuted[m] : permuted[k];
      permuted[m] = at ? kept : permuted[m];
    }
  }

  for (int column = 0; column < 6; ++column) {
    Lanes x[6];
    for (int r = 0; r < 6; ++r) x[r] = permuted[column] == r ? broadcast(1.0) : Lanes{};
    for (int i = 0; i < 4; ++i)
      for (int r = i + 1; r < 4; ++r) x[r] -= x[i] * A[r][i];
    for (int r = 4; r < 6; ++r) {
      Lanes dot = Lanes{};
      for (int k = 0; k < 4; ++k) dot += A[r][k] * x[k];
      x[r] -= dot;
    }
    x[5] -= x[4] * A[5][4];
    for (int i = 5; i >= 2; --i) {
      x[i] *= 1.0 / A[i][i];
      for (int r = 2; r < i; ++r) x[r] -= x[i] * A[r][i];
    }
    for (int r = 0; r < 2; ++r) {
      Lanes dot = Lanes{};
      for (int k = 2; k < 6; ++k) dot += A[r][k] * x[k];
      x[r] -= dot;
    }
    x[1] *= 1.0 / A[1][1];
    x[0] -= x[1] * A[0][1];
    x[0] *= 1.0 / A[0][0];
    store(out.diagonal[column], x[column]);
  }
}

}  // namespace

void covariance(const double* information, long stride, const double* const jacobian[kLanes], int rows,
                LaneCovariance& out) {
  if (rows == 2) return covarianceOfRows<2>(information, stride, jacobian, out);
  if (rows == 4) return covarianceOfRows<4>(information, stride, jacobian, out);
  return covarianceOfRows<6>(information, stride, jacobian, out);
}

void sensorRows(const LaneFrames& frames, const ShareScales& scales, const double point[3], LaneRows& out) {
  Lanes F[40], r0[6], r1[6];
  frameColumns(frames, F);
  rows(F, scales, point, r0, r1);
  for (int c = 0; c < 6; ++c) {
    store(out.value[c], r0[c]);
    store(out.value[6 + c], r1[c]);
  }
}

namespace {

// exchangeShares, leaving the new sums as columns in `entry` too.
void exchangeColumns(const LaneFrames& frames, const ShareScales& scales, const double removedPoint[3],
                     uint32_t removing, const double addedPoint[3], uint32_t adding, const LaneSums& sums,
                     IntLanes entry[kShareSize]) {
  IntLanes removed[kShareSize], added[kShareSize];
  Lanes F[40], r0[6], r1[6];
  frameColumns(frames, F);
  const IntLanes removeMask = laneMask(removing), addMask = laneMask(adding);
  if (removing != 0) {
    rows(F, scales, removedPoint, r0, r1);
    share(r0, r1, scales.fixedScale, removed);
  }
  if (adding != 0) {
    rows(F, scales, addedPoint, r0, r1);
    share(r0, r1, scales.fixedScale, added);
  }
  sumColumns(sums.in, entry);
  for (int e = 0; e < kShareSize; ++e) {
    const IntLanes less = removing != 0 ? removed[e] & removeMask : IntLanes{};
    const IntLanes more = adding != 0 ? added[e] & addMask : IntLanes{};
    entry[e] = entry[e] - less + more;
  }
  // Back to the lanes' own sums: the transpose of the transpose.
  for (int block = 0; block < kShareSize / 8; ++block) {
    const int64_t* column[kLanes];
    for (int j = 0; j < kLanes; ++j) column[j] = reinterpret_cast<const int64_t*>(&entry[8 * block + j]);
    IntLanes row[kLanes];
    transpose(column, row);
    for (int lane = 0; lane < kLanes; ++lane) storeInts(sums.out[lane] + 8 * block, row[lane]);
  }
}

}  // namespace

void exchangeShares(const LaneFrames& frames, const ShareScales& scales, const double removedPoint[3],
                    uint32_t removing, const double addedPoint[3], uint32_t adding, const LaneSums& sums) {
  IntLanes entry[kShareSize];
  exchangeColumns(frames, scales, removedPoint, removing, addedPoint, adding, sums, entry);
}

namespace {

// The solve of sums standing as columns.
void solveColumns(const IntLanes sum[kShareSize], const ShareScales& scales, double pivotFloor, LaneSolve& out) {
  // The 1 / s2 is applied to the variances at the end.
  const double unit = 1.0 / scales.fixedScale;
  auto entry = [&](int e) { return __builtin_convertvector(sum[e], Lanes) * unit; };
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

}  // namespace

void solve(const LaneSums& sums, const ShareScales& scales, double pivotFloor, LaneSolve& out) {
  IntLanes sum[kShareSize];
  sumColumns(sums.in, sum);
  solveColumns(sum, scales, pivotFloor, out);
}

void exchangeAndSolve(const LaneFrames& frames, const ShareScales& scales, const double removedPoint[3],
                      uint32_t removing, const double addedPoint[3], uint32_t adding, const LaneSums& sums,
                      double pivotFloor, LaneSolve& out) {
  IntLanes entry[kShareSize];
  exchangeColumns(frames, scales, removedPoint, removing, addedPoint, adding, sums, entry);
  solveColumns(entry, scales, pivotFloor, out);
}

}  // namespace sensorlay::SENSORLAY_LANES
