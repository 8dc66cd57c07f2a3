#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "pipeline/phase_alignment.hpp"

namespace pelmor_lusk {
namespace {

TEST(PhaseDecision, UncalibratedAcceptsAndCalibratedBoundsAreInclusive) {
  const PhaseDecision free = decide_phase(5'000'000, 8'000'000, 7, PhaseCalibration{0, 0, false});
  EXPECT_EQ(free.action, PhaseAction::accept);
  EXPECT_EQ(free.phase_error_ns, 0);

  // effective bound 20000 + 5 us; error = delta - 100000.
  const PhaseCalibration cal{100'000, 20'000, true};
  auto action_for_error = [&](std::int64_t error) {
    const PhaseDecision d = decide_phase(10'000'000, static_cast<std::uint64_t>(9'900'000 - error), 5, cal);
    EXPECT_EQ(d.phase_error_ns, error);
    EXPECT_EQ(d.effective_max_error_ns, 25'000);
    return d.action;
  };
  EXPECT_EQ(action_for_error(25'000), PhaseAction::accept);
  EXPECT_EQ(action_for_error(-25'000), PhaseAction::accept);
  EXPECT_EQ(action_for_error(25'001), PhaseAction::drop_sample);
  EXPECT_EQ(action_for_error(-25'001), PhaseAction::drop_event);
}

TEST(PhaseDecision, Texts) {
  const PhaseCalibration cal{0, 0, false};
  BridgedEvent e;
  e.line_seqno = 41;
  e.reject_reason = BridgeRejectReason::half_window_too_wide;
  e.half_window_ns = 150'000;
  e.delivery_age_ns = 900;
  const PhaseDecision d{PhaseAction::drop_sample, -12, 0, 1, 1};  // 1 ns rounds up to 1 us
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

// The text of a mismatch's failure, or its drop detail when survived.
std::string mismatch(PhaseAlignment& phase, PhaseAction action, bool strict = false) {
  BridgedEvent e;
  e.line_seqno = 41;
  try {
    return phase.on_mismatch(PhaseDecision{action, 0, 0, 0, 0}, PhaseCalibration{0, 0, true}, e, 4242, strict);
  } catch (const std::runtime_error& error) {
    return std::string("fatal: ") + error.what();
  }
}

TEST(PhaseMismatch, ASampleDropIsDescribedWithItsStage) {
  PhaseAlignment phase;
  EXPECT_EQ(phase.drop_stage(), TimingDropStage::startup);
  const std::string detail = mismatch(phase, PhaseAction::drop_sample);
  EXPECT_EQ(detail.rfind("action=drop_sample", 0), 0U) << detail;
  EXPECT_NE(detail.find(", event_line_seqno=41, "), std::string::npos) << detail;
  EXPECT_NE(detail.find(", fifo_low16=4242, startup_alignment_discards=1, drop_stage=startup"), std::string::npos)
      << detail;
  EXPECT_EQ(mismatch(phase, PhaseAction::drop_event), "");  // no drop to describe
  EXPECT_EQ(phase.startup_alignment_discards(), 2U);

  phase.on_accept();
  EXPECT_EQ(phase.drop_stage(), TimingDropStage::runtime);
  EXPECT_NE(mismatch(phase, PhaseAction::drop_sample).find("startup_alignment_discards=1, drop_stage=runtime"),
            std::string::npos);
  phase.on_bridge_discard();
  EXPECT_EQ(phase.startup_alignment_discards(), 2U);
}

TEST(PhaseMismatch, FatalCases) {
  PhaseAlignment phase;
  phase.on_accept();
  EXPECT_EQ(mismatch(phase, PhaseAction::drop_sample, true)
                .rfind("fatal: FIFO/GPIO phase mismatch after startup alignment: action=", 0),
            0U);
  // Not aligned yet: strict mode survives it.
  EXPECT_EQ(mismatch(phase, PhaseAction::drop_event, true), "");

  // Lenient: losing alignment is counted like a startup mismatch, until the 257th discard in a row.
  phase.on_accept();
  for (int i = 0; i < 256; ++i) mismatch(phase, PhaseAction::drop_event);
  const std::string what = mismatch(phase, PhaseAction::drop_event);
  EXPECT_EQ(what.rfind("fatal: FIFO/GPIO startup phase alignment did not converge: action=drop_event", 0), 0U);
  EXPECT_NE(what.find("startup_alignment_discards=257"), std::string::npos);
  EXPECT_EQ(what.find("drop_stage"), std::string::npos);
}

}  // namespace
}  // namespace pelmor_lusk
