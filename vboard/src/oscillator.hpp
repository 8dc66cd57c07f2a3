// The sensor's oscillator: the TMST counter (nominally 1 tick per us) and the
// ODR grid both derive from it. Counter ticks as a function of CLOCK_MONOTONIC_RAW
// are a constant drift plus a slow sinusoidal wander, integrated in closed form so
// that the instant of any tick can be solved for exactly.
#pragma once

#include <cmath>
#include <cstdint>

namespace pelmor_vboard::detail {

struct Oscillator {
  std::uint64_t epoch_raw = 0;     // phase reference of the wander
  std::uint64_t base_raw = 0;      // start of the current segment
  double base_ticks = 0.0;         // fractional unwrapped ticks at base_raw
  double drift = 0.0;              // ppm * 1e-6
  double wander = 0.0;             // amplitude ppm * 1e-6
  double wander_period_ns = 600e9;

  static constexpr double two_pi = 6.283185307179586;

  double phase(std::int64_t from_epoch_ns) const {
    return two_pi * static_cast<double>(from_epoch_ns) / wander_period_ns;
  }

  // Wander contribution in ns of "oscillator time" between base_raw and base_raw + x.
  double wander_ns(double x) const {
    if (wander == 0.0) return 0.0;
    const double p0 = phase(static_cast<std::int64_t>(base_raw - epoch_raw));
    const double p1 = p0 + two_pi * x / wander_period_ns;
    return wander * wander_period_ns / two_pi * (std::cos(p0) - std::cos(p1));
  }

  double ticks_at(std::uint64_t raw) const {
    const double x = static_cast<double>(static_cast<std::int64_t>(raw - base_raw));
    return base_ticks + (x * (1.0 + drift) + wander_ns(x)) / 1000.0;
  }

  // Nearest RAW nanosecond at which the counter reaches `ticks`.
  std::uint64_t raw_at(double ticks) const {
    const double target = (ticks - base_ticks) * 1000.0;
    double x = target / (1.0 + drift);
    if (wander != 0.0) {
      const double p0 = phase(static_cast<std::int64_t>(base_raw - epoch_raw));
      for (int i = 0; i < 4; ++i) {
        const double f = x * (1.0 + drift) + wander_ns(x) - target;
        const double slope = 1.0 + drift + wander * std::sin(p0 + two_pi * x / wander_period_ns);
        x -= f / slope;
      }
    }
    return base_raw + static_cast<std::uint64_t>(std::llround(x));
  }

  // Continue from `raw` with new parameters; the counter stays continuous.
  void rebase(std::uint64_t raw, double new_drift, double new_wander, double new_period_ns) {
    base_ticks = ticks_at(raw);
    base_raw = raw;
    drift = new_drift;
    wander = new_wander;
    wander_period_ns = new_period_ns > 0.0 ? new_period_ns : 600e9;
  }
};

}  // namespace pelmor_vboard::detail
