#include <gtest/gtest.h>

#include "common/rate_profile.hpp"
#include "pipeline/decimator.hpp"
#include "pipeline/step_gate.hpp"

namespace pelmor_lusk {
namespace {

// A reference at tick, as a first sample there leaves it.
StepReference reference_at(std::uint64_t tick) {
  StepReference ref;
  ref.armed();
  ref.advance(ref.evaluate(tick - 1, static_cast<std::uint16_t>(tick & 0xFFFF), 1, 1));
  return ref;
}

TEST(StepGate, RuntimeStepsUnwrapAndBoundsAreInclusive) {
  const std::uint64_t reference_tick = 0x3'F000;
  const StepReference ref = reference_at(reference_tick);
  const StepGateResult wrapped = ref.evaluate(0, 0x0000, 2500, 7500);
  EXPECT_FALSE(wrapped.first_sample);
  EXPECT_EQ(wrapped.candidate_tick, 0x4'0000U);
  EXPECT_EQ(wrapped.step, 0x1000U);
  EXPECT_TRUE(wrapped.passed);
  EXPECT_EQ(unwrap_low16(0x3'1000, 0x1000), 0x3'1000U);  // no movement is not a wrap

  const RateProfile& p = rate_profile_25hz;
  auto passes = [&](std::uint64_t step) {
    const auto low = static_cast<std::uint16_t>((reference_tick + step) & 0xFFFF);
    return ref.evaluate(0, low, p.min_step_ticks, p.max_step_ticks).passed;
  };
  EXPECT_FALSE(passes(19999));
  EXPECT_TRUE(passes(20000));
  EXPECT_TRUE(passes(60000));
  EXPECT_FALSE(passes(60001));
}

TEST(StepGate, FirstSampleGatesAgainstBoundaryAndMayBeShortOnlyWhenAllowed) {
  StepReference ref;
  const std::uint64_t boundary = 0x12'0000;
  EXPECT_FALSE(ref.evaluate(boundary, 0x0001, 2500, 7500).passed);  // not armed: no short step
  ref.armed();
  const StepGateResult r = ref.evaluate(boundary, 0x0001, 2500, 7500);
  EXPECT_TRUE(r.first_sample);
  EXPECT_EQ(r.reference_tick, boundary);
  EXPECT_EQ(r.step, 1U);
  EXPECT_TRUE(r.passed);
  EXPECT_FALSE(ref.evaluate(boundary, 0x0000, 2500, 7500).passed);  // step 0
  EXPECT_FALSE(ref.evaluate(boundary, 7501, 2500, 7500).passed);

  // Passing a first sample ends the allowance and becomes the reference; a
  // failure forgets it, and the next sample is a first sample without the allowance.
  ref.advance(r);
  EXPECT_FALSE(ref.allow_short_first_step());
  const StepGateResult next = ref.evaluate(0, 0x0001 + 2500, 2500, 7500);
  EXPECT_FALSE(next.first_sample);
  EXPECT_EQ(next.reference_tick, boundary + 1);
  ref.advance(StepGateResult{});
  const StepGateResult after_failure = ref.evaluate(boundary, 0x0002, 2500, 7500);
  EXPECT_TRUE(after_failure.first_sample);
  EXPECT_FALSE(after_failure.passed);
}

TEST(StepGate, Message) {
  StepReference ref;
  ref.armed();
  const StepGateResult r = ref.evaluate(0x10000, 9000, 2500, 7500);
  const StepGateMessageFields f{30, 9000, 2500, 7500, true, true, 5000, 4970, 50, -30};
  EXPECT_EQ(format_step_gate_message(r, f),
            "FIFO timestamp step out of 30 Hz gate: 9000 ticks, fifo_low16=9000, reference_tick=65536, "
            "first_sample=1, min_step_ticks=2500, max_step_ticks=7500, allow_short_first_step=1, "
            "runtime_boundary_context=1, arm_start_raw_ns=5000, arm_boundary_event_raw_ns=4970, "
            "arm_boundary_uncertainty_ns=50, arm_boundary_age_ns=-30");
}

TEST(Decimation, ThirtyHertzEmitsFirstSampleThenThirtyOfEveryTwoHundred) {
  Decimator d(rate_profile_30hz);
  EXPECT_TRUE(d.admit());
  int emitted = 1;
  for (int i = 1; i <= 1000; ++i) {
    if (i % 200 == 0) {
      EXPECT_EQ(emitted, 30) << "window ending at " << i;
      emitted = 0;
    }
    if (d.admit()) ++emitted;
  }
  Decimator one_to_one(rate_profile_25hz);
  for (int i = 0; i < 50; ++i) EXPECT_TRUE(one_to_one.admit());
}

}  // namespace
}  // namespace pelmor_lusk
