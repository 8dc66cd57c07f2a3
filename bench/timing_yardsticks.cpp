#include "timing_yardsticks.hpp"

#include <algorithm>
#include <cmath>
#include <limits>

namespace pelmor_lusk::bench {

// ---- Statistics --------------------------------------------------------------

ErrorStats summarize(std::span<const std::int64_t> errors_ns) {
  ErrorStats s;
  s.count = errors_ns.size();
  if (s.count == 0) return s;
  std::vector<std::int64_t> magnitudes;
  magnitudes.reserve(s.count);
  double sum = 0;
  for (const std::int64_t e : errors_ns) {
    sum += static_cast<double>(e);
    magnitudes.push_back(e < 0 ? -e : e);
  }
  std::sort(magnitudes.begin(), magnitudes.end());
  s.mean_ns = sum / static_cast<double>(s.count);
  const std::size_t mid = s.count / 2;
  s.median_abs_ns = s.count % 2 == 1
                        ? static_cast<double>(magnitudes[mid])
                        : (static_cast<double>(magnitudes[mid - 1]) + static_cast<double>(magnitudes[mid])) / 2;
  // Nearest rank: the smallest value with at least 99 % of the set at or below it.
  const std::size_t rank = std::max<std::size_t>(1, (99 * s.count + 99) / 100);
  s.p99_abs_ns = magnitudes[rank - 1];
  s.max_abs_ns = magnitudes.back();
  return s;
}

// ---- Unwrapping ----------------------------------------------------------------

std::uint64_t unwrap_near(std::uint64_t predicted, std::uint64_t value, unsigned bits) noexcept {
  const std::uint64_t modulus = std::uint64_t{1} << bits;
  const std::uint64_t mask = modulus - 1;
  value &= mask;
  std::uint64_t candidate = (predicted & ~mask) | value;
  // Of the three neighbours in the congruence class, keep the nearest.
  if (candidate > predicted && candidate - predicted > modulus / 2 && candidate >= modulus) {
    candidate -= modulus;
  } else if (candidate < predicted && predicted - candidate > modulus / 2 &&
             candidate <= std::numeric_limits<std::uint64_t>::max() - modulus) {
    candidate += modulus;
  }
  return candidate;
}

// ---- Ground truth ----------------------------------------------------------------

TruthIndex::TruthIndex(std::span<const TruthPoint> points) : points_(points), by_low16_(65536) {
  for (std::size_t i = 0; i < points.size(); ++i) by_low16_[points[i].low16].push_back(i);
  for (auto& positions : by_low16_) {
    std::sort(positions.begin(), positions.end(),
              [&](std::size_t a, std::size_t b) { return points_[a].raw_ns < points_[b].raw_ns; });
  }
}

std::optional<std::size_t> TruthIndex::match(std::uint16_t low16, std::uint64_t mapped_ns,
                                             std::uint64_t max_distance_ns) const {
  const auto& positions = by_low16_[low16];
  const auto after = std::lower_bound(positions.begin(), positions.end(), mapped_ns,
                                      [&](std::size_t p, std::uint64_t t) { return points_[p].raw_ns < t; });
  std::optional<std::size_t> best;
  std::uint64_t best_distance = 0;
  const auto consider = [&](std::size_t p) {
    const std::uint64_t t = points_[p].raw_ns;
    const std::uint64_t d = t > mapped_ns ? t - mapped_ns : mapped_ns - t;
    if (d <= max_distance_ns && (!best || d < best_distance)) {
      best = p;
      best_distance = d;
    }
  };
  if (after != positions.end()) consider(*after);
  if (after != positions.begin()) consider(*(after - 1));
  return best;
}

// ---- (d) Convex-hull two-way estimator -----------------------------------------------

std::vector<LatchBracket> unwrap_latches(std::span<const LatchObservation> latches, unsigned bits) {
  std::vector<LatchBracket> out;
  out.reserve(latches.size());
  const std::uint64_t mask = (std::uint64_t{1} << bits) - 1;
  for (const LatchObservation& l : latches) {
    std::uint64_t tick = (l.counter & mask) + mask + 1;
    if (!out.empty()) {
      const std::uint64_t elapsed_ticks = (l.raw_start_ns - out.back().raw_start_ns) / 1000;
      tick = unwrap_near(out.back().tick + elapsed_ticks, l.counter, bits);
    }
    out.push_back({tick, l.raw_start_ns, l.raw_end_ns});
  }
  return out;
}

double TickLine::at(std::uint64_t tick) const noexcept {
  const double dx = static_cast<double>(static_cast<std::int64_t>(tick - ref_tick));
  return static_cast<double>(ref_raw_ns) + (offset_ns + slope_ns_per_tick * dx);
}

namespace {

struct Centered {
  double x, lo, hi;
};

struct SlopeRange {
  bool feasible = false;
  double min = 0, max = 0;
};

// Slopes of the lines through every bracket shrunk by `shrink` on each side (a
// negative shrink widens). Pairwise: a line through brackets i and j with
// x_i < x_j has a slope within [(lo_j - hi_i) / dx, (hi_j - lo_i) / dx], and a
// slope within every such range admits a common intercept.
SlopeRange feasible_slopes(const std::vector<Centered>& points, double shrink) {
  SlopeRange r;
  r.min = -std::numeric_limits<double>::infinity();
  r.max = std::numeric_limits<double>::infinity();
  for (const Centered& p : points) {
    if (p.hi - p.lo < 2 * shrink) return r;
  }
  for (std::size_t i = 0; i < points.size(); ++i) {
    for (std::size_t j = 0; j < points.size(); ++j) {
      const Centered& a = points[i];
      const Centered& b = points[j];
      if (i == j || b.x < a.x) continue;
      if (b.x == a.x) {
        if (b.lo + shrink > a.hi - shrink) return r;
        continue;
      }
      const double dx = b.x - a.x;
      r.max = std::min(r.max, ((b.hi - shrink) - (a.lo + shrink)) / dx);
      r.min = std::max(r.min, ((b.lo + shrink) - (a.hi - shrink)) / dx);
    }
  }
  r.feasible = std::isfinite(r.min) && std::isfinite(r.max) && r.min <= r.max;
  return r;
}

}  // namespace

HullLine fit_bracket_hull(std::span<const LatchBracket> brackets) {
  HullLine line;
  if (brackets.size() < 2) return line;
  line.ref_tick = brackets.back().tick;
  line.ref_raw_ns = brackets.back().raw_start_ns;
  std::vector<Centered> points;
  points.reserve(brackets.size());
  for (const LatchBracket& b : brackets) {
    points.push_back({static_cast<double>(static_cast<std::int64_t>(b.tick - line.ref_tick)),
                      static_cast<double>(static_cast<std::int64_t>(b.raw_start_ns - line.ref_raw_ns)),
                      static_cast<double>(static_cast<std::int64_t>(b.raw_end_ns - line.ref_raw_ns))});
  }
  const bool distinct_ticks = std::any_of(points.begin(), points.end(), [&](const Centered& p) {
    return p.x != points.front().x;
  });
  if (!distinct_ticks) return line;

  double shrink = 0;
  SlopeRange range = feasible_slopes(points, 0);
  line.consistent = range.feasible;
  if (!range.feasible) {
    // Widen until a line fits, then bisect towards the least widening.
    double infeasible = 0;
    double feasible = -1000;
    for (int doubling = 0; doubling < 48 && !feasible_slopes(points, feasible).feasible; ++doubling) {
      infeasible = feasible;
      feasible *= 2;
    }
    range = feasible_slopes(points, feasible);
    if (!range.feasible) return line;
    for (int step = 0; step < 200 && infeasible - feasible > 1e-6; ++step) {
      const double mid = (feasible + infeasible) / 2;
      const SlopeRange r = feasible_slopes(points, mid);
      if (r.feasible) {
        feasible = mid;
        range = r;
      } else {
        infeasible = mid;
      }
    }
    shrink = feasible;
    line.widening_ns = -shrink;
  }

  line.slope_min = range.min;
  line.slope_max = range.max;
  line.slope_ns_per_tick = (range.min + range.max) / 2;
  double low = -std::numeric_limits<double>::infinity();
  double high = std::numeric_limits<double>::infinity();
  for (const Centered& p : points) {
    low = std::max(low, p.lo + shrink - line.slope_ns_per_tick * p.x);
    high = std::min(high, p.hi - shrink - line.slope_ns_per_tick * p.x);
  }
  line.offset_ns = (low + high) / 2;
  line.valid = true;
  return line;
}

namespace {

// Weighted least squares through the midpoints; weight(half window in ns).
template <class Weight>
TickLine midpoint_line(std::span<const LatchBracket> brackets, Weight weight) {
  TickLine line;
  if (brackets.size() < 2) return line;
  line.ref_tick = brackets.back().tick;
  line.ref_raw_ns = brackets.back().raw_start_ns;
  const auto x_of = [&](const LatchBracket& b) {
    return static_cast<double>(static_cast<std::int64_t>(b.tick - line.ref_tick));
  };
  const auto y_of = [&](const LatchBracket& b) {
    return (static_cast<double>(static_cast<std::int64_t>(b.raw_start_ns - line.ref_raw_ns)) +
            static_cast<double>(static_cast<std::int64_t>(b.raw_end_ns - line.ref_raw_ns))) /
           2;
  };
  double sum_w = 0, mean_x = 0, mean_y = 0;
  for (const LatchBracket& b : brackets) sum_w += weight(static_cast<double>(b.raw_end_ns - b.raw_start_ns) / 2);
  for (const LatchBracket& b : brackets) {
    const double w = weight(static_cast<double>(b.raw_end_ns - b.raw_start_ns) / 2) / sum_w;
    mean_x += w * x_of(b);
    mean_y += w * y_of(b);
  }
  double sxx = 0, sxy = 0;
  for (const LatchBracket& b : brackets) {
    const double w = weight(static_cast<double>(b.raw_end_ns - b.raw_start_ns) / 2);
    const double dx = x_of(b) - mean_x;
    sxx += w * dx * dx;
    sxy += w * dx * (y_of(b) - mean_y);
  }
  if (sxx <= 0) return line;
  line.slope_ns_per_tick = sxy / sxx;
  line.offset_ns = mean_y - line.slope_ns_per_tick * mean_x;
  line.valid = true;
  return line;
}

}  // namespace

TickLine fit_midpoint_line(std::span<const LatchBracket> brackets) {
  return midpoint_line(brackets, [](double) { return 1.0; });
}

TickLine fit_weighted_midpoint_line(std::span<const LatchBracket> brackets, double floor_ns) {
  return midpoint_line(brackets, [floor_ns](double half) {
    const double h = std::max({half, floor_ns, 1.0});
    return 1.0 / (h * h);
  });
}

// ---- (c) Interrupt interpolation -------------------------------------------------------

std::vector<std::optional<double>> interpolate_from_interrupts(std::span<const InterruptInput> samples,
                                                               const InterpolationSettings& settings) {
  std::vector<std::optional<double>> out(samples.size());
  const std::size_t batch = std::max<std::size_t>(1, settings.batch_samples);
  const std::size_t window = std::max<std::size_t>(1, settings.period_window);
  std::vector<std::size_t> interrupts;  // positions in `samples` of the interrupting samples
  for (std::size_t end = batch; end <= samples.size(); end += batch) {
    const std::size_t newest = end - 1;
    interrupts.push_back(newest);
    double period = settings.nominal_period_ns;
    if (interrupts.size() > 1) {
      const std::size_t back = std::min(window, interrupts.size() - 1);
      const InterruptInput& from = samples[interrupts[interrupts.size() - 1 - back]];
      const InterruptInput& to = samples[newest];
      if (to.sensor_position > from.sensor_position) {
        period = (static_cast<double>(to.event_raw_ns) - static_cast<double>(from.event_raw_ns)) /
                 static_cast<double>(to.sensor_position - from.sensor_position);
      }
    }
    const InterruptInput& irq = samples[newest];
    for (std::size_t i = end - batch; i <= newest; ++i) {
      const double after = static_cast<double>(irq.sensor_position) - static_cast<double>(samples[i].sensor_position);
      out[i] = static_cast<double>(irq.event_raw_ns) - after * period;
    }
  }
  return out;
}

// ---- Allocation attribution -----------------------------------------------------------------

std::vector<double> least_squares(std::span<const double> x_rows, std::size_t columns, std::span<const double> y) {
  const std::size_t n = columns;
  if (n == 0 || x_rows.size() != y.size() * n) return {};
  // Normal equations [X'X | X'y], solved with partial pivoting.
  std::vector<double> m(n * (n + 1), 0.0);
  for (std::size_t r = 0; r < y.size(); ++r) {
    const double* row = &x_rows[r * n];
    for (std::size_t i = 0; i < n; ++i) {
      for (std::size_t j = 0; j < n; ++j) m[i * (n + 1) + j] += row[i] * row[j];
      m[i * (n + 1) + n] += row[i] * y[r];
    }
  }
  for (std::size_t c = 0; c < n; ++c) {
    std::size_t pivot = c;
    for (std::size_t r = c + 1; r < n; ++r) {
      if (std::fabs(m[r * (n + 1) + c]) > std::fabs(m[pivot * (n + 1) + c])) pivot = r;
    }
    if (std::fabs(m[pivot * (n + 1) + c]) < 1e-9) return {};
    if (pivot != c) {
      for (std::size_t k = 0; k <= n; ++k) std::swap(m[c * (n + 1) + k], m[pivot * (n + 1) + k]);
    }
    for (std::size_t r = 0; r < n; ++r) {
      if (r == c) continue;
      const double f = m[r * (n + 1) + c] / m[c * (n + 1) + c];
      for (std::size_t k = c; k <= n; ++k) m[r * (n + 1) + k] -= f * m[c * (n + 1) + k];
    }
  }
  std::vector<double> b(n);
  for (std::size_t i = 0; i < n; ++i) b[i] = m[i * (n + 1) + n] / m[i * (n + 1) + i];
  return b;
}

}  // namespace pelmor_lusk::bench
