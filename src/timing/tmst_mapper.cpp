#include "timing/tmst_mapper.hpp"

#include <algorithm>
#include <sstream>
#include <span>
#include <stdexcept>

#include "timing/bracket_line.hpp"
#include "timing/line_spread.hpp"
#include "timing/tmst_mapping.hpp"

namespace pelmor_lusk {

const char* fit_reject_reason_name(FitRejectReason reason) noexcept {
  switch (reason) {
    case FitRejectReason::none: return "none";
    case FitRejectReason::anchor_window_reversed: return "anchor_window_reversed";
    case FitRejectReason::anchor_window_too_wide: return "anchor_window_too_wide";
    case FitRejectReason::non_monotonic_anchor: return "non_monotonic_anchor";
    case FitRejectReason::insufficient_anchors: return "insufficient_anchors";
    case FitRejectReason::insufficient_span: return "insufficient_span";
    case FitRejectReason::degenerate_fit: return "degenerate_fit";
    case FitRejectReason::prediction_overflow: return "prediction_overflow";
    case FitRejectReason::slope_out_of_range: return "slope_out_of_range";
    case FitRejectReason::bridge_window_too_wide: return "bridge_window_too_wide";
    case FitRejectReason::residual_too_large: return "residual_too_large";
    case FitRejectReason::sample_uncertainty_too_large: return "sample_uncertainty_too_large";
  }
  return "unknown";
}

bool TmstMapper::refuse(FitRejectReason reason) noexcept {
  last_rejected_ = fit_;
  last_rejected_.valid = false;
  last_rejected_.reject_reason = reason;
  return false;
}

TmstAnchor narrowed_to_latch(const TmstAnchor& anchor, const LatchMargins& latch) noexcept {
  if (anchor.raw_after_ns < anchor.raw_before_ns) return anchor;
  if (anchor.raw_after_ns - anchor.raw_before_ns < latch.before_ns + latch.after_ns) return anchor;
  return TmstAnchor{anchor.tick, anchor.raw_before_ns + latch.before_ns, anchor.raw_after_ns - latch.after_ns};
}

bool TmstMapper::add_anchor(const TmstAnchor& offered, std::uint64_t residual_limit_ns) {
  const TmstAnchor anchor = bracket_fit_ ? narrowed_to_latch(offered, latch_) : offered;
  if (anchor.raw_after_ns < anchor.raw_before_ns) return refuse(FitRejectReason::anchor_window_reversed);
  const std::uint64_t half_window = anchor.half_window_ns();
  if (half_window > tmst_max_half_window_ns) {
    refuse(FitRejectReason::anchor_window_too_wide);
    last_rejected_.max_half_window_ns = std::max(fit_.max_half_window_ns, half_window);
    return false;
  }
  if (count_ > 0 && anchor.tick <= anchors_[count_ - 1].tick) {
    refuse(FitRejectReason::non_monotonic_anchor);
    last_rejected_.anchors = count_;
    return false;
  }

  const auto saved_anchors = anchors_;
  const std::uint32_t saved_count = count_;
  const TmstFit saved_fit = fit_;
  const bool was_full = count_ >= tmst_anchor_capacity;
  if (was_full) {
    std::copy(anchors_.begin() + 1, anchors_.end(), anchors_.begin());
    anchors_[tmst_anchor_capacity - 1] = anchor;
  } else {
    anchors_[count_] = anchor;
    count_ += 1;
  }

  if (refit(residual_limit_ns)) return true;
  const auto past_warm_up = [this] {
    return count_ > 3 && anchors_[count_ - 1].tick - anchors_[0].tick >= tmst_min_span_ticks;
  };
  if (last_rejected_.reject_reason == FitRejectReason::residual_too_large) {
    const auto before_drop = anchors_;
    const std::uint32_t count_before_drop = count_;
    const TmstFit refused = last_rejected_;
    if (drop_wide_anchor()) {
      if (refit(residual_limit_ns)) return true;
      last_rejected_ = refused;
      // Too few left to fit is warm-up, where going on without it is the point;
      // past warm-up the window stays as the refusal left it.
      if (past_warm_up()) {
        anchors_ = before_drop;
        count_ = count_before_drop;
      }
    }
  }

  if (past_warm_up()) {
    // Past warm-up the failure is real: the fit in force stays. A full window
    // deliberately keeps the shift, so a run of bad anchors ages out the old ones.
    fit_ = saved_fit;
    if (!was_full) {
      anchors_ = saved_anchors;
      count_ = saved_count;
    }
  }
  return false;
}

bool TmstMapper::add_anchor_gated(const TmstAnchor& anchor, std::uint64_t tick,
                                  std::uint64_t measurement_uncertainty_ns) {
  TmstMapper candidate = *this;
  if (!candidate.add_anchor(anchor, tmst_refresh_residual_limit_ns)) {
    last_rejected_ = candidate.last_rejected_;
    return false;
  }
  if (map_tmst_to_raw(candidate.fit_, tick, measurement_uncertainty_ns).valid) {
    *this = candidate;
    return true;
  }
  // A wide anchor's half window counts in every mapping while it stays.
  TmstMapper narrowed = candidate;
  if (narrowed.drop_wide_anchor() && narrowed.refit(tmst_refresh_residual_limit_ns) &&
      map_tmst_to_raw(narrowed.fit_, tick, measurement_uncertainty_ns).valid) {
    *this = narrowed;
    return true;
  }
  last_rejected_ = candidate.fit_;
  last_rejected_.valid = false;
  last_rejected_.reject_reason = FitRejectReason::sample_uncertainty_too_large;
  return false;
}

namespace {

// No anchor's index: median_half_window then leaves none out.
constexpr std::uint32_t skip_none = tmst_anchor_capacity;

// The median half window of the first count anchors, leaving out the one at skip.
std::uint64_t median_half_window(const std::array<TmstAnchor, tmst_anchor_capacity>& anchors, std::uint32_t count,
                                 std::uint32_t skip) noexcept {
  std::array<std::uint64_t, tmst_anchor_capacity> halves{};
  std::uint32_t n = 0;
  for (std::uint32_t i = 0; i < count; ++i) {
    if (i != skip) halves[n++] = anchors[i].half_window_ns();
  }
  const auto middle = halves.begin() + n / 2;
  std::nth_element(halves.begin(), middle, halves.begin() + n);
  return *middle;
}

bool wide_against(std::uint64_t half_window_ns, std::uint64_t reference_ns) noexcept {
  return half_window_ns > tmst_wide_anchor_min_half_window_ns && half_window_ns > tmst_wide_anchor_ratio * reference_ns;
}

}  // namespace

bool TmstMapper::drop_wide_anchor() {
  if (count_ < 3) return false;
  const std::uint32_t older = count_ - 1;  // the newest is never the one dropped
  std::uint32_t widest = 0;
  for (std::uint32_t i = 1; i < older; ++i) {
    if (anchors_[i].half_window_ns() > anchors_[widest].half_window_ns()) widest = i;
  }
  if (!wide_against(anchors_[widest].half_window_ns(), median_half_window(anchors_, count_, widest))) return false;
  std::copy(anchors_.begin() + widest + 1, anchors_.begin() + count_, anchors_.begin() + widest);
  count_ -= 1;
  return true;
}

bool TmstMapper::outshone_by(const TmstAnchor& fresh) const noexcept {
  if (count_ == 0) return false;
  const TmstAnchor judged = bracket_fit_ ? narrowed_to_latch(fresh, latch_) : fresh;
  return wide_against(median_half_window(anchors_, count_, skip_none), judged.half_window_ns());
}

namespace {

// The line through the anchors into r (mean_tick, slope, intercept): least
// squares through the midpoints, or the bracket line. False when degenerate.
bool fit_line(std::span<const TmstAnchor> anchors, bool bracket_fit, TmstFit& r, bool& brackets_agree) {
  binary128 sum_tick = 0;
  binary128 sum_mid = 0;
  for (const TmstAnchor& a : anchors) {
    sum_tick += to_q(a.tick);
    sum_mid += to_q(a.midpoint_ns());
  }
  const binary128 count = to_q(static_cast<std::uint64_t>(anchors.size()));
  const binary128 mean_tick = sum_tick / count;
  const binary128 mean_mid = sum_mid / count;
  r.mean_tick = mean_tick;

  binary128 sxx = 0;
  binary128 sxy = 0;
  for (const TmstAnchor& a : anchors) {
    const binary128 dt = to_q(a.tick) - mean_tick;
    sxx += dt * dt;
    sxy += (to_q(a.midpoint_ns()) - mean_mid) * dt;
  }
  if (!(sxx > 0)) return false;

  if (bracket_fit) {
    // Every gate judges this line as it would the midpoint one.
    const BracketLine line = fit_bracket_line(anchors);
    if (!line.valid) return false;
    brackets_agree = !(line.widening_ns > 0);
    r.slope_ns_per_tick = line.slope_ns_per_tick;
    r.intercept_ns = line.intercept_ns;
  } else {
    r.slope_ns_per_tick = sxy / sxx;
    r.intercept_ns = mean_mid - r.slope_ns_per_tick * mean_tick;
  }
  return true;
}

// The largest half window and midpoint residual into r, and how far the
// anchors disagree with the line; false when a prediction leaves the u64 range.
//
// The residual limit judges whether the anchors agree on a line: by the
// distance from the midpoints. The bracket line may sit anywhere inside an
// accepted bracket by design, so it judges the older anchors by how far it
// passes outside theirs; otherwise a window filled while snapshots were
// stretched would refuse every quick one after. The newest anchor is still
// judged by its midpoint, so a stretched one is refused on arrival. The
// stated uncertainty is built from the midpoint residual either way.
bool measure_residuals(std::span<const TmstAnchor> anchors, bool bracket_fit, TmstFit& r,
                       std::uint64_t& disagreement_ns) {
  disagreement_ns = 0;
  for (std::size_t i = 0; i < anchors.size(); ++i) {
    const std::uint64_t half_window = anchors[i].half_window_ns();
    r.max_half_window_ns = std::max(r.max_half_window_ns, half_window);
    const binary128 p = to_q(anchors[i].tick) * r.slope_ns_per_tick + r.intercept_ns;
    if (p < 0 || p > u64_max_q) return false;
    const std::uint64_t residual = to_u64(abs_q(round_half_away_q(p) - to_q(anchors[i].midpoint_ns())));
    r.max_residual_ns = std::max(r.max_residual_ns, residual);
    const bool judged_by_bracket = bracket_fit && i + 1 < anchors.size();
    const std::uint64_t outside = !judged_by_bracket ? residual : residual > half_window ? residual - half_window : 0;
    disagreement_ns = std::max(disagreement_ns, outside);
  }
  return true;
}

}  // namespace

bool TmstMapper::refit(std::uint64_t residual_limit_ns) {
  fit_ = TmstFit{};
  TmstFit r{};
  const std::uint32_t n = std::min<std::uint32_t>(count_, tmst_anchor_capacity);
  r.anchors = n;

  const auto reject = [&](FitRejectReason reason, bool fit_keeps_values) {
    r.valid = false;
    if (fit_keeps_values) fit_ = r;  // valid false, reason none
    r.reject_reason = reason;
    last_rejected_ = r;
    return false;
  };

  if (n < tmst_min_fit_anchors) return reject(FitRejectReason::insufficient_anchors, false);
  r.first_tick = anchors_[0].tick;
  r.last_tick = anchors_[n - 1].tick;
  r.span_ticks = r.last_tick - r.first_tick;
  if (r.span_ticks < tmst_min_span_ticks) return reject(FitRejectReason::insufficient_span, false);

  const std::span<const TmstAnchor> window = anchors();
  bool brackets_agree = false;
  if (!fit_line(window, bracket_fit_, r, brackets_agree)) return reject(FitRejectReason::degenerate_fit, false);
  std::uint64_t disagreement_ns = 0;
  if (!measure_residuals(window, bracket_fit_, r, disagreement_ns)) {
    return reject(FitRejectReason::prediction_overflow, false);
  }

  r.slope_uncertainty_ns_per_tick =
      2 * (to_q(r.max_residual_ns) + to_q(r.max_half_window_ns)) / to_q(r.span_ticks);
  r.slope_error_ppm = (abs_q(r.slope_ns_per_tick - to_q(tmst_nominal_ns_per_tick)) + r.slope_uncertainty_ns_per_tick) /
                      to_q(tmst_nominal_ns_per_tick) * 1000000;

  if (r.slope_error_ppm > to_q(tmst_max_slope_error_ppm)) return reject(FitRejectReason::slope_out_of_range, true);
  if (r.max_half_window_ns > tmst_max_half_window_ns) return reject(FitRejectReason::bridge_window_too_wide, true);
  if (disagreement_ns > residual_limit_ns) return reject(FitRejectReason::residual_too_large, true);

  r.valid = true;
  r.reject_reason = FitRejectReason::none;
  fit_ = r;
  last_rejected_ = TmstFit{};
  brackets_agree_ = brackets_agree;
  return true;
}

std::uint64_t TmstUnwrap::unwrap(std::uint32_t raw_tick, std::uint64_t host_ns) {
  const std::uint32_t width = bit_width_;
  if (width == 0 || width > 31) throw std::invalid_argument("timestamp bit width must be 1..31");
  const std::uint64_t modulus = std::uint64_t{1} << width;
  const std::uint64_t mask = modulus - 1;
  const std::uint64_t reading = raw_tick & mask;
  std::uint64_t result = reading;
  if (have_previous_) {
    result = (previous_ & ~mask) | reading;
    if (result < previous_) result += modulus;
    if (previous_host_ns_ != 0 && host_ns > previous_host_ns_) {
      // Whole turns the counter made unseen: where the nominal rate puts the tick.
      const std::uint64_t expected = previous_ + (host_ns - previous_host_ns_) / tmst_nominal_ns_per_tick;
      if (expected > result) result += (expected - result + modulus / 2 - 1) / modulus * modulus;
    }
    wrap_count_ += (result >> width) - (previous_ >> width);
  }
  previous_ = result;
  previous_host_ns_ = host_ns;
  have_previous_ = true;
  return result;
}

std::string format_fit_diagnostic(const TmstFit& fit) {
  std::ostringstream out;
  out << "reason=" << fit_reject_reason_name(fit.reject_reason) << ", anchors=" << fit.anchors
      << ", span_ticks=" << fit.span_ticks << ", slope_ns_per_tick=" << to_double(fit.slope_ns_per_tick)
      << ", slope_error_ppm=" << to_double(fit.slope_error_ppm) << ", max_half_window_ns=" << fit.max_half_window_ns
      << ", max_residual_ns=" << fit.max_residual_ns;
  return out.str();
}

bool TmstMapper::wants_early_anchor(std::uint64_t tick) const noexcept {
  if (!bracket_fit_ || !fit_.valid || tick <= fit_.last_tick) return false;
  const std::uint64_t ahead = tick - fit_.last_tick;
  return ahead >= tmst_early_anchor_min_ticks && ahead > fit_.span_ticks / tmst_early_anchor_span_divisor;
}

std::span<const UpperBound> TmstMapper::upper_bounds_in_window() const noexcept {
  // Bounds older than the window's first anchor speak of a stretch of the clock
  // the line no longer covers.
  std::size_t first = 0;
  while (first < bound_count_ && count_ > 0 && bounds_[first].tick < anchors_[0].tick) ++first;
  return std::span(bounds_).subspan(first, bound_count_ - first);
}

std::optional<TightMapping> TmstMapper::bound_sample(std::uint64_t tick, std::uint64_t stamp_ns) {
  if (!bracket_fit_ || !fit_.valid || !brackets_agree_) return std::nullopt;
  LineSpread spread = line_spread_at(anchors(), upper_bounds_in_window(), tick);
  if (!spread.feasible) return std::nullopt;
  // A stamp below every line the brackets allow is on the wrong side of the
  // truth (a mispaired or spurious edge): it stays out.
  const binary128 stamp = to_q(stamp_ns);
  if (!(stamp < spread.low_ns) && (bound_count_ == 0 || tick > bounds_[bound_count_ - 1].tick)) {
    if (bound_count_ == bounds_.size()) {
      std::copy(bounds_.begin() + 1, bounds_.end(), bounds_.begin());
      bound_count_ -= 1;
    }
    bounds_[bound_count_++] = UpperBound{tick, stamp_ns};
    if (stamp < spread.high_ns) spread.high_ns = stamp;
  }
  // Half a nanosecond of rounding and one tick of quantization, at the fitted
  // tick length, ride on the half-width.
  const binary128 middle = (spread.low_ns + spread.high_ns) / 2;
  const binary128 half = (spread.high_ns - spread.low_ns) / 2;
  const binary128 us = ceil_q((half + 1 + ceil_q(fit_.slope_ns_per_tick)) / 1000);
  if (!(spread.low_ns > 0) || !(middle < to_q(std::uint64_t{UINT64_MAX})) || !(us < to_q(std::uint64_t{UINT32_MAX}))) {
    return std::nullopt;
  }
  return TightMapping{to_u64(round_half_away_q(middle)), static_cast<std::uint32_t>(to_u64(us))};
}

}  // namespace pelmor_lusk
