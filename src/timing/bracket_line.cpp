#include "timing/bracket_line.hpp"

#include <array>

namespace pelmor_lusk {

namespace {

// Brackets relative to the oldest anchor, so that the products stay small.
struct Brackets {
  std::array<binary128, tmst_anchor_capacity> x{}, lo{}, hi{};
  std::size_t n = 0;
};

// How far the brackets' lower ends rise above their upper ends along slope b,
// split by direction: through an older upper end and a newer lower end (falls
// as b grows), and through an older lower end and a newer upper end (rises).
struct Excess {
  binary128 falling, rising;
};

Excess excess_at(const Brackets& s, binary128 b) {
  binary128 min_hi = s.hi[0] - b * s.x[0];
  binary128 max_lo = s.lo[0] - b * s.x[0];
  Excess e{s.lo[0] - s.hi[0], s.lo[0] - s.hi[0]};
  for (std::size_t k = 1; k < s.n; ++k) {
    const binary128 lo = s.lo[k] - b * s.x[k];
    const binary128 hi = s.hi[k] - b * s.x[k];
    if (lo - min_hi > e.falling) e.falling = lo - min_hi;
    if (max_lo - hi > e.rising) e.rising = max_lo - hi;
    if (hi < min_hi) min_hi = hi;
    if (lo > max_lo) max_lo = lo;
  }
  return e;
}

}  // namespace

BracketLine fit_bracket_line(std::span<const TmstAnchor> anchors) {
  BracketLine line;
  if (anchors.size() < 2 || anchors.size() > tmst_anchor_capacity) return line;
  Brackets s;
  s.n = anchors.size();
  const std::uint64_t ref_tick = anchors[0].tick;
  const binary128 ref_raw = to_q(anchors[0].raw_before_ns);
  for (std::size_t k = 0; k < s.n; ++k) {
    if (k > 0 && anchors[k].tick <= anchors[k - 1].tick) return line;
    s.x[k] = to_q(anchors[k].tick - ref_tick);
    s.lo[k] = to_q(anchors[k].raw_before_ns) - ref_raw;
    s.hi[k] = to_q(anchors[k].raw_after_ns) - ref_raw;
  }

  // A line through brackets l < k has a slope within
  // [(lo_k - hi_l) / dx, (hi_k - lo_l) / dx]; one within every such range
  // admits a common intercept.
  binary128 slope_min = 0, slope_max = 0;
  for (std::size_t k = 1; k < s.n; ++k) {
    for (std::size_t l = 0; l < k; ++l) {
      const binary128 dx = s.x[k] - s.x[l];
      const binary128 low = (s.lo[k] - s.hi[l]) / dx;
      const binary128 high = (s.hi[k] - s.lo[l]) / dx;
      if ((k == 1 && l == 0) || low > slope_min) slope_min = low;
      if ((k == 1 && l == 0) || high < slope_max) slope_max = high;
    }
  }

  binary128 b = (slope_min + slope_max) / 2;
  if (slope_min > slope_max) {
    // The widening needed is the larger excess; falling and rising cross
    // between slope_max and slope_min, where it is least.
    binary128 left = slope_max, right = slope_min;
    for (int step = 0; step < 96; ++step) {
      const binary128 mid = (left + right) / 2;
      if (!(mid > left && mid < right)) break;
      const Excess e = excess_at(s, mid);
      if (e.falling > e.rising) {
        left = mid;
      } else {
        right = mid;
      }
    }
    b = (left + right) / 2;
  }

  binary128 low = s.lo[0], high = s.hi[0];
  for (std::size_t k = 1; k < s.n; ++k) {
    if (s.lo[k] - b * s.x[k] > low) low = s.lo[k] - b * s.x[k];
    if (s.hi[k] - b * s.x[k] < high) high = s.hi[k] - b * s.x[k];
  }
  line.slope_ns_per_tick = b;
  line.intercept_ns = ref_raw + (low + high) / 2 - b * to_q(ref_tick);
  line.widening_ns = low > high ? (low - high) / 2 : binary128{0};
  line.valid = true;
  return line;
}

}  // namespace pelmor_lusk
