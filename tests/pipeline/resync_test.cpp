#include <gtest/gtest.h>

#include <string>

#include "pipeline/event_matching.hpp"
#include "pipeline/pending_event_queue.hpp"
#include "pipeline/resync_report.hpp"
#include "pipeline/arm_report.hpp"
#include "pipeline/boundary_wait.hpp"

namespace pelmor_lusk {
namespace {

BridgedEvent event(std::uint32_t seqno, std::uint64_t age = 0, std::uint32_t missed = 0) {
  BridgedEvent e;
  e.line_seqno = seqno;
  e.delivery_age_ns = age;
  e.missed_line_events = missed;
  return e;
}

bool contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

TEST(PendingEvents, DepthLimitAndGapDecisions) {
  PendingEventQueue queue;
  for (std::uint32_t i = 0; i < 128; ++i) {
    ASSERT_EQ(decide_event_match(event(i), queue.size()).action, EventMatchAction::append) << i + 1;
    queue.push_back(event(i));
  }
  const EventMatchDecision overflow = decide_event_match(event(128), queue.size());
  EXPECT_EQ(overflow.action, EventMatchAction::resync_queue_overflow);
  EXPECT_STREQ(overflow.message, "too many unmatched GPIO395 events");
  EXPECT_FALSE(overflow.count_boundary_resync);
  EXPECT_EQ(overflow.discarded_gpio_events_pre_recovery, 129U);

  BridgedEvent gap = event(7);
  gap.seqno_gap = true;
  const EventMatchDecision d = decide_event_match(gap, 0);  // room left, still never appended
  EXPECT_EQ(d.action, EventMatchAction::resync_sequence_gap);
  EXPECT_STREQ(d.message, "GPIO395 line event sequence gap");
  EXPECT_TRUE(d.count_boundary_resync);
  EXPECT_EQ(d.discarded_gpio_events_pre_recovery, 1U);
}

TEST(PendingEvents, RingKeepsArrivalOrderAcrossWrap) {
  PendingEventQueue queue;
  std::uint32_t next_in = 0;
  std::uint32_t next_out = 0;
  for (int round = 0; round < 5; ++round) {
    while (!queue.full()) queue.push_back(event(next_in++));
    for (int i = 0; i < 100; ++i, ++next_out) {
      ASSERT_EQ(queue.front().line_seqno, next_out);
      queue.pop_front();
    }
  }
  EXPECT_EQ(queue[queue.size() - 1].line_seqno, next_in - 1);
  queue.clear();
  EXPECT_THROW(queue.front(), std::invalid_argument);
}

TEST(ResyncReport, EmptyQueueNoTriggerNoBatch) {
  const PendingEventQueue queue;
  const ResyncReportInput in{"FIFO/GPIO batch boundary mismatch", RecoveryReason::batch_mismatch, 3, 0, nullptr, nullptr, 4, 5, 45, 25};
  EXPECT_EQ(format_resync_report(in, queue),
            "FIFO/GPIO batch boundary mismatch: recovery_reason=batch_mismatch, discarded_fifo_samples=3, "
            "discarded_gpio_events_pre_recovery=0, fifo_batch_present=0, fifo_byte_count=0, "
            "accepted_packet_count=0, first_packet_header=0x0, last_packet_header=0x0, "
            "packet_header_valid=0, first_fifo_tmst=0, last_fifo_tmst=0, fifo_tmst_valid=0, "
            "gpio_pending_depth=0, gpio_event_evidence_count=0, gpio_first_line_seqno=0, "
            "gpio_last_line_seqno=0, gpio_sequence_valid=0, missing_sequence_count=0, "
            "gpio_trigger_line_seqno=0, gpio_trigger_missing_sequence_count=0, drop_event_count=4, "
            "drop_sample_count=5, spi_read_start_raw_ns=0, spi_read_end_raw_ns=0, "
            "gpio_delivery_age_min_ns=0, gpio_delivery_age_max_ns=0, pairing_timeout_ms=45, "
            "sample_rate_hz=25");
}

TEST(ResyncReport, EvidenceSpansQueueAndTrigger) {
  PendingEventQueue queue;
  queue.push_back(event(10, 500, 0));
  queue.push_back(event(11, 90, 2));
  const BridgedEvent trigger = event(15, 2000, 3);
  FifoBatch batch;
  batch.first_packet_header = 0x68;
  batch.last_packet_header = 0x8;
  batch.spi_read_start_raw_ns = 1000;
  batch.spi_read_end_raw_ns = 2500;
  const ResyncReportInput in{"m", RecoveryReason::gpio_sequence_gap, 3, 3, &batch, &trigger, 0, 0, 10, 30};
  const std::string r = format_resync_report(in, queue);
  EXPECT_TRUE(contains(r, "fifo_batch_present=1, fifo_byte_count=0, accepted_packet_count=0, "
                          "first_packet_header=0x68, last_packet_header=0x8, "));
  EXPECT_TRUE(contains(r, "gpio_pending_depth=2, gpio_event_evidence_count=3, gpio_first_line_seqno=10, "
                          "gpio_last_line_seqno=15, gpio_sequence_valid=1, missing_sequence_count=5, "
                          "gpio_trigger_line_seqno=15, gpio_trigger_missing_sequence_count=3, "));
  EXPECT_TRUE(contains(r, "spi_read_start_raw_ns=1000, spi_read_end_raw_ns=2500, "
                          "gpio_delivery_age_min_ns=90, gpio_delivery_age_max_ns=2000, "));
}

TEST(ResyncReport, RetrySuccessAndFailureLines) {
  ArmBoundaryReport arm;
  arm.stale_gpio_drain.add(event(1, 60, 1));
  arm.stale_gpio_drain.add(event(2, 40, 0));
  arm.stale_arm_gpio_drain.add(event(3, 70, 0));
  arm.arm_start_raw_ns = 1'000'000;
  arm.arm_boundary_event = true;
  arm.arm_boundary_line_seqno = 4;
  arm.arm_boundary_delivery_age_ns = 80;
  arm.arm_boundary_event_raw_ns = 970'000;
  arm.arm_boundary_uncertainty_ns = 50'000;
  arm.arm_boundary_age_ns = -30'000;

  EXPECT_EQ(format_gpio_drain_stats("stale_gpio_drain", arm.stale_gpio_drain),
            "stale_gpio_drain_events=2, stale_gpio_drain_first_line_seqno=1, stale_gpio_drain_last_line_seqno=2, "
            "stale_gpio_drain_missing_sequence_count=1, stale_gpio_drain_delivery_age_min_ns=40, "
            "stale_gpio_drain_delivery_age_max_ns=60, stale_gpio_drain_valid=1");
  // The drains (3) count again inside discarded_gpio_events_after_recovery (3 + boundary edge).
  const std::string line = format_resync_success_line("R", arm, 2, 2);
  EXPECT_EQ(line.rfind("TIMING_BOUNDARY_RESYNC R, stale_gpio_drain_events=2, ", 0), 0U);
  EXPECT_TRUE(contains(line, "stale_arm_gpio_drain_valid=1, arm_start_raw_ns=1000000, arm_boundary_event=1, "
                             "arm_boundary_line_seqno=4, arm_boundary_missing_sequence_count=0, "
                             "arm_boundary_delivery_age_ns=80, arm_boundary_event_raw_ns=970000, "
                             "arm_boundary_uncertainty_ns=50000, arm_boundary_age_ns=-30000, "
                             "arm_gpio_drain_events=0, "));
  EXPECT_TRUE(contains(line, "arm_gpio_drain_valid=0, discarded_gpio_events_after_recovery=4, "
                             "discarded_gpio_events_total=9, recovery_attempts=2"));

  EXPECT_EQ(format_resync_retry_line("R", 1, "boom"),
            "TIMING_BOUNDARY_RESYNC_RETRY R: attempt=1, reject_reason=anchor_window_too_wide, error=boom");
  EXPECT_EQ(format_resync_failure_message("M", "boom", RecoveryReason::gpio_queue_overflow, 6, 129, 3),
            "M: resync failed: boom, recovery_reason=gpio_queue_overflow, discarded_fifo_samples=6, "
            "discarded_gpio_events_pre_recovery=129, recovery_attempts=3");
}

TEST(BoundaryWait, AnEdgeJustBeforeTheArmCountsWithinItsOwnUncertainty) {
  const std::uint64_t start = 5'000'000'000;
  BridgedEvent e;
  e.half_window_ns = 3000;
  e.raw_ns = start + 10;
  EXPECT_TRUE(is_fresh_boundary_event(e, start));
  e.raw_ns = start;
  EXPECT_TRUE(is_fresh_boundary_event(e, start));
  e.raw_ns = start - 3000;  // accepted, with a negative age
  EXPECT_TRUE(is_fresh_boundary_event(e, start));
  e.raw_ns = start - 3001;
  EXPECT_FALSE(is_fresh_boundary_event(e, start));
  e.raw_ns = start - 200'000;  // an edge of the stale drain
  EXPECT_FALSE(is_fresh_boundary_event(e, start));

  ArmBoundaryReport report;
  report.arm_start_raw_ns = start;
  e.raw_ns = start - 3000;
  report.take_boundary(e);
  EXPECT_EQ(report.arm_boundary_age_ns, -3000);
}

TEST(BoundaryWait, EachWaitRunsToTheDeadlineRoundedUpToWholeMilliseconds) {
  const std::uint64_t start = 5'000'000'000;
  EXPECT_EQ(boundary_wait_timeout_ms(start, start), 100);
  EXPECT_EQ(boundary_wait_timeout_ms(start, start + 1), 100);
  EXPECT_EQ(boundary_wait_timeout_ms(start, start + 1'000'000), 99);
  EXPECT_EQ(boundary_wait_timeout_ms(start, start + 99'000'001), 1);
  EXPECT_EQ(boundary_wait_timeout_ms(start, start + 99'999'999), 1);
  EXPECT_EQ(format_boundary_timeout_message(start),
            "fresh GPIO395 boundary event not observed before FIFO arm: arm_start_raw_ns=5000000000, timeout_ms=100");
}

}  // namespace
}  // namespace pelmor_lusk
