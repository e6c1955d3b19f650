#pragma once
// The fast score's arithmetic on eight samples at once, one per lane of a
// vector: a sensor's share of each sample's information matrix in fixed
// point, and the 6 x 6 solve of each sample's sum. Every lane goes through
// the same operations in the same order, without fused multiply-adds, so that
// a sample's numbers do not depend on its lane, its neighbours or the vector
// width; only the time does. The functions use the widest vectors the
// processor has (quality/lane_kernels.h, built once per width).

#include <cstdint>

namespace sensorlay {

constexpr int kLanes = 8;

// A sensor's share of a sample's information matrix in fixed point: the upper
// triangle of r0 r0^T + r1 r1^T without the (0, 1) entry, then r0 and r1
// without their zero entries (r0 has none in y, r1 none in x), then a count
// of shares too large for the fixed point, and padding to 32.
constexpr int kShareSize = 32;
constexpr int kOuterEntries = 20;
constexpr int kFirstRowAt = 20;
constexpr int kSecondRowAt = 25;
constexpr int kOversizedAt = 30;

// The largest fixed-point entry of one share: 64 of them still fit in 63 bits.
constexpr double kEntryLimit = 72057594037927936.0;  // 2^56

// The station-frame rotation R(omega) of a sample's rotation vector, formed
// the way the Jacobian forms it, and its derivatives with respect to the
// vector's three numbers: derivative[i * 9 + c * 3 + j] = d(R e_i)_c /
// d omega_j. A sensor's place R p + t and its derivatives are linear in p, so
// these serve every sensor of a sample.
struct StationRotation {
  double rotation[9];  // row-major
  double derivative[27];
  double padding[4] = {0.0, 0.0, 0.0, 0.0};  // to a whole number of vectors of kLanes
};
StationRotation stationRotation(const double rotationVector[3]);

// The two rows of the two-sweep station's Jacobian for a sensor at `point`,
// atan2(-z, x) and atan2(-z, -y) of X = R p + t, in closed form: columns 0 to
// 2 the translation, 3 to 5 the rotation vector; r0 = rows[0..5], r1 =
// rows[6..11]. One sensor at a time, as the lanes do it without the scale.
void twoSweepRows(const StationRotation& frame, const double translation[3], const double point[3], double rows[12]);

// What turns rows into shares and sums back into a matrix.
struct ShareScales {
  double translation[3] = {0.0, 0.0, 0.0};  // the device's position before the station
  // Rotation columns are multiplied by this power of two before the sums,
  // so that both kinds of column have the same size in fixed point.
  double rotationScale = 1.0;
  double fixedScale = 1.0;  // fixed point = value * fixedScale, a power of two
  // The noise model's s2 and g (quality/placement_score.h).
  double angleVariance = 0.0;
  double sharedAngleShare = 0.0;
};

// The samples of the lanes: each lane's station frame, and its sums (a
// share's kShareSize entries), read where they stand. Unused lanes repeat a
// used one; the sums written for them go to a place of their own.
struct LaneFrames {
  const StationRotation* frame[kLanes];
};
struct LaneSums {
  const int64_t* in[kLanes];
  int64_t* out[kLanes];
};

// The two rows of the two-sweep station's Jacobian of a sensor at `point` in
// each lane's frame, atan2(-z, x) and atan2(-z, -y) of X = R p + t in closed
// form, columns 0 to 2 the translation and 3 to 5 the rotation vector, the
// latter times rotationScale: rows[c][lane] for c < 6, rows[6 + c][lane].
struct alignas(64) LaneRows {
  double value[12][kLanes];
};
void sensorRowLanes(const LaneFrames& frames, const ShareScales& scales, const double point[3], LaneRows& rows);

// out = in - (lane in `removing`: share at removedPoint) + (lane in
// `adding`: share at addedPoint), bits of lanes in the masks. Exact: the
// shares are whole numbers. `out` may be `in`.
void exchangeShareLanes(const LaneFrames& frames, const ShareScales& scales, const double removedPoint[3],
                        uint32_t removing, const double addedPoint[3], uint32_t adding, const LaneSums& sums);

// The uncertainty of each lane's sum (sums.in), A = (S - g (a a^T + b b^T)) / s2 with
// S the sum of the rows' outer products and a, b the sums of the first and
// the second rows, by LDL^T: position[lane] the sum of the three position
// variances, rotation[lane] that of the rotation variances in radians.
// solved[lane] is false where a pivot fell to `pivotFloor` of its diagonal
// entry or below: the columns are close to dependent there, and the numbers
// are not to be used.
struct alignas(64) LaneSolve {
  double position[kLanes];
  double rotation[kLanes];
  bool solved[kLanes];
};
void solveLanes(const LaneSums& sums, const ShareScales& scales, double pivotFloor, LaneSolve& out);
// exchangeShareLanes, then solveLanes of the sums it wrote, in one pass.
void exchangeAndSolveLanes(const LaneFrames& frames, const ShareScales& scales, const double removedPoint[3],
                           uint32_t removing, const double addedPoint[3], uint32_t adding, const LaneSums& sums,
                           double pivotFloor, LaneSolve& out);

// The incidence pre-test of one sensor on samples held in blocks of eight:
// each block the translations in object coordinates as three columns (x, y,
// z of its eight samples), then a column that is not 0 for a skipped sample.
// A bit of the result is clear only where the sensor is certainly beyond the
// limit, n . -(p + v) < threshold |p + v|, or the sample is skipped.
constexpr int kFacingBlockSize = 4 * kLanes;
struct FacingLimit {
  double point[3];
  double normal[3];
  double threshold;  // the incidence limit less a margin for rounding
};
uint64_t mayFaceLanes(const double* blocks, int blockCount, const FacingLimit& limit);

// The exact incidence test of the visibility test and the direction of its
// ray for a sensor at `point` with `normal`, in up to kLanes samples at once,
// each giving the very numbers the one-sample steps give: frame[lane] points
// to the sample's quaternion (w x y z) followed by its conjugate, normalised.
// Bit `lane` of the result is set where the sensor faces the station.
struct FacingSensor {
  double point[3];
  double normal[3];
  double position[3];  // the device's, before the station
  double cosMaxIncidence;
};
struct alignas(64) LaneDirections {
  float value[3][kLanes];
};
uint32_t facingLanes(const double* const frame[kLanes], const FacingSensor& sensor, LaneDirections& directions);

// covarianceDiagonal (quality/score_scratch.h) of up to kLanes views of the
// same even number of rows, at most 6, bit for bit: jacobian[lane] points to
// a view's row-major rows, in kCovarianceJacobianSize doubles, and
// information to the noise information, column-major with `stride`.
constexpr int kCovarianceJacobianSize = 40;
struct alignas(64) LaneCovariance {
  double diagonal[6][kLanes];
};
void covarianceLanes(const double* information, long stride, const double* const jacobian[kLanes], int rows,
                     LaneCovariance& out);

// The vector widths the kernels are built for. The widest the processor has
// is used; a test may ask for a narrower one, which must give the same bits.
enum class LaneWidth { Base, Avx2, Avx512 };
// Uses the kernels of `width` from now on; false, with nothing changed, when
// they are not built or the processor lacks them. Not while a score runs.
bool useLaneKernels(LaneWidth width);
LaneWidth laneKernelsInUse();

}  // namespace sensorlay
