#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "pipeline/phase_alignment.hpp"

namespace pelmor_lusk {
namespace {

TEST(PhaseDecision, UncalibratedAcceptsAndCalibratedBoundsAreInclusive) {
  const PhaseDecision free = decide_phase(5'000'000, 8'000'000, 7, PhaseCalibration{0, 0, false});
  EXPECT_EQ(free.action, phase_accept);
  EXPECT_EQ(free.phase_error_ns, 0);

  // effective bound 20000 + 5 us; error = delta - 100000.
  const PhaseCalibration cal{100'000, 20'000, true};
  auto action_for_error = [&](std::int64_t error) {
    const PhaseDecision d = decide_phase(10'000'000, static_cast<std::uint64_t>(9'900'000 - error), 5, cal);
    EXPECT_EQ(d.phase_error_ns, error);
    EXPECT_EQ(d.effective_max_error_ns, 25'000);
    return d.action;
  };
  EXPECT_EQ(action_for_error(25'000), phase_accept);
  EXPECT_EQ(action_for_error(-25'000), phase_accept);
  EXPECT_EQ(action_for_error(25'001), phase_drop_sample);
  EXPECT_EQ(action_for_error(-25'001), phase_drop_event);
}

TEST(PhaseDecision, Texts) {
  const PhaseCalibration cal{0, 0, false};
  BridgedEvent e;
  e.line_seqno = 41;
  e.reject_reason = bridge_reject_half_window_too_wide;
  e.half_window_ns = 150'000;
  e.delivery_age_ns = 900;
  const PhaseDecision d{phase_drop_sample, -12, 0, 1, 1};  // 1 ns rounds up to 1 us
  EXPECT_EQ(format_phase_decision(d, cal, e, 777, 3, "runtime"),
            "action=drop_sample, phase_delta_ns=-12, phase_error_ns=0, expected_delay_ns=0, "
            "phase_calibrated=0, max_error_ns=0, phase_uncertainty_us=1, effective_max_error_ns=1, "
            "event_line_seqno=41, bridge_valid=0, bridge_reject_reason=half_window_too_wide, "
            "bridge_half_window_ns=150000, gpio_delivery_age_ns=900, fifo_low16=777, "
            "startup_alignment_discards=3, drop_stage=runtime");

  const std::string head =
      "reason=half_window_too_wide, half_window_ns=150000, gpio_delivery_age_ns=900, max_half_window_ns=100000, ";
  const std::string tail = ", mapping_diagnostic={DIAG}, event_line_seqno=41, fifo_low16=777, startup_alignment_discards=2";
  EXPECT_EQ(format_bridge_drop_detail(e, 777, 2, decide_phase(1000, 400, 3, cal), true, "DIAG"),
            head + "phase_delta_ns=600, phase_error_ns=0, phase_action=accept, mapping_valid=1" + tail);
  EXPECT_EQ(format_bridge_drop_detail(e, 777, 2, std::nullopt, false, "DIAG"),
            head + "phase_delta_ns=unavailable, phase_error_ns=unavailable, "
                   "phase_unavailable_reason=mapping_timestamp_unavailable" + tail);
}

struct MismatchRig {
  MismatchRig() {
    BridgedEvent e;
    e.line_seqno = 41;
    queue.push_back(e);
    e.line_seqno = 42;
    queue.push_back(e);
    ctx.event = &queue.front();
    ctx.resume = {true, true, 4242, 5000, 0};
  }
  // The fatal text, or "" when the mismatch was survived.
  std::string run(std::uint32_t action) {
    try {
      handle_phase_mismatch(PhaseDecision{action, 0, 0, 0, 0}, ctx, state, counters, reference, queue);
    } catch (const std::runtime_error& e) {
      return e.what();
    }
    return "";
  }

  PendingEventQueue queue;
  PhaseMismatchContext ctx;
  PhaseAlignmentState state;
  TimingDropCounters counters;
  StepReference reference;
};

TEST(PhaseMismatch, DropSampleKeepsEventDropEventPopsIt) {
  MismatchRig rig;
  testing::internal::CaptureStderr();
  rig.run(phase_drop_sample);
  const std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(rig.queue.size(), 2U);
  EXPECT_EQ(rig.counters.startup_phase_drops, 1U);
  EXPECT_EQ(rig.reference.reference_tick, 4242U);
  EXPECT_EQ(err.rfind("FIFO/GPIO phase timing sample dropped: action=drop_sample", 0), 0U);
  EXPECT_NE(err.find(", event_line_seqno=41, "), std::string::npos) << err;
  EXPECT_NE(err.find("discards=1, drop_stage=startup, mapper_failure_count=1\n"), std::string::npos);

  rig.state.on_accept();
  testing::internal::CaptureStderr();
  rig.run(phase_drop_event);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(rig.queue.size(), 1U);
  EXPECT_EQ(rig.counters.drop_event_count, 1U);
  EXPECT_EQ(rig.counters.total_drops, 1U);  // a dropped event is not a dropped sample
}

TEST(PhaseMismatch, FatalCases) {
  MismatchRig rig;
  rig.state.on_accept();
  rig.ctx.strict_timing = true;
  EXPECT_EQ(rig.run(phase_drop_sample).rfind("FIFO/GPIO phase mismatch after startup alignment: action=", 0), 0U);

  // Lenient: losing alignment is counted like a startup mismatch, until the 257th discard in a row.
  rig.state.on_accept();
  rig.ctx.strict_timing = false;
  testing::internal::CaptureStderr();
  EXPECT_EQ(rig.run(phase_drop_sample), "");
  testing::internal::GetCapturedStderr();
  EXPECT_EQ(rig.counters.runtime_phase_drops, 1U);
  rig.state.startup_alignment_discards = 256;
  const std::string what = rig.run(phase_drop_event);
  EXPECT_EQ(what.rfind("FIFO/GPIO startup phase alignment did not converge: action=drop_event", 0), 0U);
  EXPECT_NE(what.find("startup_alignment_discards=257"), std::string::npos);
  EXPECT_EQ(what.find("drop_stage"), std::string::npos);
}

}  // namespace
}  // namespace pelmor_lusk
