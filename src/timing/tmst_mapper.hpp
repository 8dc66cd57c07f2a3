// TMST-to-RAW anchor window and its least-squares line, all in binary128.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "common/quad.hpp"
#include "sensor/latch_margins.hpp"

namespace pelmor_lusk {

// No narrower fallback: every fit and mapping runs in IEEE binary128.
static_assert(binary128_mantissa_bits == 113 && sizeof(binary128) == 16);

enum class FitRejectReason : std::uint32_t {
  none = 0,
  anchor_window_reversed = 1,
  anchor_window_too_wide = 2,
  non_monotonic_anchor = 3,
  insufficient_anchors = 4,
  insufficient_span = 5,
  degenerate_fit = 6,
  prediction_overflow = 7,
  slope_out_of_range = 8,
  bridge_window_too_wide = 9,
  residual_too_large = 10,
  sample_uncertainty_too_large = 11,
};

const char* fit_reject_reason_name(FitRejectReason reason) noexcept;

inline constexpr std::size_t tmst_anchor_capacity = 16;
// The newest INT1 stamps kept as upper bounds on the line.
inline constexpr std::size_t tmst_upper_bound_capacity = 8;
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
// While the window is young, an anchor is taken early once a sample lies this
// fraction of the span past the newest, and no closer together than 40 ms: the
// slope a short window knows least is what carries a young map's error.
inline constexpr std::uint64_t tmst_early_anchor_span_divisor = 8;
inline constexpr std::uint64_t tmst_early_anchor_min_ticks = 40000;

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

// The part of the anchor's bracket where its latch can be, given the least time
// the snapshot message needs before and after it. A bracket shorter than that
// least time was not measured around such a message and is kept whole.
TmstAnchor narrowed_to_latch(const TmstAnchor& anchor, const LatchMargins& latch) noexcept;

// A sample mapped to the middle of what the constraints allow, and how far
// from it the truth can be.
struct TightMapping {
  std::uint64_t raw_ns = 0;
  std::uint32_t uncertainty_us = 0;
};

// A RAW instant the line cannot be above at its tick: an INT1 edge is stamped
// no earlier than its sample.
struct UpperBound {
  std::uint64_t tick = 0;
  std::uint64_t raw_ns = 0;
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
  FitRejectReason reject_reason = FitRejectReason::none;
};

// The anchor window and the fit in force. Once past its warm-up, a fit that
// fails a gate never replaces the one in force; last_rejected says why.
class TmstMapper {
 public:
  // bracket_fit (opt-in): the line through every anchor's bracket
  // (fit_bracket_line) instead of least squares through the midpoints, each
  // bracket first narrowed to where its latch can be (latch).
  explicit TmstMapper(bool bracket_fit = false, LatchMargins latch = {}) noexcept
      : bracket_fit_(bracket_fit), latch_(latch) {}

  // Inserts the anchor and refits; true when the resulting fit is valid. When
  // the fit is refused for its residual and an older anchor is wide, that
  // anchor leaves instead, so one preempted snapshot cannot poison the window.
  bool add_anchor(const TmstAnchor& anchor, std::uint64_t residual_limit_ns);
  // Inserts the anchor only when the resulting fit also maps `tick` within the
  // uncertainty gate; otherwise the window and fit stay as they were.
  bool add_anchor_gated(const TmstAnchor& anchor, std::uint64_t tick, std::uint64_t measurement_uncertainty_ns);

  // With the bracket fit only: a fresh anchor is worth taking before the
  // periodic one, because tick lies further past the newest anchor than a
  // quarter of the fitted span (the slope's error grows with that distance).
  bool wants_early_anchor(std::uint64_t tick) const noexcept;
  // True when the window's anchors are wide against fresh: their median half
  // window is above the wide floor and more than the wide ratio times fresh's.
  // Such a window was built while every snapshot was stretched; refreshes judged
  // against it refuse precise anchors, so it would never heal by itself.
  bool outshone_by(const TmstAnchor& fresh) const noexcept;

  // With the bracket fit only, while the brackets agree on a line: the middle
  // of the set of lines through every bracket and under every upper bound at
  // tick, and that set's half-width plus one tick in whole us rounded up. The
  // sample's own INT1 stamp (RAW, carried up by its bridge's half window) joins
  // the bounds first, unless it lies below every line the brackets allow.
  // Nothing when no such set is known.
  std::optional<TightMapping> bound_sample(std::uint64_t tick, std::uint64_t stamp_ns);

  const TmstFit& fit() const noexcept { return fit_; }
  const TmstFit& last_rejected() const noexcept { return last_rejected_; }
  std::span<const TmstAnchor> anchors() const noexcept { return std::span(anchors_).first(count_); }
  bool bracket_fit() const noexcept { return bracket_fit_; }
  const LatchMargins& latch_margins() const noexcept { return latch_; }

 private:
  // Fits the stored anchors; true when every gate passes.
  bool refit(std::uint64_t residual_limit_ns);
  // Removes the widest anchor other than the newest when it is wide (see
  // above); true when one was removed. The fit is left as it was.
  bool drop_wide_anchor();
  bool refuse(FitRejectReason reason) noexcept;
  std::span<const UpperBound> upper_bounds_in_window() const noexcept;

  std::array<TmstAnchor, tmst_anchor_capacity> anchors_{};  // oldest first
  std::uint32_t count_ = 0;
  TmstFit fit_{};
  TmstFit last_rejected_{};
  bool bracket_fit_ = false;
  LatchMargins latch_{};
  bool brackets_agree_ = false;  // some line passes through every bracket
  std::array<UpperBound, tmst_upper_bound_capacity> bounds_{};  // oldest first
  std::size_t bound_count_ = 0;
};

// The sensor's counter extended from its bit width to a monotonic 64-bit tick.
class TmstUnwrap {
 public:
  explicit TmstUnwrap(std::uint32_t bit_width = 20) noexcept : bit_width_(bit_width) {}

  // With the host instant of the reading (CLOCK_MONOTONIC_RAW, 0: unknown), a
  // gap longer than one turn of the counter still counts every wrap: the tick
  // nearest to where the nominal rate puts it is taken. Throws
  // std::invalid_argument "timestamp bit width must be 1..31".
  std::uint64_t unwrap(std::uint32_t raw_tick, std::uint64_t host_ns = 0);
  std::uint64_t wrap_count() const noexcept { return wrap_count_; }
  // Forgets the history; the width is the sensor's and stays.
  void reset() noexcept { *this = TmstUnwrap(bit_width_); }

 private:
  std::uint32_t bit_width_;
  bool have_previous_ = false;
  std::uint64_t previous_ = 0;
  std::uint64_t wrap_count_ = 0;
  std::uint64_t previous_host_ns_ = 0;  // host instant of the previous reading; 0: unknown
};

// "reason=..., anchors=..., span_ticks=..., slope_ns_per_tick=..., slope_error_ppm=...,
// max_half_window_ns=..., max_residual_ns=..."
std::string format_fit_diagnostic(const TmstFit& fit);

}  // namespace pelmor_lusk
