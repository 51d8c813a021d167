#include "sim/Rng.h"

#include "framework/core/Exception.h"

namespace Sim {

namespace {

uint64_t splitmix64(uint64_t& x) {
  uint64_t z = (x += 0x9e3779b97f4a7c15ull);
  z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ull;
  z = (z ^ (z >> 27)) * 0x94d049bb133111ebull;
  return z ^ (z >> 31);
}

uint64_t rotl(uint64_t x, int k) { return (x << k) | (x >> (64 - k)); }

}  // namespace

Rng::Rng(uint64_t seed) {
  for (uint64_t& word : s_) word = splitmix64(seed);
}

Rng Rng::fromState(std::array<uint64_t, 4> const& state) {
  Rng rng(0);
  rng.s_ = state;
  return rng;
}

uint64_t Rng::next() {
  uint64_t const result = rotl(s_[1] * 5, 7) * 9;
  uint64_t const t = s_[1] << 17;
  s_[2] ^= s_[0];
  s_[3] ^= s_[1];
  s_[1] ^= s_[2];
  s_[0] ^= s_[3];
  s_[2] ^= t;
  s_[3] = rotl(s_[3], 45);
  return result;
}

uint64_t Rng::below(uint64_t n) {
  if (n == 0) Vesk::throwRangeException("Sim::Rng::below needs a positive bound");
  // Draws below `threshold` would make the low residues more likely; 2^64 mod n of them.
  uint64_t const threshold = (0 - n) % n;
  for (;;) {
    uint64_t const r = next();
    if (r >= threshold) return r % n;
  }
}

double Rng::unit() { return double(next() >> 11) * 0x1.0p-53; }

double Rng::uniform(double lo, double hi) { return lo + (hi - lo) * unit(); }

bool Rng::chance(double p) { return unit() < p; }

}  // namespace Sim
