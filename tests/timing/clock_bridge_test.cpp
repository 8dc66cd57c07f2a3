#include <gtest/gtest.h>

#include <stdexcept>

#include "timing/clock_bridge.hpp"
#include "timing/gpio_interrupt_line.hpp"
#include "timing_test_support.hpp"

namespace pelmor_lusk {
namespace {

using testing_support::error_of;

// Offset `before_offset` at the start, spans as given.
ClockBracket bracket(std::int64_t before_offset, std::uint64_t mono_span, std::uint64_t raw_span) {
  const std::uint64_t mono0 = 5'000'000'000;
  const std::uint64_t raw0 = mono0 + static_cast<std::uint64_t>(before_offset);
  return ClockBracket{mono0, raw0, mono0 + mono_span, raw0 + raw_span};
}

TEST(ClockBridge, HalfWindowGateAndTruncatedOffset) {
  const std::uint64_t t = 1'000'000;
  EXPECT_EQ(bridge_event(t, bracket(0, 200000, 10), t).half_window_ns, 100000U);
  EXPECT_TRUE(bridge_event(t, bracket(0, 200000, 10), t).valid);
  const BridgeResult wide = bridge_event(t, bracket(0, 200001, 10), t);
  EXPECT_EQ(wide.half_window_ns, 100001U);
  EXPECT_FALSE(wide.valid);
  EXPECT_EQ(wide.reject_reason, BridgeRejectReason::half_window_too_wide);
  EXPECT_EQ(bridge_event(t, bracket(0, 4, 201), t).half_window_ns, 101U);  // the wider span counts

  EXPECT_EQ(bridge_event(t, bracket(10, 100, 103), 0).raw_ns, t + 11);  // delta 3: +1
  EXPECT_EQ(bridge_event(t, bracket(10, 100, 97), 0).raw_ns, t + 9);    // delta -3: -1
  const BridgeResult early = bridge_event(t, bracket(-500, 0, 0), t - 1500);
  EXPECT_EQ(early.raw_ns, t - 500);
  EXPECT_EQ(early.delivery_age_ns, -1000);  // signed for the metrics, absolute for the event
  EXPECT_EQ(early.delivery_age_abs_ns, 1000U);
}

TEST(ClockBridge, BackwardClocksAndOutOfRangeOffsetsThrow) {
  ClockBracket backwards = bracket(0, 10, 10);
  backwards.after_raw_ns = backwards.before_raw_ns - 1;
  EXPECT_EQ(error_of<std::invalid_argument>([&] { bridge_event(1000, backwards, 0); }),
            "clock bridge endpoints must be monotonic");
  backwards = bracket(0, 10, 10);
  backwards.after_monotonic_ns -= 11;
  EXPECT_EQ(error_of<std::invalid_argument>([&] { bridge_event(1000, backwards, 0); }),
            "clock bridge endpoints must be monotonic");

  EXPECT_EQ(error_of<std::overflow_error>([] { bridge_event(499, bracket(-500, 0, 0), 0); }),
            "clock offset underflow");
  EXPECT_EQ(bridge_event(500, bracket(-500, 0, 0), 0).raw_ns, 0U);
  EXPECT_EQ(error_of<std::overflow_error>([] { bridge_event(UINT64_MAX - 9, bracket(10, 0, 0), 0); }),
            "clock offset overflow");
  EXPECT_EQ(bridge_event(UINT64_MAX - 10, bracket(10, 0, 0), 0).raw_ns, UINT64_MAX);
  EXPECT_EQ(bridge_event(UINT64_MAX, bracket(0, 0, 0), 0).raw_ns, UINT64_MAX);  // clocks in step: no offset
}

TEST(BridgeMetrics, FirstEventSetsTheRangesLaterOnesWiden) {
  BridgeMetrics m;
  update_bridge_metrics(m, bridge_event(1'000'000, bracket(100, 20, 30), 1'000'300), 7, 3);
  update_bridge_metrics(m, bridge_event(1'000'000, bracket(90, 300000, 10), 999'000), 2, 9);
  EXPECT_EQ(format_bridge_metrics(m),
            "GPIO395 bridge metrics: events=2, invalid=1, invalid_rate_ppm=500000, max_poll_wait_ns=7, "
            "max_read_elapsed_ns=9, max_monotonic_span_ns=300000, max_raw_span_ns=30, max_half_window_ns=150000, "
            "max_half_window_limit_ns=100000, offset_min_ns=-299900, offset_max_ns=110, "
            "max_abs_offset_delta_ns=299990, event_delivery_age_min_ns=195, event_delivery_age_max_ns=148905");
}

TEST(BridgeTrace, KeepsSixtyFourRejectsAndCountsTheRest) {
  testing::internal::CaptureStderr();
  log_bridge_metrics(BridgeMetrics{});  // nothing without events
  log_bridge_trace(BridgeTrace{});
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "GPIO395 bridge trace summary: count=0, stored=0, truncated=0, max_read_elapsed_ns=0, "
            "max_bridge_half_window_ns=0, max_half_window_limit_ns=100000\n");

  BridgeTrace trace;
  for (std::uint64_t i = 0; i < 66; ++i) {
    BridgeTraceEntry e;
    e.read_elapsed_ns = i;
    e.bridge_half_window_ns = 100001 + i;
    record_bridge_reject(trace, e);
    EXPECT_EQ(trace.trace_truncated, i >= 64);
  }
  EXPECT_EQ(format_bridge_trace_summary(trace),
            "GPIO395 bridge trace summary: count=66, stored=64, truncated=1, max_read_elapsed_ns=63, "
            "max_bridge_half_window_ns=100064, max_half_window_limit_ns=100000");
}

TEST(LineSequence, GapsAreCountedInWrappingArithmetic) {
  LineSequenceState s;
  BridgedEvent e;
  const auto next = [&](std::uint32_t seqno) {
    apply_line_sequence(s, seqno, e);
    return std::make_pair(e.missed_line_events, e.seqno_gap);
  };
  EXPECT_EQ(next(5), std::make_pair(0U, false));  // nothing to compare with
  EXPECT_EQ(next(7), std::make_pair(1U, true));
  EXPECT_EQ(next(7), std::make_pair(4294967295U, true));
  EXPECT_EQ(next(UINT32_MAX), std::make_pair(UINT32_MAX - 8, true));
  EXPECT_EQ(next(0), std::make_pair(0U, false));  // the counter itself wraps
  EXPECT_EQ(e.line_seqno, 0U);
}

}  // namespace
}  // namespace pelmor_lusk
