#include "timing/line_spread.hpp"

#include <array>

namespace pelmor_lusk {

namespace {

// One constraint relative to the tick and to a RAW reference: lo <= line(x) <= hi.
struct Slab {
  binary128 x = 0;
  binary128 lo = 0;
  binary128 hi = 0;
  bool has_lo = false;
};

inline constexpr std::size_t max_slabs = tmst_anchor_capacity + tmst_upper_bound_capacity;

}  // namespace

LineSpread line_spread_at(std::span<const TmstAnchor> anchors, std::span<const UpperBound> bounds,
                          std::uint64_t tick) {
  LineSpread spread;
  std::array<Slab, max_slabs> s{};
  std::size_t n = 0;
  if (anchors.empty()) return spread;
  const binary128 at = to_q(tick);
  const binary128 ref = to_q(anchors[0].raw_before_ns);
  for (const TmstAnchor& a : anchors) {
    if (n == max_slabs) break;
    s[n++] = Slab{to_q(a.tick) - at, to_q(a.raw_before_ns) - ref, to_q(a.raw_after_ns) - ref, true};
  }
  for (const UpperBound& b : bounds) {
    if (n == max_slabs) break;
    s[n++] = Slab{to_q(b.tick) - at, 0, to_q(b.raw_ns) - ref, false};
  }

  bool have_high = false, have_low = false;
  binary128 high = 0, low = 0;
  const auto lower_high = [&](binary128 v) {
    if (!have_high || v < high) high = v;
    have_high = true;
  };
  const auto raise_low = [&](binary128 v) {
    if (!have_low || v > low) low = v;
    have_low = true;
  };
  for (std::size_t k = 0; k < n; ++k) {
    if (s[k].x == 0) {
      lower_high(s[k].hi);
      if (s[k].has_lo) raise_low(s[k].lo);
    }
    for (std::size_t l = 0; l < n; ++l) {
      if (!(s[k].x < s[l].x)) continue;
      const Slab& p = s[k];  // the earlier tick
      const Slab& q = s[l];
      const binary128 dx = q.x - p.x;
      if (q.x <= 0) {
        // Past both: the steepest line bounds the top, the flattest the bottom.
        if (p.has_lo) lower_high(q.hi + (q.hi - p.lo) * -q.x / dx);
        if (q.has_lo) raise_low(q.lo + (q.lo - p.hi) * -q.x / dx);
      } else if (p.x >= 0) {
        // Before both.
        if (q.has_lo) lower_high(p.hi + (p.hi - q.lo) * p.x / dx);
        if (p.has_lo) raise_low(p.lo - (q.hi - p.lo) * p.x / dx);
      } else {
        // Between: the chords of the bracket ends.
        lower_high(p.hi + (q.hi - p.hi) * -p.x / dx);
        if (p.has_lo && q.has_lo) raise_low(p.lo + (q.lo - p.lo) * -p.x / dx);
      }
    }
  }
  if (!have_high || !have_low || high < low) return spread;
  spread.feasible = true;
  spread.low_ns = ref + low;
  spread.high_ns = ref + high;
  return spread;
}

}  // namespace pelmor_lusk
