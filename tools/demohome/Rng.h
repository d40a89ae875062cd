// Deterministic random numbers for the demo home: the same start value gives
// the same home, byte for byte, on every machine.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace demohome {

// xoshiro256** seeded through splitmix64. Not for cryptography.
class Rng {
 public:
  explicit Rng(uint64_t start) {
    uint64_t x = start;
    for (auto& s : s_) s = splitmix(x);
  }

  // A derived, independent stream: each store draws from its own child so that
  // changing one store's drawing order leaves the others' bytes unchanged.
  Rng child(uint64_t salt) const { return Rng(s_[0] ^ (salt * 0x9E3779B97F4A7C15ULL) ^ s_[3]); }

  // Uniform 64-bit value.
  uint64_t next() {
    const uint64_t result = rotl(s_[1] * 5, 7) * 9;
    const uint64_t t = s_[1] << 17;
    s_[2] ^= s_[0];
    s_[3] ^= s_[1];
    s_[1] ^= s_[2];
    s_[0] ^= s_[3];
    s_[2] ^= t;
    s_[3] = rotl(s_[3], 45);
    return result;
  }

  // Uniform double in [0, 1).
  double uniform() { return static_cast<double>(next() >> 11) * 0x1.0p-53; }

  // Uniform integer in [lo, hi] (inclusive); lo when hi < lo.
  int64_t range(int64_t lo, int64_t hi) {
    if (hi <= lo) return lo;
    const uint64_t span = static_cast<uint64_t>(hi - lo) + 1;
    return lo + static_cast<int64_t>(next() % span);
  }

  // True with probability p.
  bool chance(double p) { return uniform() < p; }

  // An element of a non-empty vector.
  template <typename T>
  const T& pick(const std::vector<T>& v) {
    return v[static_cast<size_t>(next() % v.size())];
  }

  // Index drawn with a Zipf-like skew (weight 1/(i+1)^s) over n items; 0 when n is 0.
  size_t skewed(size_t n, double s = 1.0);

  // An upper-case RFC 4122 looking UUID (version 4 layout).
  std::string uuid();

  // n lower-case hexadecimal digits.
  std::string hex(size_t n);

 private:
  static uint64_t rotl(uint64_t x, int k) { return (x << k) | (x >> (64 - k)); }
  static uint64_t splitmix(uint64_t& x) {
    uint64_t z = (x += 0x9E3779B97F4A7C15ULL);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
    return z ^ (z >> 31);
  }
  uint64_t s_[4];
};

}  // namespace demohome
