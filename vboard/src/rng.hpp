// Deterministic random draws for the board's noise; one stream per board reset.
#pragma once

#include <cmath>
#include <cstdint>

namespace pelmor_vboard::detail {

class Rng {
 public:
  explicit Rng(std::uint64_t seed = 1) noexcept : state_(seed) {}

  std::uint64_t next() noexcept {  // splitmix64
    std::uint64_t z = (state_ += 0x9E3779B97F4A7C15ULL);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
    return z ^ (z >> 31);
  }
  // [0, 1)
  double uniform() noexcept { return static_cast<double>(next() >> 11) * 0x1.0p-53; }
  double exponential(double mean) noexcept { return mean <= 0.0 ? 0.0 : -mean * std::log1p(-uniform()); }
  bool chance(double probability) noexcept { return probability > 0.0 && uniform() < probability; }
  std::uint64_t between(std::uint64_t lo, std::uint64_t hi) noexcept {
    if (hi <= lo) return lo;
    return lo + static_cast<std::uint64_t>(uniform() * static_cast<double>(hi - lo));
  }

 private:
  std::uint64_t state_;
};

}  // namespace pelmor_vboard::detail
