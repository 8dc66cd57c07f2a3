// Arithmetic of the timestamp-quality benchmark: the two yardstick estimators
// the library's mapped timestamps are compared with, the error statistics, and
// the matching of delivered samples to the board's ground truth. Pure: no clock,
// no device, no board.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace pelmor_lusk::bench {

// ---- Statistics --------------------------------------------------------------

struct ErrorStats {
  std::size_t count = 0;
  double mean_ns = 0;          // signed
  double median_abs_ns = 0;    // median of |e|, the mean of the two middle values for an even count
  std::int64_t p99_abs_ns = 0; // nearest rank
  std::int64_t max_abs_ns = 0;
};

ErrorStats summarize(std::span<const std::int64_t> errors_ns);

// ---- Unwrapping ----------------------------------------------------------------

// The value congruent to `value` modulo 2^bits that lies nearest `predicted`.
std::uint64_t unwrap_near(std::uint64_t predicted, std::uint64_t value, unsigned bits) noexcept;

// ---- Ground truth ----------------------------------------------------------------

struct TruthPoint {
  std::uint64_t raw_ns = 0;     // true instant of the sensor sample
  std::uint16_t low16 = 0;      // its FIFO timestamp field
};

// Finds, for a delivered sample, the truth point with the same FIFO timestamp
// field whose instant is nearest the sample's mapped time, and no further than
// `max_distance_ns` from it.
class TruthIndex {
 public:
  explicit TruthIndex(std::span<const TruthPoint> points);
  std::optional<std::size_t> match(std::uint16_t low16, std::uint64_t mapped_ns,
                                   std::uint64_t max_distance_ns) const;

 private:
  std::span<const TruthPoint> points_;
  std::vector<std::vector<std::size_t>> by_low16_;  // positions, by instant
};

// ---- (d) Convex-hull two-way estimator -----------------------------------------------

// One TMST latch: the counter value latched somewhere inside the SPI message that
// ran from raw_start_ns to raw_end_ns.
struct LatchBracket {
  std::uint64_t tick = 0;  // unwrapped
  std::uint64_t raw_start_ns = 0;
  std::uint64_t raw_end_ns = 0;
};

// A latch as the SPI log records it: the counter's low `bits` only.
struct LatchObservation {
  std::uint64_t counter = 0;
  std::uint64_t raw_start_ns = 0;
  std::uint64_t raw_end_ns = 0;
};

// Unwraps a time-ordered run of latches into brackets, taking each wrap count from
// the RAW time elapsed since the previous latch at the nominal 1 us per tick (good
// while the counter's drift over a gap stays far below half a wrap). The first
// latch is placed one wrap up, so that samples a little older unwrap above zero.
std::vector<LatchBracket> unwrap_latches(std::span<const LatchObservation> latches, unsigned bits);

// RAW(tick) = ref_raw_ns + offset_ns + slope * (tick - ref_tick).
struct TickLine {
  bool valid = false;
  std::uint64_t ref_tick = 0;
  std::uint64_t ref_raw_ns = 0;
  double slope_ns_per_tick = 0;
  double offset_ns = 0;

  double at(std::uint64_t tick) const noexcept;  // RAW ns, unrounded
};

struct HullLine : TickLine {
  bool consistent = false;  // one line passes through every bracket
  double slope_min = 0;     // the feasible slopes (after widening, if inconsistent)
  double slope_max = 0;
  double widening_ns = 0;   // how far every bracket had to grow on each side; 0 when consistent
};

// Lines that pass through every bracket form a convex set bounded by the lower
// hull of the bracket ends and the upper hull of the bracket starts. The estimate
// takes the middle of the feasible slopes, then the intercept centred between the
// two hulls at that slope. Brackets no single line can pass through are widened
// on both sides by the least amount that admits one (the maximum-separation line
// of the two hulls, whose separation is then negative). Needs two brackets with
// distinct ticks.
HullLine fit_bracket_hull(std::span<const LatchBracket> brackets);

// Least squares through the bracket midpoints, every bracket weighted alike (the
// library's method, without its gates), to compare the two on the same brackets.
// Needs two brackets with distinct ticks.
TickLine fit_midpoint_line(std::span<const LatchBracket> brackets);

// The same, each midpoint weighted by the inverse square of its half window, the
// half window taken as at least floor_ns.
TickLine fit_weighted_midpoint_line(std::span<const LatchBracket> brackets, double floor_ns);

// ---- (c) Interrupt interpolation -------------------------------------------------------

struct InterruptInput {
  std::uint64_t sensor_position = 0;  // sensor samples since some origin (FIFO count)
  std::uint64_t event_raw_ns = 0;     // the interrupt stamp paired with the sample
};

struct InterpolationSettings {
  std::size_t batch_samples = 4;      // delivered samples read per interrupt
  std::size_t period_window = 8;      // interrupts the period is averaged over
  double nominal_period_ns = 0;       // used until two interrupts have been seen
};

// The timestamps an interrupt-driven FIFO driver assigns: every batch_samples-th
// sample raises the interrupt and is read together with those before it; the
// newest gets the interrupt stamp and each older one is dated back by the number
// of sensor samples after it times the period, the period being the change of
// interrupt stamp over the sensor samples between interrupts, averaged over the
// last period_window interrupts. Samples after the last interrupt get none.
std::vector<std::optional<double>> interpolate_from_interrupts(std::span<const InterruptInput> samples,
                                                               const InterpolationSettings& settings);

// ---- Allocation attribution -----------------------------------------------------------------

// Ordinary least squares y = X b (rows of `columns` predictors); empty when the
// normal equations are singular.
std::vector<double> least_squares(std::span<const double> x_rows, std::size_t columns, std::span<const double> y);

}  // namespace pelmor_lusk::bench
