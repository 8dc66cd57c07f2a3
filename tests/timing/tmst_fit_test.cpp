#include <gtest/gtest.h>

#include <stdexcept>

#include "timing/anchor_map.hpp"
#include "timing/tmst_mapper.hpp"
#include "timing/tmst_mapping.hpp"
#include "timing/tmst_timebase.hpp"
#include "timing_test_support.hpp"

namespace pelmor_lusk {
namespace {

using namespace testing_support;

TEST(UnwrapTick, ExtendsTwentyBitReadingsAcrossWraps) {
  TmstUnwrapState s;
  EXPECT_EQ(unwrap_tick(s, 0xF0FFFFF), 0x0FFFFFU);  // bits above the width are ignored
  EXPECT_EQ(unwrap_tick(s, 0x000005), 0x100005U);
  EXPECT_EQ(unwrap_tick(s, 0x000005), 0x100005U);  // unchanged reading: same tick, no wrap
  EXPECT_EQ(unwrap_tick(s, 0x0FFFFF), 0x1FFFFFU);
  EXPECT_EQ(s.wrap_count, 1U);

  // With host instants a gap of several turns keeps every wrap; a short one is
  // read as before, even with a host clock that disagrees by a lot.
  TmstUnwrapState timed;
  const std::uint64_t t0 = 5'000'000'000;
  EXPECT_EQ(unwrap_tick(timed, 1000, t0), 1000U);
  EXPECT_EQ(unwrap_tick(timed, 900'000, t0 + 899'000'000), 900'000U);
  const std::uint64_t far = 900'000 + 3'000'000;  // three seconds later: two turns and more
  EXPECT_EQ(unwrap_tick(timed, static_cast<std::uint32_t>(far & 0xFFFFF), t0 + 3'899'000'000), far);
  EXPECT_EQ(timed.wrap_count, 3U);
  EXPECT_EQ(unwrap_tick(timed, static_cast<std::uint32_t>((far + 10) & 0xFFFFF), t0 + 3'899'000'000 + 400'000'000),
            far + 10);  // 400 ms of host time for 10 ticks is still the same turn
  EXPECT_EQ(unwrap_tick(timed, static_cast<std::uint32_t>((far + 20) & 0xFFFFF)), far + 20);  // no host instant
  EXPECT_EQ(timed.wrap_count, 3U);

  // Exactly half a turn ahead of the plain reading is still that reading's turn.
  TmstUnwrapState half{};
  unwrap_tick(half, 0, t0);
  EXPECT_EQ(unwrap_tick(half, 10, t0 + (10 + 0x80000) * 1000), 10U);

  TmstUnwrapState widest{31};
  EXPECT_EQ(unwrap_tick(widest, 0x7FFFFFFF), 0x7FFFFFFFU);  // 31 bits is the widest allowed
  for (std::uint32_t width : {0U, 32U}) {
    TmstUnwrapState bad{width};
    EXPECT_EQ(error_of<std::invalid_argument>([&] { unwrap_tick(bad, 1); }), "timestamp bit width must be 1..31");
  }
}

TEST(TmstFit, WarmsUpThenRefusesBadAnchorsWithoutTouchingTheFit) {
  TmstMapper m;
  for (std::uint64_t tick : {0U, 3333U, 6666U}) EXPECT_FALSE(m.add_anchor(ideal(tick), 50000));
  EXPECT_EQ(m.last_rejected.reject_reason, fit_reject_insufficient_anchors);
  EXPECT_FALSE(m.add_anchor(ideal(9999), 50000));
  EXPECT_EQ(m.last_rejected.reject_reason, fit_reject_insufficient_span);
  EXPECT_EQ(m.anchor_count, 4U);  // warm-up keeps what it has

  ASSERT_TRUE(m.add_anchor(ideal(10000), 50000));
  EXPECT_EQ(format_fit_diagnostic(m.fit),
            "reason=none, anchors=5, span_ticks=10000, slope_ns_per_tick=1000, slope_error_ppm=200, "
            "max_half_window_ns=1000, max_residual_ns=0");

  EXPECT_FALSE(m.add_anchor(TmstAnchor{20000, 5, 4}, 50000));
  EXPECT_EQ(m.last_rejected.reject_reason, fit_reject_anchor_window_reversed);
  EXPECT_FALSE(m.add_anchor(TmstAnchor{20000, 0, 200001}, 50000));
  EXPECT_EQ(format_fit_diagnostic(m.last_rejected),
            "reason=anchor_window_too_wide, anchors=5, span_ticks=10000, slope_ns_per_tick=1000, "
            "slope_error_ppm=200, max_half_window_ns=100001, max_residual_ns=0");
  EXPECT_FALSE(m.add_anchor(ideal(10000), 50000));
  EXPECT_EQ(m.last_rejected.reject_reason, fit_reject_non_monotonic_anchor);
  EXPECT_EQ(m.anchor_count, 5U);
  EXPECT_TRUE(m.fit.valid);

  // A 200000 ns bracket is exactly the 100 us half window and still allowed.
  EXPECT_TRUE(m.add_anchor(ideal(20000, 100000), 50000));
}

TEST(TmstFit, EachGateOfTheFitNamesItsReason) {
  const std::array<TmstAnchor, 4> cases[] = {
      // Below zero at tick 0.
      {anchor(0, 0, 0), anchor(10000, 0, 0), anchor(20000, 0, 0), anchor(30000, 3'000'000'000, 0)},
      // 1200 ns per tick: 20 % off nominal.
      {anchor(0, base_raw_ns), anchor(10000, base_raw_ns + 12'000'000), anchor(20000, base_raw_ns + 24'000'000),
       anchor(30000, base_raw_ns + 36'000'000)},
      // Only refit sees a stored window this wide; add_anchor refuses it earlier.
      {ideal(0), ideal(10000, 150000), ideal(20000), ideal(30000)},
      {ideal(0), anchor(10000, base_raw_ns + 10'000'100), ideal(20000), ideal(30000)},
  };
  const std::uint32_t reasons[] = {fit_reject_prediction_overflow, fit_reject_slope_out_of_range,
                                   fit_reject_bridge_window_too_wide, fit_reject_residual_too_large};
  for (int i = 0; i < 4; ++i) {
    TmstMapper m;
    std::copy(cases[i].begin(), cases[i].end(), m.anchors.begin());
    m.anchor_count = 4;
    EXPECT_FALSE(m.refit(10));
    EXPECT_EQ(m.last_rejected.reject_reason, reasons[i]);
    EXPECT_EQ(m.last_rejected.anchors, 4U);
    // The post-fit gates leave the values in the fit; an overflow leaves it empty.
    EXPECT_FALSE(m.fit.valid);
    EXPECT_EQ(m.fit.reject_reason, 0U);
    EXPECT_EQ(m.fit.span_ticks, i == 0 ? 0U : 30000U);
  }
  EXPECT_STREQ(fit_reject_reason_name(fit_reject_degenerate_fit), "degenerate_fit");
  EXPECT_STREQ(fit_reject_reason_name(12), "unknown");
}

TEST(TmstFit, APredictionOfExactlyZeroIsInRange) {
  // The counter's zero latched at RAW zero, with exact brackets.
  TmstMapper m;
  for (std::uint64_t tick = 0; tick <= 30000; tick += 10000) m.add_anchor(TmstAnchor{tick, tick * 1000, tick * 1000}, 50000);
  EXPECT_TRUE(m.fit.valid) << format_fit_diagnostic(m.last_rejected);
}

TEST(TmstFit, KeepsFullPrecisionNearTheTopOfTheRange) {
  // Midpoints near 1.8e19 ns: in double each would be off by up to 1 us.
  const std::uint64_t base = 18'000'000'000'000'000'000ULL;
  const std::uint64_t first = std::uint64_t{1} << 40;
  TmstMapper m;
  for (std::uint64_t i = 0; i < 6; ++i) {
    const std::uint64_t tick = first + i * 10007;
    EXPECT_EQ(m.add_anchor(anchor(tick, base + (tick - first) * 1001 + i % 2, 3), 50000), i >= 3);
  }
  EXPECT_LE(m.fit.max_residual_ns, 1U);
  EXPECT_NEAR(to_double(m.fit.slope_ns_per_tick), 1001.0, 1e-3);

  // A residual exactly at the limit passes.
  TmstMapper at_limit;
  for (std::uint64_t i = 0; i < 4; ++i) {
    const std::uint64_t mid = base_raw_ns + i * 10'000'000;
    at_limit.add_anchor(anchor(i * 10000, i == 0 || i == 3 ? mid + 50000 : mid - 50000), 50000);
  }
  EXPECT_TRUE(at_limit.fit.valid) << fit_reject_reason_name(at_limit.last_rejected.reject_reason);
  EXPECT_EQ(at_limit.fit.max_residual_ns, 50000U);

  // An anchor exactly at the top of the range is still in it.
  TmstMapper top;
  for (std::uint64_t i = 0; i < 4; ++i) {
    const std::uint64_t mid = UINT64_MAX - (3 - i) * 10'000'000;
    top.add_anchor(TmstAnchor{i * 10000, mid, mid}, 50000);
  }
  EXPECT_TRUE(top.fit.valid) << fit_reject_reason_name(top.last_rejected.reject_reason);
}

TEST(TmstFit, PastWarmUpABreakingAnchorIsUndoneUnlessTheWindowWasFull) {
  // Warm-up ends with the fourth anchor once the span reaches 10000 ticks: from
  // then on a breaking anchor is undone, even when it is the one that makes the span.
  TmstMapper short_span;
  for (std::uint64_t tick = 0; tick <= 7500; tick += 2500) short_span.add_anchor(ideal(tick), 50000);
  EXPECT_FALSE(short_span.add_anchor(anchor(10000, base_raw_ns + 10'300'000), 50000));
  EXPECT_EQ(short_span.anchor_count, 4U);

  TmstMapper m = ideal_mapper(8);
  EXPECT_FALSE(m.add_anchor(anchor(80000, base_raw_ns + 80'100'000), 50000));
  EXPECT_EQ(m.last_rejected.reject_reason, fit_reject_residual_too_large);
  EXPECT_EQ(m.anchor_count, 8U);
  EXPECT_EQ(m.anchors[7].tick, 70000U);
  EXPECT_TRUE(m.fit.valid);

  TmstMapper full = ideal_mapper(17);  // the 17th already pushed the first out
  EXPECT_EQ(full.anchors[0].tick, 10000U);
  EXPECT_FALSE(full.add_anchor(anchor(170000, base_raw_ns + 170'100'000), 50000));
  EXPECT_EQ(full.anchor_count, 16U);
  EXPECT_EQ(full.anchors[0].tick, 20000U);
  EXPECT_EQ(full.anchors[15].tick, 170000U);
  EXPECT_TRUE(full.fit.valid);
  EXPECT_EQ(full.fit.first_tick, 10000U);
  EXPECT_EQ(full.fit.last_tick, 160000U);
}

TEST(WideAnchors, AWideOlderAnchorIsDroppedOnlyWhenFarWiderThanItsPeers) {
  const auto mapper_with_halves = [](std::initializer_list<std::uint64_t> halves) {
    TmstMapper m;
    std::uint64_t tick = 0;
    for (std::uint64_t half : halves) m.anchors[m.anchor_count++] = ideal(tick += 10000, half);
    return m;
  };
  TmstMapper m = mapper_with_halves({1000, 1000, 26000, 1000, 1000});
  EXPECT_TRUE(m.drop_wide_anchor());
  ASSERT_EQ(m.anchor_count, 4U);
  EXPECT_EQ(m.anchors[2].tick, 40000U);  // the later anchors moved up in order
  EXPECT_EQ(m.anchors[3].tick, 50000U);

  EXPECT_FALSE(mapper_with_halves({1000, 25000, 1000, 1000}).drop_wide_anchor());     // not above the floor
  EXPECT_FALSE(mapper_with_halves({10000, 30000, 10000, 10000}).drop_wide_anchor());  // three times its peers
  EXPECT_TRUE(mapper_with_halves({10000, 30001, 10000, 10000}).drop_wide_anchor());
  EXPECT_FALSE(mapper_with_halves({1000, 1000, 1000, 90000}).drop_wide_anchor());     // the newest stays
  EXPECT_TRUE(mapper_with_halves({1000, 90000, 1000}).drop_wide_anchor());  // two peers are enough
  EXPECT_FALSE(mapper_with_halves({10000, 100000, 40000}).drop_wide_anchor());  // of two, the upper is the median
  TmstMapper tied = mapper_with_halves({1000, 90000, 90000, 1000, 1000});
  EXPECT_TRUE(tied.drop_wide_anchor());
  EXPECT_EQ(tied.anchors[1].tick, 30000U);  // of two equally wide, the older goes
  EXPECT_FALSE(mapper_with_halves({90000, 1000}).drop_wide_anchor());
}

TEST(WideAnchors, OneStretchedSnapshotCannotPoisonTheWindow) {
  // In warm-up: its latch 90 us off the line breaks the residual of every later
  // fit, so it leaves and the next anchor completes the map.
  TmstMapper warm;
  warm.add_anchor(ideal(0), 50000);
  warm.add_anchor(anchor(10000, base_raw_ns + 10'090'000, 95000), 50000);
  warm.add_anchor(ideal(20000), 50000);
  EXPECT_FALSE(warm.add_anchor(ideal(30000), 50000));
  EXPECT_EQ(warm.last_rejected.reject_reason, fit_reject_residual_too_large);
  EXPECT_EQ(warm.anchor_count, 3U);
  EXPECT_TRUE(warm.add_anchor(ideal(40000), 50000));
  EXPECT_EQ(warm.fit.max_half_window_ns, 1000U);

  // Past warm-up it got in under the limit; good anchors pull the line away
  // from it until its residual breaks the limit, and then it goes.
  TmstMapper m = ideal_mapper(5);
  ASSERT_TRUE(m.add_anchor(anchor(50000, base_raw_ns + 50'060'000, 90000), 50000));
  for (std::uint64_t tick = 60000; tick <= 200000; tick += 10000) {
    EXPECT_TRUE(m.add_anchor(ideal(tick), 50000)) << tick;
  }
  EXPECT_EQ(m.fit.max_half_window_ns, 1000U);
  EXPECT_EQ(m.fit.max_residual_ns, 0U);

  // A gated anchor: the wide one's half window alone keeps the sample outside the gate.
  TmstMapper gated = ideal_mapper(6);
  ASSERT_TRUE(gated.add_anchor(ideal(60000, 95000), 50000));
  EXPECT_FALSE(map_tmst_to_raw(gated, 70000, 110000).valid);
  EXPECT_TRUE(add_anchor_gated(gated, ideal(70000), 70000, 110000));
  EXPECT_EQ(gated.fit.max_half_window_ns, 1000U);
  EXPECT_EQ(gated.anchors[gated.anchor_count - 1].tick, 70000U);
}

// A map built while every snapshot was stretched the same way agrees with
// itself, well off the true line; only a rebuild lets precise anchors back in.
TEST(WideAnchors, AWindowOfStretchedAnchorsIsOutshoneByAPreciseOne) {
  // Brackets just under the gate, every latch late_ns before the midpoint.
  const auto stretched_window = [](std::uint64_t late_ns) {
    TmstMapper m;
    for (std::uint64_t tick = 0; tick <= 150000; tick += 10000) {
      m.add_anchor(anchor(tick, base_raw_ns + tick * 1000 + late_ns, 99000), 50000);
    }
    return m;
  };
  const auto stretched_snapshot = [](std::uint64_t tick) {
    TmstSnapshot s = ideal_snapshot(tick, 99000);
    s.raw_before_ns += 98000;
    s.raw_after_ns += 98000;
    return s;
  };
  const auto unwrapped_to = [](std::uint64_t tick) {
    TmstUnwrapState unwrap;
    unwrap_tick(unwrap, static_cast<std::uint32_t>(tick));
    return unwrap;
  };
  const auto quick_from = [](std::uint64_t tick) {
    return ScriptedSource([tick](int i) { return ideal_snapshot(tick + 1000 * static_cast<std::uint64_t>(i)); });
  };

  TmstMapper m = stretched_window(98000);
  ASSERT_TRUE(m.fit.valid);
  EXPECT_TRUE(window_outshone_by(m, ideal(160000)));
  EXPECT_FALSE(window_outshone_by(m, ideal(160000, 33000)));  // three times is not far wider
  EXPECT_TRUE(window_outshone_by(m, ideal(160000, 32999)));
  EXPECT_FALSE(window_outshone_by(ideal_mapper(8, 25000), ideal(80000, 1)));  // not above the floor
  EXPECT_TRUE(window_outshone_by(ideal_mapper(8, 25001), ideal(80000, 1)));
  EXPECT_FALSE(window_outshone_by(TmstMapper{}, ideal(0)));

  // The refresh refuses the precise anchor and says so; one that agrees with
  // the window goes in and clears it.
  TmstUnwrapState unwrap = unwrapped_to(150000);
  ScriptedSource precise = quick_from(160000);
  EXPECT_FALSE(insert_fresh_anchor(m, unwrap, precise, AnchorGate::sample(160000, 1000)));
  EXPECT_EQ(precise.snapshots, 1);
  EXPECT_EQ(m.last_rejected.reject_reason, fit_reject_residual_too_large);
  EXPECT_TRUE(m.outshone);
  ScriptedSource agreeing([&](int) { return stretched_snapshot(170000); });
  EXPECT_TRUE(insert_fresh_anchor(m, unwrap, agreeing, AnchorGate::plain()));
  EXPECT_FALSE(m.outshone);

  // Latches closer to the truth: a precise anchor fits, but the wide half
  // windows alone keep the sample outside the gate.
  TmstMapper near = stretched_window(40000);
  TmstUnwrapState near_unwrap = unwrapped_to(150000);
  ScriptedSource quick = quick_from(160000);
  EXPECT_FALSE(insert_fresh_anchor(near, near_unwrap, quick, AnchorGate::sample(160000, 80000)));
  EXPECT_EQ(near.last_rejected.reject_reason, fit_reject_sample_uncertainty_too_large);
  EXPECT_TRUE(near.outshone);

  // The other way round, a stretched anchor refused by a precise window, is
  // no reason to rebuild.
  TmstMapper narrow = ideal_mapper(8);
  TmstUnwrapState narrow_unwrap = unwrapped_to(70000);
  ScriptedSource off([&](int) { return stretched_snapshot(80000); });
  EXPECT_FALSE(insert_fresh_anchor(narrow, narrow_unwrap, off, AnchorGate::plain()));
  EXPECT_FALSE(narrow.outshone);
}

TEST(EstablishAnchorMap, StopsAtFourAcceptedFitsOrGivesUpAfterSixteen) {
  TmstMapper m;
  TmstUnwrapState unwrap;

  // 20000 ticks apart from just below the 20-bit wrap: the fourth gives the first valid fit.
  ScriptedSource good([](int i) { return ideal_snapshot(0xFF000 + static_cast<std::uint64_t>(i) * 20000); });
  establish_anchor_map(m, unwrap, good);
  EXPECT_EQ(good.snapshots, 7);
  EXPECT_EQ(good.pauses, 6);
  EXPECT_EQ(good.last_pause_ns, 20'000'000);
  EXPECT_TRUE(m.fit.valid);
  EXPECT_EQ(m.fit.span_ticks, 120000U);

  TmstMapper fresh;
  TmstUnwrapState fresh_unwrap;
  ScriptedSource stretched([](int i) { return ideal_snapshot(static_cast<std::uint64_t>(i) * 20000, 150000); });
  EXPECT_EQ(error_of<std::runtime_error>([&] { establish_anchor_map(fresh, fresh_unwrap, stretched); }),
            "failed to establish TMST to RAW anchor map after 16 attempts, accepted=0: "
            "reason=anchor_window_too_wide, anchors=0, span_ticks=0, slope_ns_per_tick=0, slope_error_ppm=0, "
            "max_half_window_ns=150000, max_residual_ns=0");
  EXPECT_EQ(stretched.snapshots, 16);
  EXPECT_EQ(stretched.pauses, 15);
}

TEST(FreshAnchors, OnlyAStretchedBracketOrAnOpenGateIsWorthAnotherSnapshot) {
  const AnchorGate plain = AnchorGate::plain();
  const AnchorGate gated = AnchorGate::sample(50000, 0);
  EXPECT_TRUE(fresh_anchor_worth_retrying(1, fit_reject_anchor_window_too_wide, plain));
  EXPECT_TRUE(fresh_anchor_worth_retrying(2, fit_reject_anchor_window_too_wide, gated));
  EXPECT_FALSE(fresh_anchor_worth_retrying(3, fit_reject_anchor_window_too_wide, plain));
  EXPECT_FALSE(fresh_anchor_worth_retrying(1, fit_reject_residual_too_large, gated));
  EXPECT_FALSE(fresh_anchor_worth_retrying(1, fit_reject_sample_uncertainty_too_large, plain));
  EXPECT_TRUE(fresh_anchor_worth_retrying(2, fit_reject_sample_uncertainty_too_large, gated));
  EXPECT_FALSE(fresh_anchor_worth_retrying(3, fit_reject_sample_uncertainty_too_large, gated));

  // Two stretched brackets, then one that goes in: the third snapshot is taken
  // and its tick reported.
  TmstMapper m = ideal_mapper(4);
  TmstUnwrapState unwrap;
  ScriptedSource recovering([](int i) { return ideal_snapshot(40000 + 1000 * static_cast<std::uint64_t>(i), i < 2 ? 150000 : 1000); });
  std::uint64_t tick = 0;
  EXPECT_TRUE(insert_fresh_anchor(m, unwrap, recovering, plain, &tick));
  EXPECT_EQ(recovering.snapshots, 3);
  EXPECT_EQ(tick, 42000U);
  EXPECT_EQ(m.anchor_count, 5U);

  // Always stretched: no fourth attempt, and the map keeps its anchors.
  ScriptedSource stretched([](int i) { return ideal_snapshot(50000 + 1000 * static_cast<std::uint64_t>(i), 150000); });
  EXPECT_FALSE(insert_fresh_anchor(m, unwrap, stretched, plain));
  EXPECT_EQ(stretched.snapshots, 3);
  EXPECT_EQ(m.anchor_count, 5U);

  // Any other refusal ends the attempts at once.
  ScriptedSource stale([](int) { return ideal_snapshot(100); });
  TmstUnwrapState fresh_unwrap;
  EXPECT_FALSE(insert_fresh_anchor(m, fresh_unwrap, stale, gated));
  EXPECT_EQ(stale.snapshots, 1);
  EXPECT_EQ(m.last_rejected.reject_reason, fit_reject_non_monotonic_anchor);
}

}  // namespace
}  // namespace pelmor_lusk
