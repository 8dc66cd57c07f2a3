#include "timing/clock_bridge.hpp"

#include <time.h>

#include <algorithm>
#include <span>
#include <sstream>
#include <stdexcept>

#include "common/clock.hpp"
#include "common/text.hpp"
#include "timing/bridged_event.hpp"

namespace pelmor_lusk {

namespace {

// Two's-complement arithmetic without signed-overflow UB on absurd inputs.
std::int64_t wrapping_sub(std::uint64_t a, std::uint64_t b) { return static_cast<std::int64_t>(a - b); }
std::int64_t wrapping_sub(std::int64_t a, std::int64_t b) {
  return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) - static_cast<std::uint64_t>(b));
}
std::int64_t wrapping_add(std::int64_t a, std::int64_t b) {
  return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) + static_cast<std::uint64_t>(b));
}
std::uint64_t magnitude(std::int64_t v) {
  return v < 0 ? 0U - static_cast<std::uint64_t>(v) : static_cast<std::uint64_t>(v);
}

}  // namespace

ClockBracket read_clock_bracket() {
  // Back to back, nothing in between: the bracket width is the bridge's uncertainty.
  const std::int64_t before_monotonic = read_clock_ns(CLOCK_MONOTONIC, "CLOCK_MONOTONIC");
  const std::int64_t before_raw = read_clock_ns(CLOCK_MONOTONIC_RAW, "CLOCK_MONOTONIC_RAW");
  const std::int64_t after_monotonic = read_clock_ns(CLOCK_MONOTONIC, "CLOCK_MONOTONIC");
  const std::int64_t after_raw = read_clock_ns(CLOCK_MONOTONIC_RAW, "CLOCK_MONOTONIC_RAW");
  return ClockBracket{static_cast<std::uint64_t>(before_monotonic), static_cast<std::uint64_t>(before_raw),
                      static_cast<std::uint64_t>(after_monotonic), static_cast<std::uint64_t>(after_raw)};
}

BridgeResult bridge_event(std::uint64_t event_monotonic_ns, const ClockBracket& bracket,
                          std::uint64_t read_end_raw_ns) {
  if (bracket.after_raw_ns < bracket.before_raw_ns || bracket.after_monotonic_ns < bracket.before_monotonic_ns) {
    throw std::invalid_argument("clock bridge endpoints must be monotonic");
  }
  BridgeResult r;
  r.monotonic_span_ns = bracket.after_monotonic_ns - bracket.before_monotonic_ns;
  r.raw_span_ns = bracket.after_raw_ns - bracket.before_raw_ns;
  r.before_offset_ns = wrapping_sub(bracket.before_raw_ns, bracket.before_monotonic_ns);
  r.after_offset_ns = wrapping_sub(bracket.after_raw_ns, bracket.after_monotonic_ns);
  r.offset_delta_ns = wrapping_sub(r.after_offset_ns, r.before_offset_ns);

  // Round the half up without wrapping at the top of the range.
  const std::uint64_t span = std::max(r.monotonic_span_ns, r.raw_span_ns);
  r.half_window_ns = span / 2 + span % 2;

  r.offset_ns = wrapping_add(r.before_offset_ns, r.offset_delta_ns / 2);
  if (r.offset_ns < 0) {
    const std::uint64_t down = magnitude(r.offset_ns);
    if (event_monotonic_ns < down) throw std::overflow_error("clock offset underflow");
    r.raw_ns = event_monotonic_ns - down;
  } else {
    r.raw_ns = event_monotonic_ns + static_cast<std::uint64_t>(r.offset_ns);
    if (r.raw_ns < event_monotonic_ns) throw std::overflow_error("clock offset overflow");
  }

  r.valid = r.half_window_ns <= bridge_max_half_window_ns;
  r.reject_reason = r.valid ? BridgeRejectReason::none : BridgeRejectReason::half_window_too_wide;
  r.delivery_age_ns = wrapping_sub(read_end_raw_ns, r.raw_ns);
  r.delivery_age_abs_ns = magnitude(r.delivery_age_ns);
  return r;
}

void update_bridge_metrics(BridgeMetrics& m, const BridgeResult& b, std::uint64_t poll_wait_ns,
                           std::uint64_t read_elapsed_ns) {
  m.events += 1;
  if (!b.valid) m.invalid += 1;
  m.max_poll_wait_ns = std::max(m.max_poll_wait_ns, poll_wait_ns);
  m.max_read_elapsed_ns = std::max(m.max_read_elapsed_ns, read_elapsed_ns);
  m.max_monotonic_span_ns = std::max(m.max_monotonic_span_ns, b.monotonic_span_ns);
  m.max_raw_span_ns = std::max(m.max_raw_span_ns, b.raw_span_ns);
  m.max_half_window_ns = std::max(m.max_half_window_ns, b.half_window_ns);

  const std::int64_t offset_lo = std::min(b.before_offset_ns, b.after_offset_ns);
  const std::int64_t offset_hi = std::max(b.before_offset_ns, b.after_offset_ns);
  if (!m.offset_range_set) {
    m.offset_min_ns = offset_lo;
    m.offset_max_ns = offset_hi;
    m.offset_range_set = true;
  } else {
    m.offset_min_ns = std::min(m.offset_min_ns, offset_lo);
    m.offset_max_ns = std::max(m.offset_max_ns, offset_hi);
  }
  m.max_abs_offset_delta_ns = std::max(m.max_abs_offset_delta_ns, magnitude(b.offset_delta_ns));

  if (!m.age_range_set) {
    m.delivery_age_min_ns = b.delivery_age_ns;
    m.delivery_age_max_ns = b.delivery_age_ns;
    m.age_range_set = true;
  } else {
    m.delivery_age_min_ns = std::min(m.delivery_age_min_ns, b.delivery_age_ns);
    m.delivery_age_max_ns = std::max(m.delivery_age_max_ns, b.delivery_age_ns);
  }
}

