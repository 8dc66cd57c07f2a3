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

// Offers the anchors one by one, as the boundary arming does.
void fill_window(TmstTimebase& timebase, ScriptedSource& source, std::vector<TmstAnchor> anchors) {
  const std::size_t count = anchors.size();
  source.feed(std::move(anchors));
  for (std::size_t i = 0; i < count; ++i) timebase.insert_fresh_anchor(AnchorGate::plain());
}

TEST(UnwrapTick, ExtendsTwentyBitReadingsAcrossWraps) {
  TmstUnwrap s;
  EXPECT_EQ(s.unwrap(0xF0FFFFF), 0x0FFFFFU);  // bits above the width are ignored
  EXPECT_EQ(s.unwrap(0x000005), 0x100005U);
  EXPECT_EQ(s.unwrap(0x000005), 0x100005U);  // unchanged reading: same tick, no wrap
  EXPECT_EQ(s.unwrap(0x0FFFFF), 0x1FFFFFU);
  EXPECT_EQ(s.wrap_count(), 1U);
  s.reset();
  EXPECT_EQ(s.unwrap(0x000005), 0x000005U);
  EXPECT_EQ(s.wrap_count(), 0U);

  // With host instants a gap of several turns keeps every wrap; a short one is
  // read as before, even with a host clock that disagrees by a lot.
  TmstUnwrap timed;
  const std::uint64_t t0 = 5'000'000'000;
  EXPECT_EQ(timed.unwrap(1000, t0), 1000U);
  EXPECT_EQ(timed.unwrap(900'000, t0 + 899'000'000), 900'000U);
  const std::uint64_t far = 900'000 + 3'000'000;  // three seconds later: two turns and more
  EXPECT_EQ(timed.unwrap(static_cast<std::uint32_t>(far & 0xFFFFF), t0 + 3'899'000'000), far);
  EXPECT_EQ(timed.wrap_count(), 3U);
  EXPECT_EQ(timed.unwrap(static_cast<std::uint32_t>((far + 10) & 0xFFFFF), t0 + 3'899'000'000 + 400'000'000),
            far + 10);  // 400 ms of host time for 10 ticks is still the same turn
  EXPECT_EQ(timed.unwrap(static_cast<std::uint32_t>((far + 20) & 0xFFFFF)), far + 20);  // no host instant
  EXPECT_EQ(timed.wrap_count(), 3U);

  // Exactly half a turn ahead of the plain reading is still that reading's turn.
  TmstUnwrap half;
  half.unwrap(0, t0);
  EXPECT_EQ(half.unwrap(10, t0 + (10 + 0x80000) * 1000), 10U);

  TmstUnwrap widest{31};
  EXPECT_EQ(widest.unwrap(0x7FFFFFFF), 0x7FFFFFFFU);  // 31 bits is the widest allowed
  for (std::uint32_t width : {0U, 32U}) {
    TmstUnwrap bad{width};
    EXPECT_EQ(error_of<std::invalid_argument>([&] { bad.unwrap(1); }), "timestamp bit width must be 1..31");
  }
}

TEST(TmstFit, WarmsUpThenRefusesBadAnchorsWithoutTouchingTheFit) {
  TmstMapper m;
  for (std::uint64_t tick : {0U, 3333U, 6666U}) EXPECT_FALSE(m.add_anchor(ideal(tick), 50000));
  EXPECT_EQ(m.last_rejected().reject_reason, FitRejectReason::insufficient_anchors);
  EXPECT_FALSE(m.add_anchor(ideal(9999), 50000));
  EXPECT_EQ(m.last_rejected().reject_reason, FitRejectReason::insufficient_span);
  EXPECT_EQ(m.anchors().size(), 4U);  // warm-up keeps what it has

  ASSERT_TRUE(m.add_anchor(ideal(10000), 50000));
  EXPECT_EQ(format_fit_diagnostic(m.fit()),
            "reason=none, anchors=5, span_ticks=10000, slope_ns_per_tick=1000, slope_error_ppm=200, "
            "max_half_window_ns=1000, max_residual_ns=0");

  EXPECT_FALSE(m.add_anchor(TmstAnchor{20000, 5, 4}, 50000));
  EXPECT_EQ(m.last_rejected().reject_reason, FitRejectReason::anchor_window_reversed);
  EXPECT_FALSE(m.add_anchor(TmstAnchor{20000, 0, 200001}, 50000));
  EXPECT_EQ(format_fit_diagnostic(m.last_rejected()),
            "reason=anchor_window_too_wide, anchors=5, span_ticks=10000, slope_ns_per_tick=1000, "
            "slope_error_ppm=200, max_half_window_ns=100001, max_residual_ns=0");
  EXPECT_FALSE(m.add_anchor(ideal(10000), 50000));
  EXPECT_EQ(m.last_rejected().reject_reason, FitRejectReason::non_monotonic_anchor);
  EXPECT_EQ(m.anchors().size(), 5U);
  EXPECT_TRUE(m.fit().valid);

  // A 200000 ns bracket is exactly the 100 us half window and still allowed.
  EXPECT_TRUE(m.add_anchor(ideal(20000, 100000), 50000));
}

TEST(TmstFit, EachGateOfTheFitNamesItsReason) {
  // A wider bracket than the half-window gate never reaches the fit: the
  // anchor is refused on arrival.
  const std::array<TmstAnchor, 4> cases[] = {
      // Below zero at tick 0.
      {anchor(0, 0, 0), anchor(10000, 0, 0), anchor(20000, 0, 0), anchor(30000, 3'000'000'000, 0)},
      // 1200 ns per tick: 20 % off nominal.
      {anchor(0, base_raw_ns), anchor(10000, base_raw_ns + 12'000'000), anchor(20000, base_raw_ns + 24'000'000),
       anchor(30000, base_raw_ns + 36'000'000)},
      {ideal(0), anchor(10000, base_raw_ns + 10'000'100), ideal(20000), ideal(30000)},
  };
  const FitRejectReason reasons[] = {FitRejectReason::prediction_overflow, FitRejectReason::slope_out_of_range,
                                     FitRejectReason::residual_too_large};
  for (int i = 0; i < 3; ++i) {
    TmstMapper m;
    for (const TmstAnchor& a : cases[i]) EXPECT_FALSE(m.add_anchor(a, 10));
    EXPECT_EQ(m.last_rejected().reject_reason, reasons[i]) << i;
    EXPECT_EQ(m.last_rejected().anchors, 4U);
    EXPECT_EQ(m.last_rejected().span_ticks, 30000U);
    EXPECT_FALSE(m.fit().valid);
  }
  EXPECT_STREQ(fit_reject_reason_name(FitRejectReason::degenerate_fit), "degenerate_fit");
  EXPECT_STREQ(fit_reject_reason_name(FitRejectReason::bridge_window_too_wide), "bridge_window_too_wide");
  EXPECT_STREQ(fit_reject_reason_name(static_cast<FitRejectReason>(12)), "unknown");
}

TEST(TmstFit, APredictionOfExactlyZeroIsInRange) {
  // The counter's zero latched at RAW zero, with exact brackets.
  TmstMapper m;
  for (std::uint64_t tick = 0; tick <= 30000; tick += 10000) m.add_anchor(TmstAnchor{tick, tick * 1000, tick * 1000}, 50000);
  EXPECT_TRUE(m.fit().valid) << format_fit_diagnostic(m.last_rejected());
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
  EXPECT_LE(m.fit().max_residual_ns, 1U);
  EXPECT_NEAR(to_double(m.fit().slope_ns_per_tick), 1001.0, 1e-3);

  // A residual exactly at the limit passes.
  TmstMapper at_limit;
  for (std::uint64_t i = 0; i < 4; ++i) {
    const std::uint64_t mid = base_raw_ns + i * 10'000'000;
    at_limit.add_anchor(anchor(i * 10000, i == 0 || i == 3 ? mid + 50000 : mid - 50000), 50000);
  }
  EXPECT_TRUE(at_limit.fit().valid) << fit_reject_reason_name(at_limit.last_rejected().reject_reason);
  EXPECT_EQ(at_limit.fit().max_residual_ns, 50000U);

  // An anchor exactly at the top of the range is still in it.
  TmstMapper top;
  for (std::uint64_t i = 0; i < 4; ++i) {
    const std::uint64_t mid = UINT64_MAX - (3 - i) * 10'000'000;
    top.add_anchor(TmstAnchor{i * 10000, mid, mid}, 50000);
  }
  EXPECT_TRUE(top.fit().valid) << fit_reject_reason_name(top.last_rejected().reject_reason);
}

TEST(TmstFit, PastWarmUpABreakingAnchorIsUndoneUnlessTheWindowWasFull) {
  // Warm-up ends with the fourth anchor once the span reaches 10000 ticks: from
  // then on a breaking anchor is undone, even when it is the one that makes the span.
  TmstMapper short_span;
  for (std::uint64_t tick = 0; tick <= 7500; tick += 2500) short_span.add_anchor(ideal(tick), 50000);
  EXPECT_FALSE(short_span.add_anchor(anchor(10000, base_raw_ns + 10'300'000), 50000));
  EXPECT_EQ(short_span.anchors().size(), 4U);

  TmstMapper m = ideal_mapper(8);
  EXPECT_FALSE(m.add_anchor(anchor(80000, base_raw_ns + 80'100'000), 50000));
  EXPECT_EQ(m.last_rejected().reject_reason, FitRejectReason::residual_too_large);
  EXPECT_EQ(m.anchors().size(), 8U);
  EXPECT_EQ(m.anchors()[7].tick, 70000U);
  EXPECT_TRUE(m.fit().valid);

  TmstMapper full = ideal_mapper(17);  // the 17th already pushed the first out
  EXPECT_EQ(full.anchors()[0].tick, 10000U);
  EXPECT_FALSE(full.add_anchor(anchor(170000, base_raw_ns + 170'100'000), 50000));
  EXPECT_EQ(full.anchors().size(), 16U);
  EXPECT_EQ(full.anchors()[0].tick, 20000U);
  EXPECT_EQ(full.anchors()[15].tick, 170000U);
  EXPECT_TRUE(full.fit().valid);
  EXPECT_EQ(full.fit().first_tick, 10000U);
  EXPECT_EQ(full.fit().last_tick, 160000U);
}

TEST(WideAnchors, AWideOlderAnchorIsDroppedOnlyWhenFarWiderThanItsPeers) {
  // Anchors 10000 ticks apart with these half windows, the one at `off` with
  // its midpoint far off the line: the ticks the window keeps once the fits
  // refuse it for its residual.
  const auto kept = [](std::initializer_list<std::uint64_t> halves, std::size_t off) {
    TmstMapper m;
    std::uint64_t tick = 0;
    std::size_t i = 0;
    for (std::uint64_t half : halves) {
      tick += 10000;
      m.add_anchor(anchor(tick, base_raw_ns + tick * 1000 + (i++ == off ? 200'000 : 0), half), 50000);
    }
    std::vector<std::uint64_t> ticks;
    for (const TmstAnchor& a : m.anchors()) ticks.push_back(a.tick);
    return ticks;
  };
  using Ticks = std::vector<std::uint64_t>;
  // Dropped when the fourth refuses it; the later anchors move up in order.
  EXPECT_EQ(kept({1000, 1000, 26000, 1000, 1000}, 2), (Ticks{10000, 20000, 40000, 50000}));
  // Kept, and so every fit with it is refused and undone.
  EXPECT_EQ(kept({1000, 1000, 25000, 1000}, 2), (Ticks{10000, 20000, 30000}));    // not above the floor
  EXPECT_EQ(kept({10000, 10000, 30000, 10000}, 2), (Ticks{10000, 20000, 30000}));  // three times its peers
  EXPECT_EQ(kept({10000, 10000, 30001, 10000, 10000}, 2), (Ticks{10000, 20000, 40000, 50000}));
  EXPECT_EQ(kept({1000, 1000, 1000, 90000}, 3), (Ticks{10000, 20000, 30000}));  // the newest is not dropped
  // Of two equally wide, the older goes.
  EXPECT_EQ(kept({1000, 90000, 90000, 1000, 1000}, 1), (Ticks{10000, 30000, 40000, 50000}));
}

TEST(WideAnchors, OneStretchedSnapshotCannotPoisonTheWindow) {
  // In warm-up: its latch 90 us off the line breaks the residual of every later
  // fit, so it leaves and the next anchor completes the map.
  TmstMapper warm;
  warm.add_anchor(ideal(0), 50000);
  warm.add_anchor(anchor(10000, base_raw_ns + 10'090'000, 95000), 50000);
  warm.add_anchor(ideal(20000), 50000);
  EXPECT_FALSE(warm.add_anchor(ideal(30000), 50000));
  EXPECT_EQ(warm.last_rejected().reject_reason, FitRejectReason::residual_too_large);
  EXPECT_EQ(warm.anchors().size(), 3U);
  EXPECT_TRUE(warm.add_anchor(ideal(40000), 50000));
  EXPECT_EQ(warm.fit().max_half_window_ns, 1000U);

  // Past warm-up it got in under the limit; good anchors pull the line away
  // from it until its residual breaks the limit, and then it goes.
  TmstMapper m = ideal_mapper(5);
  ASSERT_TRUE(m.add_anchor(anchor(50000, base_raw_ns + 50'060'000, 90000), 50000));
  for (std::uint64_t tick = 60000; tick <= 200000; tick += 10000) {
    EXPECT_TRUE(m.add_anchor(ideal(tick), 50000)) << tick;
  }
  EXPECT_EQ(m.fit().max_half_window_ns, 1000U);
  EXPECT_EQ(m.fit().max_residual_ns, 0U);

  // A gated anchor: the wide one's half window alone keeps the sample outside the gate.
  TmstMapper gated = ideal_mapper(6);
  ASSERT_TRUE(gated.add_anchor(ideal(60000, 95000), 50000));
  EXPECT_FALSE(map_tmst_to_raw(gated.fit(), 70000, 110000).valid);
  EXPECT_TRUE(gated.add_anchor_gated(ideal(70000), 70000, 110000));
  EXPECT_EQ(gated.fit().max_half_window_ns, 1000U);
  EXPECT_EQ(gated.anchors()[gated.anchors().size() - 1].tick, 70000U);
}

// A map built while every snapshot was stretched the same way agrees with
// itself, well off the true line; only a rebuild lets precise anchors back in.
TEST(WideAnchors, AWindowOfStretchedAnchorsIsOutshoneByAPreciseOne) {
  // Brackets just under the gate, every latch late_ns before the midpoint.
  const auto stretched_window = [](std::uint64_t late_ns) {
    std::vector<TmstAnchor> window;
    for (std::uint64_t tick = 0; tick <= 150000; tick += 10000) {
      window.push_back(anchor(tick, base_raw_ns + tick * 1000 + late_ns, 99000));
    }
    return window;
  };
  const auto stretched_snapshot = [](std::uint64_t tick) {
    TmstSnapshot s = ideal_snapshot(tick, 99000);
    s.raw_before_ns += 98000;
    s.raw_after_ns += 98000;
    return s;
  };
  const auto quick_from = [](std::uint64_t tick) {
    return [tick](int i) { return ideal_snapshot(tick + 1000 * static_cast<std::uint64_t>(i)); };
  };

  TmstMapper alone;
  for (const TmstAnchor& a : stretched_window(98000)) alone.add_anchor(a, 50000);
  ASSERT_TRUE(alone.fit().valid);
  EXPECT_TRUE(alone.outshone_by(ideal(160000)));
  EXPECT_FALSE(alone.outshone_by(ideal(160000, 33000)));  // three times is not far wider
  EXPECT_TRUE(alone.outshone_by(ideal(160000, 32999)));
  EXPECT_FALSE(ideal_mapper(8, 25000).outshone_by(ideal(80000, 1)));  // not above the floor
  EXPECT_TRUE(ideal_mapper(8, 25001).outshone_by(ideal(80000, 1)));
  EXPECT_FALSE(TmstMapper{}.outshone_by(ideal(0)));

  // The refresh refuses the precise anchor and says so; one that agrees with
  // the window goes in and clears it; so does a rebuild.
  ScriptedSource source;
  TmstTimebase far(source, false);
  fill_window(far, source, stretched_window(98000));
  source.script(quick_from(160000));
  EXPECT_FALSE(far.insert_fresh_anchor(AnchorGate::sample(160000, 1000)));
  EXPECT_EQ(source.snapshots, 17);
  EXPECT_EQ(far.last_reject_reason(), FitRejectReason::residual_too_large);
  EXPECT_TRUE(far.outshone());
  source.script([&](int) { return stretched_snapshot(170000); });
  EXPECT_TRUE(far.insert_fresh_anchor(AnchorGate::plain()));
  EXPECT_FALSE(far.outshone());

  // Latches closer to the truth: a precise anchor fits, but the wide half
  // windows alone keep the sample outside the gate.
  ScriptedSource near_source;
  TmstTimebase near(near_source, false);
  fill_window(near, near_source, stretched_window(40000));
  near_source.script(quick_from(160000));
  EXPECT_FALSE(near.insert_fresh_anchor(AnchorGate::sample(160000, 80000)));
  EXPECT_EQ(near.last_reject_reason(), FitRejectReason::sample_uncertainty_too_large);
  EXPECT_TRUE(near.outshone());
  near.reset();
  EXPECT_FALSE(near.outshone());
  EXPECT_TRUE(near.mapper().anchors().empty());

  // The other way round, a stretched anchor refused by a precise window, is
  // no reason to rebuild.
  ScriptedSource narrow_source;
  TmstTimebase narrow(narrow_source, false);
  std::vector<TmstAnchor> precise;
  for (std::uint64_t tick = 0; tick < 80000; tick += 10000) precise.push_back(ideal(tick));
  fill_window(narrow, narrow_source, precise);
  narrow_source.script([&](int) { return stretched_snapshot(80000); });
  EXPECT_FALSE(narrow.insert_fresh_anchor(AnchorGate::plain()));
  EXPECT_FALSE(narrow.outshone());
}

TEST(EstablishAnchorMap, StopsAtFourAcceptedFitsOrGivesUpAfterSixteen) {
  // 20000 ticks apart from just below the 20-bit wrap: the fourth gives the first valid fit.
  ScriptedSource good([](int i) { return ideal_snapshot(0xFF000 + static_cast<std::uint64_t>(i) * 20000); });
  TmstTimebase timebase(good, false);
  timebase.establish();
  EXPECT_EQ(good.snapshots, 7);
  EXPECT_EQ(good.pauses, 6);
  EXPECT_EQ(good.last_pause_ns, 20'000'000);
  EXPECT_TRUE(timebase.mapper().fit().valid);
  EXPECT_EQ(timebase.mapper().fit().span_ticks, 120000U);
  EXPECT_EQ(timebase.wrap_count(), 1U);

  ScriptedSource stretched([](int i) { return ideal_snapshot(static_cast<std::uint64_t>(i) * 20000, 150000); });
  TmstTimebase failing(stretched, false);
  EXPECT_EQ(error_of<std::runtime_error>([&] { failing.establish(); }),
            "failed to establish TMST to RAW anchor map after 16 attempts, accepted=0: "
            "reason=anchor_window_too_wide, anchors=0, span_ticks=0, slope_ns_per_tick=0, slope_error_ppm=0, "
            "max_half_window_ns=150000, max_residual_ns=0");
  EXPECT_EQ(stretched.snapshots, 16);
  EXPECT_EQ(stretched.pauses, 15);
}

TEST(FreshAnchors, OnlyAStretchedBracketOrAnOpenGateIsWorthAnotherSnapshot) {
  const AnchorGate plain = AnchorGate::plain();
  const AnchorGate gated = AnchorGate::sample(50000, 0);
  EXPECT_TRUE(fresh_anchor_worth_retrying(1, FitRejectReason::anchor_window_too_wide, plain));
  EXPECT_TRUE(fresh_anchor_worth_retrying(2, FitRejectReason::anchor_window_too_wide, gated));
  EXPECT_FALSE(fresh_anchor_worth_retrying(3, FitRejectReason::anchor_window_too_wide, plain));
  EXPECT_FALSE(fresh_anchor_worth_retrying(1, FitRejectReason::residual_too_large, gated));
  EXPECT_FALSE(fresh_anchor_worth_retrying(1, FitRejectReason::sample_uncertainty_too_large, plain));
  EXPECT_TRUE(fresh_anchor_worth_retrying(2, FitRejectReason::sample_uncertainty_too_large, gated));
  EXPECT_FALSE(fresh_anchor_worth_retrying(3, FitRejectReason::sample_uncertainty_too_large, gated));

  // Two stretched brackets, then one that goes in: the third snapshot is taken
  // and its tick reported.
  ScriptedSource source;
  TmstTimebase timebase(source, false);
  fill_window(timebase, source, {ideal(0), ideal(10000), ideal(20000), ideal(30000)});
  source.script([](int i) { return ideal_snapshot(40000 + 1000 * static_cast<std::uint64_t>(i), i < 2 ? 150000 : 1000); });
  std::uint64_t tick = 0;
  EXPECT_TRUE(timebase.insert_fresh_anchor(plain, &tick));
  EXPECT_EQ(source.snapshots, 7);
  EXPECT_EQ(tick, 42000U);
  EXPECT_EQ(timebase.mapper().anchors().size(), 5U);

  // Any other refusal ends the attempts at once: the same reading again.
  source.script([](int) { return ideal_snapshot(42000); });
  EXPECT_FALSE(timebase.insert_fresh_anchor(gated));
  EXPECT_EQ(source.snapshots, 8);
  EXPECT_EQ(timebase.last_reject_reason(), FitRejectReason::non_monotonic_anchor);

  // Always stretched: no fourth attempt, and the map keeps its anchors. The
  // periodic refresh takes its snapshots the same way, as refresh snapshots.
  source.script([](int i) { return ideal_snapshot(50000 + 1000 * static_cast<std::uint64_t>(i), 150000); });
  EXPECT_FALSE(timebase.insert_fresh_anchor(plain));
  EXPECT_EQ(source.snapshots, 11);
  timebase.refresh_for_sample(60000, 0);
  EXPECT_EQ(source.snapshots, 14);
  EXPECT_EQ(source.refresh_snapshots, 3);
  EXPECT_EQ(timebase.mapper().anchors().size(), 5U);
}

}  // namespace
}  // namespace pelmor_lusk
