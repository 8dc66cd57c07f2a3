// The opt-in bracket fit: a line through the anchors' brackets, judged by the
// same gates, whose stated uncertainty still covers the truth.
#include <gtest/gtest.h>

#include <cstdint>
#include <random>

#include "timing/bracket_line.hpp"
#include "timing/line_spread.hpp"
#include "timing/tmst_mapper.hpp"
#include "timing/tmst_mapping.hpp"
#include "timing_test_support.hpp"

namespace pelmor_lusk {
namespace {

using namespace testing_support;

std::uint64_t distance(std::uint64_t a, std::uint64_t b) { return a > b ? a - b : b - a; }

TEST(BracketLine, ThroughEveryBracketOrTheLeastWidenedOne) {
  // Brackets centred on the line are met exactly, however unequal.
  const TmstAnchor centred[] = {ideal(0, 7000), ideal(80000, 30000), ideal(160000, 5000), ideal(240000, 9000)};
  const BracketLine exact = fit_bracket_line(centred);
  ASSERT_TRUE(exact.valid);
  EXPECT_EQ(to_double(exact.slope_ns_per_tick), 1000.0);
  EXPECT_EQ(to_double(exact.intercept_ns), static_cast<double>(base_raw_ns));
  EXPECT_EQ(to_double(exact.widening_ns), 0.0);

  // Three points no line meets: the one that misses all three by the least.
  const TmstAnchor bent[] = {anchor(0, base_raw_ns, 0), anchor(1000, base_raw_ns + 10, 0),
                             anchor(2000, base_raw_ns, 0)};
  const BracketLine widened = fit_bracket_line(bent);
  ASSERT_TRUE(widened.valid);
  EXPECT_NEAR(to_double(widened.slope_ns_per_tick), 0.0, 1e-12);
  EXPECT_NEAR(to_double(widened.intercept_ns - to_q(base_raw_ns)), 5.0, 1e-9);
  EXPECT_NEAR(to_double(widened.widening_ns), 5.0, 1e-9);

  // The tightest slope bound comes from two narrow anchors in the middle, not
  // from any pair with the first or the last (both wide): the line still
  // passes through every bracket.
  const TmstAnchor middle_bound[] = {anchor(0, base_raw_ns, 50000), anchor(80000, base_raw_ns + 80'000'000, 1000),
                                     anchor(160000, base_raw_ns + 160'010'000, 1000),
                                     anchor(240000, base_raw_ns + 240'000'000, 50000)};
  const BracketLine through = fit_bracket_line(middle_bound);
  ASSERT_TRUE(through.valid);
  EXPECT_EQ(to_double(through.widening_ns), 0.0);
  EXPECT_GE(to_double(through.slope_ns_per_tick), 1000.1);
  EXPECT_LE(to_double(through.slope_ns_per_tick), 1000.15);

  const TmstAnchor repeated[] = {ideal(0), ideal(0)};
  EXPECT_FALSE(fit_bracket_line(repeated).valid);
}

TEST(BracketFit, AStretchedBracketTiltsTheMidpointFitButNotTheBracketFit) {
  // Sixteen 7 us half windows on the line; the return from the third message is
  // 60 us late, so its midpoint is 30 us late but its bracket still holds the latch.
  TmstMapper plain(false), bracket(true);
  for (std::uint64_t i = 0; i < 16; ++i) {
    TmstAnchor a = ideal(i * 80000, 7000);
    if (i == 2) a.raw_after_ns += 60000;
    plain.add_anchor(a, tmst_establish_residual_limit_ns);
    bracket.add_anchor(a, tmst_establish_residual_limit_ns);
  }
  ASSERT_TRUE(plain.fit().valid && bracket.fit().valid) << format_fit_diagnostic(bracket.last_rejected());
  const std::uint64_t next = 16 * 80000;  // one refresh interval past the newest
  const std::uint64_t truth = base_raw_ns + next * 1000;
  EXPECT_GT(distance(map_tmst_to_raw(plain.fit(), next, 0).raw_ns, truth), 2000U);
  const TmstMapping m = map_tmst_to_raw(bracket.fit(), next, 0);
  EXPECT_LE(distance(m.raw_ns, truth), 1U);
  // Judged by the same quantities: the stretched midpoint is the worst residual.
  EXPECT_EQ(bracket.fit().max_residual_ns, 30000U);
  EXPECT_EQ(bracket.fit().max_half_window_ns, 37000U);
}

// Early anchors while the window is short: an eighth of the span ahead, not
// closer than 40 ms to the newest, and never without the flag.
TEST(BracketFit, AsksForAnEarlyAnchorOnceAnEighthSpanPastTheNewest) {
  TmstMapper m(true), midpoint(false);
  for (std::uint64_t i = 0; i < 5; ++i) {
    ASSERT_EQ(m.add_anchor(ideal(i * 100000), 50000), i >= 3);
    midpoint.add_anchor(ideal(i * 100000), 50000);
  }
  ASSERT_EQ(m.fit().span_ticks, 400000U);
  EXPECT_FALSE(m.wants_early_anchor(400000 + 50000)) << "exactly an eighth";
  EXPECT_TRUE(m.wants_early_anchor(400000 + 50001));
  EXPECT_FALSE(m.wants_early_anchor(300000)) << "behind the newest";
  EXPECT_FALSE(midpoint.wants_early_anchor(400000 + 50001));

  TmstMapper narrow(true);
  for (std::uint64_t i = 0; i < 4; ++i) narrow.add_anchor(ideal(i * 10000), 50000);
  ASSERT_TRUE(narrow.fit().valid);
  EXPECT_FALSE(narrow.wants_early_anchor(30000 + 39999));
  EXPECT_TRUE(narrow.wants_early_anchor(30000 + 40000));
}

TEST(BracketFit, AFarOffLatchStillBreaksTheResidualLimit) {
  // 90 us off the line in a 95 us half window: its bracket holds the line, but
  // the midpoint gate refuses it as it would for the midpoint fit.
  TmstMapper m(true);
  for (std::uint64_t tick = 0; tick < 50000; tick += 10000) m.add_anchor(ideal(tick), 50000);
  EXPECT_FALSE(m.add_anchor(anchor(50000, base_raw_ns + 50'090'000, 95000), 50000));
  EXPECT_EQ(m.last_rejected().reject_reason, FitRejectReason::residual_too_large);
  EXPECT_EQ(m.anchors().size(), 5U);
  EXPECT_TRUE(m.fit().valid);
}

// A window filled while every snapshot was stretched the same way (latches at
// the start of 95 us brackets) agrees on a line well off the truth; the first
// quick anchor pulls the line to the truth, far from the old midpoints. The
// midpoint fit refuses it, and would refuse every later one; the bracket fit
// takes it, and its stated uncertainty still carries the old brackets.
TEST(BracketFit, AQuickAnchorIsTakenAfterAWindowOfStretchedOnes) {
  for (const bool bracket_fit : {false, true}) {
    TmstMapper m(bracket_fit);
    for (std::uint64_t tick = 0; tick < 150000; tick += 10000) {
      m.add_anchor(anchor(tick, base_raw_ns + tick * 1000 + 90000, 95000), 50000);
    }
    ASSERT_TRUE(m.fit().valid);
    EXPECT_EQ(m.add_anchor(ideal(150000), 50000), bracket_fit);
    if (!bracket_fit) continue;
    EXPECT_EQ(m.anchors().size(), 16U);
    EXPECT_GE(m.fit().max_residual_ns, 80000U);
  }
}

TEST(LatchBracket, NarrowsToWhereTheLatchCanBeAndKeepsAShorterBracketWhole) {
  const LatchMargins kernel{1600, 24800};
  const TmstAnchor narrowed = narrowed_to_latch(TmstAnchor{5, 1000, 41000}, kernel);
  EXPECT_EQ(narrowed.tick, 5U);
  EXPECT_EQ(narrowed.raw_before_ns, 2600U);
  EXPECT_EQ(narrowed.raw_after_ns, 16200U);
  const TmstAnchor least = narrowed_to_latch(TmstAnchor{5, 1000, 27400}, kernel);
  EXPECT_EQ(least.raw_before_ns, 2600U);
  EXPECT_EQ(least.raw_after_ns, 2600U) << "exactly the least time: one instant";
  const TmstAnchor shorter{5, 1000, 27399};
  EXPECT_EQ(narrowed_to_latch(shorter, kernel).raw_before_ns, 1000U) << "not measured around such a message";
  EXPECT_EQ(narrowed_to_latch(shorter, kernel).raw_after_ns, 27399U);
}

TEST(LatchBracket, TheKernelsLateMidpointIsGoneAndTheBoundTightens) {
  // As a kernel runs the snapshot: 3-9 us of entry, the strobe byte out 1.6 us
  // later, at least 24.8 us of pauses and transfers after it, then 4-10 us of
  // return; the fifth message's return is preempted for 60 us.
  const LatchMargins kernel{1600, 24800};
  const auto true_raw = [](std::uint64_t tick) {
    return base_raw_ns + static_cast<std::uint64_t>(static_cast<double>(tick) * (1000.0 / 1.0025));
  };
  TmstMapper midpoint(false), whole_bracket(true), latch_bracket(true, kernel);
  for (std::uint64_t i = 0; i < 16; ++i) {
    const std::uint64_t tick = i * 80000;
    const std::uint64_t entry = 3000 + (i * 1700) % 6000;
    std::uint64_t back = 4000 + (i * 2300) % 6000;
    if (i == 4) back += 60000;
    const std::uint64_t latch = true_raw(tick);
    const TmstAnchor a{tick, latch - kernel.before_ns - entry, latch + kernel.after_ns + back};
    for (TmstMapper* m : {&midpoint, &whole_bracket, &latch_bracket}) m->add_anchor(a, tmst_establish_residual_limit_ns);
  }
  ASSERT_TRUE(midpoint.fit().valid);
  ASSERT_TRUE(latch_bracket.fit().valid);
  const std::uint64_t tick = 16 * 80000;
  const TmstMapping late = map_tmst_to_raw(midpoint.fit(), tick, 0);
  const TmstMapping also_late = map_tmst_to_raw(whole_bracket.fit(), tick, 0);
  const TmstMapping latched = map_tmst_to_raw(latch_bracket.fit(), tick, 0);
  EXPECT_GT(late.raw_ns, true_raw(tick) + 8000) << "the midpoint sits late in every bracket";
  EXPECT_GT(also_late.raw_ns, true_raw(tick) + 8000);
  EXPECT_LE(distance(latched.raw_ns, true_raw(tick)), 3000U);
  EXPECT_LE(distance(latched.raw_ns, true_raw(tick)), std::uint64_t{latched.uncertainty_us} * 1000);
  EXPECT_LT(latched.uncertainty_us + 10, late.uncertainty_us);
}

TEST(LineSpread, ChordsBetweenBracketsRaysBeyondThemAndBoundsFromAbove) {
  // Two 100 ns brackets 1000 ticks apart, on 1000 ns per tick.
  const TmstAnchor two[] = {TmstAnchor{1000, 1000000, 1000100}, TmstAnchor{2000, 2000000, 2000100}};
  const auto at = [&](std::uint64_t tick, std::span<const UpperBound> bounds = {}) {
    return line_spread_at(two, bounds, tick);
  };
  LineSpread s = at(1500);
  ASSERT_TRUE(s.feasible);
  EXPECT_EQ(to_double(s.low_ns), 1500000.0);
  EXPECT_EQ(to_double(s.high_ns), 1500100.0);
  s = at(3000);  // beyond: the steepest and the flattest line through both
  EXPECT_EQ(to_double(s.high_ns), 3000200.0);
  EXPECT_EQ(to_double(s.low_ns), 2999900.0);
  s = at(0);  // before both, mirrored
  EXPECT_EQ(to_double(s.high_ns), 200.0);
  EXPECT_EQ(to_double(s.low_ns), -100.0);
  s = at(2000);
  EXPECT_EQ(to_double(s.high_ns), 2000100.0);

  // An edge stamped 20 ns after the line's lowest reach at 3000 caps the top
  // there and, through the first bracket, beyond it.
  const UpperBound stamp[] = {UpperBound{3000, 2999920}};
  s = at(3000, stamp);
  ASSERT_TRUE(s.feasible);
  EXPECT_EQ(to_double(s.high_ns), 2999920.0);
  EXPECT_LT(to_double(at(4000, stamp).high_ns), to_double(at(4000).high_ns));
  EXPECT_EQ(to_double(at(4000, stamp).low_ns), to_double(at(4000).low_ns)) << "a bound from above never lifts the bottom";
  // One below every line the brackets allow: nothing passes.
  const UpperBound wrong[] = {UpperBound{3000, 2999800}};
  EXPECT_FALSE(at(3000, wrong).feasible);
  EXPECT_FALSE(line_spread_at(std::span<const TmstAnchor>{}, {}, 10).feasible);
}

TEST(LatchBracket, StatedBoundHoldsTightensWithStampsAndRefusesAWrongSideOne) {
  // Kernel-like brackets around a 2500 ppm fast counter, one return preempted
  // for 60 us; edges stamped 3-40 us after their samples; one spurious edge
  // stamped 2 ms before its sample is offered too.
  const LatchMargins kernel{1600, 24800};
  const auto true_raw = [](std::uint64_t tick) {
    return base_raw_ns + static_cast<std::uint64_t>(static_cast<double>(tick) * (1000.0 / 1.0025));
  };
  std::mt19937_64 rng(3);
  std::uniform_int_distribution<std::uint64_t> entry(3000, 9000), back(4000, 10000), latency(3000, 40000);
  TmstMapper m(true, kernel);
  std::uint64_t judged = 0, tight_sum = 0, sum_sum = 0;
  for (std::uint64_t i = 0; i < 64; ++i) {
    const std::uint64_t anchor_tick = i * 80000;
    const std::uint64_t latch = true_raw(anchor_tick);
    const std::uint64_t late = i == 9 ? 60000 : 0;
    m.add_anchor(TmstAnchor{anchor_tick, latch - kernel.before_ns - entry(rng), latch + kernel.after_ns + back(rng) + late},
                 tmst_establish_residual_limit_ns);
    if (!m.fit().valid) continue;
    for (std::uint64_t k = 1; k <= 16; ++k) {
      const std::uint64_t tick = anchor_tick + k * 5000;
      const TmstMapping mapped = map_tmst_to_raw(m.fit(), tick, 0);
      const bool spurious = i == 20 && k == 3;
      const std::uint64_t stamp = spurious ? true_raw(tick) - 2000000 : true_raw(tick) + latency(rng);
      const std::optional<TightMapping> tight = m.bound_sample(tick, stamp);
      ASSERT_TRUE(tight.has_value()) << "anchor " << i;
      EXPECT_LE(distance(tight->raw_ns, true_raw(tick)), std::uint64_t{tight->uncertainty_us} * 1000)
          << "anchor " << i << " +" << k;
      EXPECT_LE(tight->uncertainty_us, mapped.uncertainty_us);
      tight_sum += tight->uncertainty_us;
      sum_sum += mapped.uncertainty_us;
      ++judged;
    }
  }
  EXPECT_GT(judged, 900U);
  EXPECT_LT(tight_sum * 2, sum_sum) << "on average less than half the specified sum";
  TmstMapper midpoint(false);
  midpoint.add_anchor(ideal(0), 50000);
  EXPECT_FALSE(midpoint.bound_sample(0, base_raw_ns).has_value()) << "only with the bracket fit";
}

class StatedUncertainty : public testing::TestWithParam<bool> {};

TEST_P(StatedUncertainty, CoversTheTruthWithLatchesAnywhereInTheirBrackets) {
  // A counter 2500 ppm fast; brackets of 4-15 us half window, one in twenty
  // stretched on one side up to 90 us, the latch anywhere inside, ends included.
  std::mt19937_64 rng(7);
  std::uniform_int_distribution<std::uint64_t> half(4000, 15000), stretch(0, 180000), where(0, 4);
  std::uniform_real_distribution<double> inside(0.0, 1.0);
  const auto true_raw = [](std::uint64_t tick) {
    return base_raw_ns + static_cast<std::uint64_t>(static_cast<double>(tick) * (1000.0 / 1.0025));
  };
  TmstMapper m(GetParam());
  int judged = 0;
  for (std::uint64_t i = 0; i < 400; ++i) {
    const std::uint64_t tick = 20000 + i * 80000;
    std::uint64_t before = half(rng), after = half(rng);
    if (i % 20 == 7) (i % 40 == 7 ? after : before) += stretch(rng);
    const std::uint64_t width = before + after;
    const std::uint64_t pick = where(rng);
    const std::uint64_t offset = pick == 0 ? 0 : pick == 1 ? width : static_cast<std::uint64_t>(inside(rng) * static_cast<double>(width));
    const std::uint64_t start = true_raw(tick) - offset;
    m.add_anchor(TmstAnchor{tick, start, start + width}, tmst_establish_residual_limit_ns);
    if (!m.fit().valid) continue;
    for (std::uint64_t ahead : {0U, 1000U, 40000U, 80000U}) {
      const TmstMapping mapped = map_tmst_to_raw(m.fit(), tick + ahead, 0);
      ASSERT_NE(mapped.raw_ns, 0U);
      EXPECT_LE(distance(mapped.raw_ns, true_raw(tick + ahead)), std::uint64_t{mapped.uncertainty_us} * 1000)
          << "anchor " << i << " +" << ahead << ": " << format_fit_diagnostic(m.fit());
      ++judged;
    }
  }
  EXPECT_GT(judged, 1000);
}

INSTANTIATE_TEST_SUITE_P(BothFits, StatedUncertainty, testing::Bool(),
                         [](const testing::TestParamInfo<bool>& p) { return p.param ? "bracket" : "midpoint"; });

}  // namespace
}  // namespace pelmor_lusk
