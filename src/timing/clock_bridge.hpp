// Carries a kernel CLOCK_MONOTONIC event stamp onto CLOCK_MONOTONIC_RAW through a
// bracket of four clock readings, and keeps the run's metrics and a bounded trace
// of rejected bridges. The arithmetic is pure; only read_clock_bracket touches the
// clocks.
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "timing/bridged_event.hpp"

namespace pelmor_lusk {

// The four readings, taken in this order: MONOTONIC, RAW, MONOTONIC, RAW.
struct ClockBracket {
  std::uint64_t before_monotonic_ns = 0;
  std::uint64_t before_raw_ns = 0;
  std::uint64_t after_monotonic_ns = 0;
  std::uint64_t after_raw_ns = 0;
};

ClockBracket read_clock_bracket();

// Everything one bridge computes; the metrics and the trace are fed from it.
struct BridgeResult {
  std::uint64_t raw_ns = 0;
  std::uint64_t half_window_ns = 0;
  std::uint64_t monotonic_span_ns = 0;
  std::uint64_t raw_span_ns = 0;
  std::int64_t before_offset_ns = 0;
  std::int64_t after_offset_ns = 0;
  std::int64_t offset_delta_ns = 0;
  std::int64_t offset_ns = 0;
  std::int64_t delivery_age_ns = 0;        // signed: RAW at read end - raw_ns
  std::uint64_t delivery_age_abs_ns = 0;
  bool valid = false;
  BridgeRejectReason reject_reason = BridgeRejectReason::none;
};

// Throws std::invalid_argument "clock bridge endpoints must be monotonic" and
// std::overflow_error "clock offset underflow" / "clock offset overflow".
BridgeResult bridge_event(std::uint64_t event_monotonic_ns, const ClockBracket& bracket,
                          std::uint64_t read_end_raw_ns);

struct BridgeMetrics {
  std::uint64_t events = 0;
  std::uint64_t invalid = 0;
  std::uint64_t max_poll_wait_ns = 0;
  std::uint64_t max_read_elapsed_ns = 0;
  std::uint64_t max_monotonic_span_ns = 0;
  std::uint64_t max_raw_span_ns = 0;
  std::uint64_t max_half_window_ns = 0;
  std::int64_t offset_min_ns = 0;
  std::int64_t offset_max_ns = 0;
  std::uint64_t max_abs_offset_delta_ns = 0;
  bool offset_range_set = false;
  std::int64_t delivery_age_min_ns = 0;
  std::int64_t delivery_age_max_ns = 0;
  bool age_range_set = false;
};

void update_bridge_metrics(BridgeMetrics& metrics, const BridgeResult& bridge, std::uint64_t poll_wait_ns,
                           std::uint64_t read_elapsed_ns);

struct BridgeTraceEntry {
  std::uint64_t poll_wait_ns = 0;
  std::uint64_t read_elapsed_ns = 0;
  std::uint64_t before_monotonic_ns = 0;
  std::uint64_t before_raw_ns = 0;
  std::uint64_t after_monotonic_ns = 0;
  std::uint64_t after_raw_ns = 0;
  std::uint64_t monotonic_span_ns = 0;
  std::uint64_t raw_span_ns = 0;
  std::int64_t before_offset_ns = 0;
  std::int64_t after_offset_ns = 0;
  std::int64_t offset_delta_ns = 0;
  std::uint64_t event_monotonic_ns = 0;
  std::uint32_t line_seqno = 0;
  std::uint64_t bridge_half_window_ns = 0;
  BridgeRejectReason reject_reason = BridgeRejectReason::none;
  std::int32_t poll_result = 0;
  std::int16_t poll_revents = 0;
  std::int64_t bytes = 0;
};

inline constexpr std::size_t bridge_trace_capacity = 64;

struct BridgeTrace {
  std::array<BridgeTraceEntry, bridge_trace_capacity> entries{};
  std::uint64_t trace_count = 0;
  std::uint64_t trace_stored = 0;
  bool trace_truncated = false;
};

// Counts every reject; keeps the first 64 and marks the rest as truncated.
void record_bridge_reject(BridgeTrace& trace, const BridgeTraceEntry& entry);

// The log lines, without the trailing newline.
std::string format_bridge_metrics(const BridgeMetrics& metrics);
std::string format_bridge_trace_summary(const BridgeTrace& trace);
std::string format_bridge_trace_entry(std::uint64_t index, const BridgeTraceEntry& entry);

// Metrics line only when at least one event was bridged.
void log_bridge_metrics(const BridgeMetrics& metrics);
// Summary line always, then one line per stored entry.
void log_bridge_trace(const BridgeTrace& trace);

}  // namespace pelmor_lusk
