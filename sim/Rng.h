// Sim::Rng: the simulator's one source of randomness, identical on every platform.
//
// A 64-bit seed is expanded by splitmix64 into the state of a xoshiro256** generator. Every
// derived draw (below, uniform, chance) is computed here rather than through the standard
// library's distributions, whose results differ between implementations, so a seed replays
// the same run anywhere.
//
// TYPICAL USAGE:
//   Sim::Rng rng(42);
//   uint64_t pick = rng.below(10);          // 0..9, unbiased
//   Seconds latency = rng.uniform(0.05, 0.5);
//   if (rng.chance(0.1)) ...                // true with probability 0.1
//
// below(0) throws Vesk::RangeException; uniform(lo, hi) needs lo <= hi.
#pragma once

#include <array>
#include <cstdint>

namespace Sim {

class Rng {
 public:
  explicit Rng(uint64_t seed = 0);
  // A generator with the given xoshiro256** state (not all zero), bypassing the seeding.
  static Rng fromState(std::array<uint64_t, 4> const& state);

  uint64_t next();
  // Uniform in [0, n).
  uint64_t below(uint64_t n);
  // Uniform in [0, 1) with 53 bits of precision.
  double unit();
  // Uniform in [lo, hi); lo when lo == hi.
  double uniform(double lo, double hi);
  // True with probability p: never for p <= 0, always for p >= 1. Takes one draw either way.
  bool chance(double p);

 private:
  std::array<uint64_t, 4> s_{};
};

}  // namespace Sim
