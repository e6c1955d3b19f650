#pragma once
// Uniform draws made by hand from MT19937 outputs, so that a seed yields the
// same sequence whatever standard library the program is built with.

#include <cstdint>
#include <random>

namespace sensorlay {

// One output as a 32-bit float divided by 2^32; rounding can make it 1.0.
inline float drawUnitFloat(std::mt19937& g) { return static_cast<float>(g()) / 4294967296.0f; }

// Two outputs, the second worth 2^32 times the first, over 2^64.
inline double drawUnitDouble(std::mt19937& g) {
  const double g0 = static_cast<double>(g());
  const double g1 = static_cast<double>(g());
  return (g0 + g1 * 4294967296.0) / 18446744073709551616.0;
}

inline float drawFloat(std::mt19937& g, float low, float high) { return drawUnitFloat(g) * (high - low) + low; }

inline double drawDouble(std::mt19937& g, double low, double high) { return drawUnitDouble(g) * (high - low) + low; }

// A whole number in [low, high]. A range of one value takes no output; an
// output from the incomplete last block of the 32-bit range is drawn again.
inline int32_t drawInteger(std::mt19937& g, int32_t low, int32_t high) {
  const uint32_t range = static_cast<uint32_t>(static_cast<int64_t>(high) - low) + 1u;
  if (range <= 1u) return low;
  const uint32_t mask = 0xFFFFFFFFu;
  uint32_t r;
  do {
    r = static_cast<uint32_t>(g());
  } while (r / range >= mask / range && mask % range != range - 1u);
  return static_cast<int32_t>(static_cast<int64_t>(low) + r % range);
}

// The seed of the generators that must differ from run to run: the clock's
// seconds plus the process id, as a 32-bit sum.
uint32_t clockSeed();

}  // namespace sensorlay
