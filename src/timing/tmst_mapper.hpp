// TMST-to-RAW anchor window and its least-squares line, all in binary128.
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "common/quad.hpp"

namespace pelmor_lusk {

// No narrower fallback: every fit and mapping runs in IEEE binary128.
static_assert(binary128_mantissa_bits == 113 && sizeof(binary128) == 16);

enum FitRejectReason : std::uint32_t {
  fit_reject_none = 0,
  fit_reject_anchor_window_reversed = 1,
  fit_reject_anchor_window_too_wide = 2,
  fit_reject_non_monotonic_anchor = 3,
  fit_reject_insufficient_anchors = 4,
  fit_reject_insufficient_span = 5,
  fit_reject_degenerate_fit = 6,
  fit_reject_prediction_overflow = 7,
  fit_reject_slope_out_of_range = 8,
  fit_reject_bridge_window_too_wide = 9,
  fit_reject_residual_too_large = 10,
  fit_reject_sample_uncertainty_too_large = 11,
};

const char* fit_reject_reason_name(std::uint32_t reason);

inline constexpr std::size_t tmst_anchor_capacity = 16;
inline constexpr std::uint32_t tmst_min_fit_anchors = 4;
inline constexpr std::uint64_t tmst_min_span_ticks = 10000;
inline constexpr std::uint64_t tmst_max_half_window_ns = 100000;
inline constexpr std::uint64_t tmst_nominal_ns_per_tick = 1000;
inline constexpr std::uint64_t tmst_max_slope_error_ppm = 100000;
inline constexpr std::uint64_t tmst_establish_residual_limit_ns = 50000;
inline constexpr std::uint64_t tmst_refresh_residual_limit_ns = 75000;

// A bracket stretched by preemption but still under the half-window gate may
// hold its latch anywhere inside it, far off the line its peers agree on. Such
// an anchor is "wide" when its half window is above this floor (below it, a
// bracket cannot break the establishment residual limit by itself) and more
// than this many times the median of the other anchors' half windows.
inline constexpr std::uint64_t tmst_wide_anchor_min_half_window_ns = 25000;
inline constexpr std::uint64_t tmst_wide_anchor_ratio = 3;
// Early anchors are taken no closer together than this.
inline constexpr std::uint64_t tmst_early_anchor_min_ticks = 80000;

struct TmstAnchor {
  std::uint64_t tick = 0;
  std::uint64_t raw_before_ns = 0;
  std::uint64_t raw_after_ns = 0;

  std::uint64_t midpoint_ns() const noexcept { return raw_before_ns + (raw_after_ns - raw_before_ns) / 2; }
  // Rounded up; written so that a full-range window cannot wrap.
  std::uint64_t half_window_ns() const noexcept {
    const std::uint64_t width = raw_after_ns - raw_before_ns;
    return width / 2 + width % 2;
  }
};

struct TmstFit {
  bool valid = false;
  std::uint32_t anchors = 0;
  binary128 slope_ns_per_tick = 0;
  binary128 intercept_ns = 0;
  binary128 mean_tick = 0;
  binary128 slope_uncertainty_ns_per_tick = 0;
  binary128 slope_error_ppm = 0;
  std::uint64_t first_tick = 0;
  std::uint64_t last_tick = 0;
  std::uint64_t span_ticks = 0;
  std::uint64_t max_half_window_ns = 0;
  std::uint64_t max_residual_ns = 0;
  std::uint32_t reject_reason = 0;  // FitRejectReason
};

struct TmstMapper {
  std::array<TmstAnchor, tmst_anchor_capacity> anchors{};  // oldest first
  std::uint32_t anchor_count = 0;
  TmstFit fit{};
  TmstFit last_rejected{};
  // Opt-in: the line through every anchor's bracket (fit_bracket_line) instead
  // of least squares through the midpoints.
  bool bracket_fit = false;
  // The last fresh anchor offered was refused although the window is wide
  // against it (window_outshone_by): only a rebuilt map can take it in. Cleared
  // when an anchor joins.
  bool outshone = false;

  // Inserts the anchor and refits; true when the resulting fit is valid. Once the
  // map is past its warm-up a failing anchor never replaces the fit in force.
  // When the fit is refused for its residual and an older anchor is wide, that
  // anchor leaves instead, so one preempted snapshot cannot poison the window.
  bool add_anchor(const TmstAnchor& anchor, std::uint64_t residual_limit_ns);
  // Removes the widest anchor other than the newest when it is wide (see above);
  // true when one was removed. The fit is left as it was.
  bool drop_wide_anchor();
  // Fits the stored anchors; true when every gate passes.
  bool refit(std::uint64_t residual_limit_ns);
  // With the bracket fit only: a fresh anchor is worth taking before the
  // periodic one, because tick lies further past the newest anchor than a
  // quarter of the fitted span (the slope's error grows with that distance).
  bool wants_early_anchor(std::uint64_t tick) const noexcept;
};

// True when the window's anchors are wide against fresh: their median half
// window is above the wide floor and more than the wide ratio times fresh's.
// Such a window was built while every snapshot was stretched; refreshes judged
// against it refuse precise anchors, so it would never heal by itself.
bool window_outshone_by(const TmstMapper& mapper, const TmstAnchor& fresh) noexcept;

struct TmstUnwrapState {
  std::uint32_t bit_width = 20;
  bool have_previous = false;
  std::uint64_t previous = 0;
  std::uint64_t wrap_count = 0;
  std::uint64_t previous_host_ns = 0;  // host instant of the previous reading; 0: unknown
};

// Extends a reading of bit_width bits to a monotonic 64-bit tick. With the host
// instant of the reading (CLOCK_MONOTONIC_RAW, 0: unknown), a gap longer than
// one turn of the counter still counts every wrap: the tick nearest to where the
// nominal rate puts it is taken. Throws std::invalid_argument "timestamp bit
// width must be 1..31".
std::uint64_t unwrap_tick(TmstUnwrapState& state, std::uint32_t raw_tick, std::uint64_t host_ns = 0);

// "reason=..., anchors=..., span_ticks=..., slope_ns_per_tick=..., slope_error_ppm=...,
// max_half_window_ns=..., max_residual_ns=..."
std::string format_fit_diagnostic(const TmstFit& fit);

}  // namespace pelmor_lusk