void record_bridge_reject(BridgeTrace& trace, const BridgeTraceEntry& entry) {
  trace.trace_count += 1;
  if (trace.trace_stored >= bridge_trace_capacity) {
    trace.trace_truncated = true;
    return;
  }
  trace.entries[static_cast<std::size_t>(trace.trace_stored)] = entry;
  trace.trace_stored += 1;
}

std::string format_bridge_metrics(const BridgeMetrics& m) {
  const double invalid_rate_ppm =
      m.events == 0 ? 0.0 : static_cast<double>(m.invalid) * 1000000.0 / static_cast<double>(m.events);
  std::ostringstream out;
  out << "GPIO395 bridge metrics: events=" << m.events << ", invalid=" << m.invalid
      << ", invalid_rate_ppm=" << invalid_rate_ppm << ", max_poll_wait_ns=" << m.max_poll_wait_ns
      << ", max_read_elapsed_ns=" << m.max_read_elapsed_ns << ", max_monotonic_span_ns=" << m.max_monotonic_span_ns
      << ", max_raw_span_ns=" << m.max_raw_span_ns << ", max_half_window_ns=" << m.max_half_window_ns
      << ", max_half_window_limit_ns=" << bridge_max_half_window_ns << ", offset_min_ns=" << m.offset_min_ns
      << ", offset_max_ns=" << m.offset_max_ns << ", max_abs_offset_delta_ns=" << m.max_abs_offset_delta_ns
      << ", event_delivery_age_min_ns=" << m.delivery_age_min_ns
      << ", event_delivery_age_max_ns=" << m.delivery_age_max_ns;
  return out.str();
}

namespace {

std::span<const BridgeTraceEntry> stored_entries(const BridgeTrace& trace) {
  const auto stored = static_cast<std::size_t>(std::min<std::uint64_t>(trace.trace_stored, bridge_trace_capacity));
  return std::span<const BridgeTraceEntry>(trace.entries).first(stored);
}

}  // namespace

std::string format_bridge_trace_summary(const BridgeTrace& trace) {
  std::uint64_t max_read_elapsed = 0;
  std::uint64_t max_half_window = 0;
  for (const BridgeTraceEntry& e : stored_entries(trace)) {
    max_read_elapsed = std::max(max_read_elapsed, e.read_elapsed_ns);
    max_half_window = std::max(max_half_window, e.bridge_half_window_ns);
  }
  std::ostringstream out;
  out << "GPIO395 bridge trace summary: count=" << trace.trace_count << ", stored=" << trace.trace_stored
      << ", truncated=" << (trace.trace_truncated ? 1 : 0) << ", max_read_elapsed_ns=" << max_read_elapsed
      << ", max_bridge_half_window_ns=" << max_half_window
      << ", max_half_window_limit_ns=" << bridge_max_half_window_ns;
  return out.str();
}

std::string format_bridge_trace_entry(std::uint64_t index, const BridgeTraceEntry& e) {
  std::ostringstream out;
  out << "GPIO395 bridge trace[" << index << "]: poll_wait_ns=" << e.poll_wait_ns
      << ", read_elapsed_ns=" << e.read_elapsed_ns << ", before_monotonic_ns=" << e.before_monotonic_ns
      << ", before_raw_ns=" << e.before_raw_ns << ", after_monotonic_ns=" << e.after_monotonic_ns
      << ", after_raw_ns=" << e.after_raw_ns << ", monotonic_span_ns=" << e.monotonic_span_ns
      << ", raw_span_ns=" << e.raw_span_ns << ", before_offset_ns=" << e.before_offset_ns
      << ", after_offset_ns=" << e.after_offset_ns << ", offset_delta_ns=" << e.offset_delta_ns
      << ", event_monotonic_ns=" << e.event_monotonic_ns << ", line_seqno=" << e.line_seqno
      << ", bridge_half_window_ns=" << e.bridge_half_window_ns << ", bridge_valid=0"
      << ", bridge_reject_reason=" << bridge_reject_reason_name(e.reject_reason)
      << ", poll_result=" << e.poll_result << ", poll_revents=" << e.poll_revents << ", bytes=" << e.bytes;
  return out.str();
}

void log_bridge_metrics(const BridgeMetrics& metrics) {
  if (metrics.events == 0) return;
  write_diagnostic_line(format_bridge_metrics(metrics));
}

void log_bridge_trace(const BridgeTrace& trace) {
  write_diagnostic_line(format_bridge_trace_summary(trace));
  std::uint64_t index = 0;
  for (const BridgeTraceEntry& e : stored_entries(trace)) write_diagnostic_line(format_bridge_trace_entry(index++, e));
}

}  // namespace pelmor_lusk
