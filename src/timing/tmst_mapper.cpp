#include "timing/tmst_mapper.hpp"

#include <algorithm>
#include <sstream>
#include <span>
#include <stdexcept>

#include "timing/bracket_line.hpp"

namespace pelmor_lusk {

const char* fit_reject_reason_name(std::uint32_t reason) {
  switch (reason) {
    case fit_reject_none: return "none";
    case fit_reject_anchor_window_reversed: return "anchor_window_reversed";
    case fit_reject_anchor_window_too_wide: return "anchor_window_too_wide";
    case fit_reject_non_monotonic_anchor: return "non_monotonic_anchor";
    case fit_reject_insufficient_anchors: return "insufficient_anchors";
    case fit_reject_insufficient_span: return "insufficient_span";
    case fit_reject_degenerate_fit: return "degenerate_fit";
    case fit_reject_prediction_overflow: return "prediction_overflow";
    case fit_reject_slope_out_of_range: return "slope_out_of_range";
    case fit_reject_bridge_window_too_wide: return "bridge_window_too_wide";
    case fit_reject_residual_too_large: return "residual_too_large";
    case fit_reject_sample_uncertainty_too_large: return "sample_uncertainty_too_large";
    default: return "unknown";
  }
}

bool TmstMapper::add_anchor(const TmstAnchor& anchor, std::uint64_t residual_limit_ns) {
  if (anchor.raw_after_ns < anchor.raw_before_ns) {
    last_rejected = fit;
    last_rejected.valid = false;
    last_rejected.reject_reason = fit_reject_anchor_window_reversed;
    return false;
  }
  const std::uint64_t half_window = anchor.half_window_ns();
  if (half_window > tmst_max_half_window_ns) {
    last_rejected = fit;
    last_rejected.valid = false;
    last_rejected.max_half_window_ns = std::max(fit.max_half_window_ns, half_window);
    last_rejected.reject_reason = fit_reject_anchor_window_too_wide;
    return false;
  }
  if (anchor_count > 0 && anchor.tick <= anchors[anchor_count - 1].tick) {
    last_rejected = fit;
    last_rejected.valid = false;
    last_rejected.anchors = anchor_count;
    last_rejected.reject_reason = fit_reject_non_monotonic_anchor;
    return false;
  }

  const auto saved_anchors = anchors;
  const std::uint32_t saved_count = anchor_count;
  const TmstFit saved_fit = fit;
  const bool was_full = anchor_count >= tmst_anchor_capacity;
  if (was_full) {
    std::copy(anchors.begin() + 1, anchors.end(), anchors.begin());
    anchors[tmst_anchor_capacity - 1] = anchor;
  } else {
    anchors[anchor_count] = anchor;
    anchor_count += 1;
  }

  if (refit(residual_limit_ns)) return true;
  const auto past_warm_up = [this] {
    return anchor_count > 3 && anchors[anchor_count - 1].tick - anchors[0].tick >= tmst_min_span_ticks;
  };
  if (last_rejected.reject_reason == fit_reject_residual_too_large) {
    const auto before_drop = anchors;
    const std::uint32_t count_before_drop = anchor_count;
    const TmstFit refused = last_rejected;
    if (drop_wide_anchor()) {
      if (refit(residual_limit_ns)) return true;
      last_rejected = refused;
      // Too few left to fit is warm-up, where going on without it is the point;
      // past warm-up the window stays as the refusal left it.
      if (past_warm_up()) {
        anchors = before_drop;
        anchor_count = count_before_drop;
      }
    }
  }

  if (past_warm_up()) {
    // Past warm-up the failure is real: the fit in force stays. A full window
    // deliberately keeps the shift, so a run of bad anchors ages out the old ones.
    fit = saved_fit;
    if (!was_full) {
      anchors = saved_anchors;
      anchor_count = saved_count;
    }
  }
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
  if (anchor_count < 3) return false;
  const std::uint32_t older = anchor_count - 1;  // the newest is never the one dropped
  std::uint32_t widest = 0;
  for (std::uint32_t i = 1; i < older; ++i) {
    if (anchors[i].half_window_ns() > anchors[widest].half_window_ns()) widest = i;
  }
  if (!wide_against(anchors[widest].half_window_ns(), median_half_window(anchors, anchor_count, widest))) return false;
  std::copy(anchors.begin() + widest + 1, anchors.begin() + anchor_count, anchors.begin() + widest);
  anchor_count -= 1;
  return true;
}

bool window_outshone_by(const TmstMapper& mapper, const TmstAnchor& fresh) noexcept {
  if (mapper.anchor_count == 0) return false;
  return wide_against(median_half_window(mapper.anchors, mapper.anchor_count, skip_none),
                      fresh.half_window_ns());
}

bool TmstMapper::refit(std::uint64_t residual_limit_ns) {
  fit = TmstFit{};
  TmstFit r{};
  const std::uint32_t n = std::min<std::uint32_t>(anchor_count, tmst_anchor_capacity);
  r.anchors = n;

  const auto reject = [&](std::uint32_t reason, bool fit_keeps_values) {
    r.valid = false;
    if (fit_keeps_values) fit = r;  // valid false, reason 0
    r.reject_reason = reason;
    last_rejected = r;
    return false;
  };

  if (n < tmst_min_fit_anchors) return reject(fit_reject_insufficient_anchors, false);
  r.first_tick = anchors[0].tick;
  r.last_tick = anchors[n - 1].tick;
  r.span_ticks = r.last_tick - r.first_tick;
  if (r.span_ticks < tmst_min_span_ticks) return reject(fit_reject_insufficient_span, false);

  binary128 sum_tick = 0;
  binary128 sum_mid = 0;
  for (std::uint32_t i = 0; i < n; ++i) {
    sum_tick += to_q(anchors[i].tick);
    sum_mid += to_q(anchors[i].midpoint_ns());
  }
  const binary128 count = to_q(static_cast<std::uint64_t>(n));
  const binary128 mean_tick = sum_tick / count;
  const binary128 mean_mid = sum_mid / count;
  r.mean_tick = mean_tick;

  binary128 sxx = 0;
  binary128 sxy = 0;
  for (std::uint32_t i = 0; i < n; ++i) {
    const binary128 dt = to_q(anchors[i].tick) - mean_tick;
    sxx += dt * dt;
    sxy += (to_q(anchors[i].midpoint_ns()) - mean_mid) * dt;
  }
  if (!(sxx > 0)) return reject(fit_reject_degenerate_fit, false);

  if (bracket_fit) {
    // Every gate below judges this line as it would the midpoint one.
    const BracketLine line = fit_bracket_line(std::span(anchors).first(n));
    if (!line.valid) return reject(fit_reject_degenerate_fit, false);
    r.slope_ns_per_tick = line.slope_ns_per_tick;
    r.intercept_ns = line.intercept_ns;
  } else {
    r.slope_ns_per_tick = sxy / sxx;
    r.intercept_ns = mean_mid - r.slope_ns_per_tick * mean_tick;
  }

  // The residual limit judges whether the anchors agree on a line: by the
  // distance from the midpoints. The bracket line may sit anywhere inside an
  // accepted bracket by design, so it judges the older anchors by how far it
  // passes outside theirs; otherwise a window filled while snapshots were
  // stretched would refuse every quick one after. The newest anchor is still
  // judged by its midpoint, so a stretched one is refused on arrival. The
  // stated uncertainty is built from the midpoint residual either way.
  std::uint64_t disagreement_ns = 0;
  for (std::uint32_t i = 0; i < n; ++i) {
    const std::uint64_t half_window = anchors[i].half_window_ns();
    r.max_half_window_ns = std::max(r.max_half_window_ns, half_window);
    const binary128 p = to_q(anchors[i].tick) * r.slope_ns_per_tick + r.intercept_ns;
    if (p < 0 || p > u64_max_q) return reject(fit_reject_prediction_overflow, false);
    const std::uint64_t residual = to_u64(abs_q(round_half_away_q(p) - to_q(anchors[i].midpoint_ns())));
    r.max_residual_ns = std::max(r.max_residual_ns, residual);
    const bool judged_by_bracket = bracket_fit && i + 1 < n;
    const std::uint64_t outside = !judged_by_bracket ? residual : residual > half_window ? residual - half_window : 0;
    disagreement_ns = std::max(disagreement_ns, outside);
  }

  r.slope_uncertainty_ns_per_tick =
      2 * (to_q(r.max_residual_ns) + to_q(r.max_half_window_ns)) / to_q(r.span_ticks);
  r.slope_error_ppm = (abs_q(r.slope_ns_per_tick - to_q(tmst_nominal_ns_per_tick)) + r.slope_uncertainty_ns_per_tick) /
                      to_q(tmst_nominal_ns_per_tick) * 1000000;

  if (r.slope_error_ppm > to_q(tmst_max_slope_error_ppm)) return reject(fit_reject_slope_out_of_range, true);
  if (r.max_half_window_ns > tmst_max_half_window_ns) return reject(fit_reject_bridge_window_too_wide, true);
  if (disagreement_ns > residual_limit_ns) return reject(fit_reject_residual_too_large, true);

  r.valid = true;
  r.reject_reason = fit_reject_none;
  fit = r;
  last_rejected = TmstFit{};
  return true;
}

std::uint64_t unwrap_tick(TmstUnwrapState& state, std::uint32_t raw_tick, std::uint64_t host_ns) {
  const std::uint32_t width = state.bit_width;
  if (width == 0 || width > 31) throw std::invalid_argument("timestamp bit width must be 1..31");
  const std::uint64_t modulus = std::uint64_t{1} << width;
  const std::uint64_t mask = modulus - 1;
  const std::uint64_t reading = raw_tick & mask;
  std::uint64_t result = reading;
  if (state.have_previous) {
    result = (state.previous & ~mask) | reading;
    if (result < state.previous) result += modulus;
    if (state.previous_host_ns != 0 && host_ns > state.previous_host_ns) {
      // Whole turns the counter made unseen: where the nominal rate puts the tick.
      const std::uint64_t expected = state.previous + (host_ns - state.previous_host_ns) / tmst_nominal_ns_per_tick;
      if (expected > result) result += (expected - result + modulus / 2 - 1) / modulus * modulus;
    }
    state.wrap_count += (result >> width) - (state.previous >> width);
  }
  state.previous = result;
  state.previous_host_ns = host_ns;
  state.have_previous = true;
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
  if (!bracket_fit || !fit.valid || tick <= fit.last_tick) return false;
  const std::uint64_t ahead = tick - fit.last_tick;
  return ahead >= tmst_early_anchor_min_ticks && ahead > fit.span_ticks / 4;
}

}  // namespace pelmor_lusk
