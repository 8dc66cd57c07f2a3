#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "timing/tmst_mapping.hpp"
#include "timing/tmst_timebase.hpp"
#include "timing_test_support.hpp"

namespace pelmor_lusk {
namespace {

using namespace testing_support;

// A valid fit on raw = base + 1000 ns per tick over ticks [10000, 100000].
TmstFit fitted(std::uint64_t residual, std::uint64_t half, binary128 slope_uncertainty) {
  TmstFit f;
  f.valid = true;
  f.slope_ns_per_tick = 1000;
  f.intercept_ns = to_q(base_raw_ns);
  f.first_tick = 10000;
  f.last_tick = 100000;
  f.max_residual_ns = residual;
  f.max_half_window_ns = half;
  f.slope_uncertainty_ns_per_tick = slope_uncertainty;
  return f;
}

TEST(MapTmstToRaw, SumsTheUncertaintyAgainstThe200usGate) {
  const TmstFit m = fitted(20000, 30000, static_cast<binary128>(1) / 3);
  TmstMapping r = map_tmst_to_raw(m, 50000, 149000);
  EXPECT_TRUE(r.valid);
  EXPECT_EQ(r.uncertainty_us, 200U);
  EXPECT_EQ(r.raw_ns, base_raw_ns + 50'000'000);
  r = map_tmst_to_raw(m, 50000, 149001);
  EXPECT_FALSE(r.valid);
  EXPECT_EQ(r.uncertainty_us, 201U);

  // Outside the span the slope error grows with the distance, rounded up.
  EXPECT_EQ(map_tmst_to_raw(m, 101000, 0).mapping_age_ns, 334U);
  EXPECT_EQ(map_tmst_to_raw(m, 9000, 0).mapping_age_ns, 334U);
  EXPECT_EQ(map_tmst_to_raw(m, 101000, 0).uncertainty_us, 52U);  // 50334 + 1000, rounded up

  TmstFit half = m;
  half.intercept_ns += static_cast<binary128>(0.5);
  EXPECT_EQ(map_tmst_to_raw(half, 50000, 0).raw_ns, base_raw_ns + 50'000'001);  // halves away from zero
}

TEST(MapTmstToRaw, SaturatesAndReportsOverflowAsZero) {
  const TmstFit m = fitted(20000, 30000, 0);
  EXPECT_EQ(map_tmst_to_raw(m, 50000, UINT64_MAX - 51000).uncertainty_us, UINT32_MAX);  // largest reported sum
  const TmstMapping over = map_tmst_to_raw(m, 50000, UINT64_MAX - 50999);
  EXPECT_FALSE(over.valid);
  EXPECT_EQ(over.uncertainty_us, 0U);
  EXPECT_NE(over.raw_ns, 0U);

  const TmstMapping far = map_tmst_to_raw(fitted(1, 1, 1e30), 1'000'000, 0);
  EXPECT_EQ(far.mapping_age_ns, UINT64_MAX);
  EXPECT_EQ(far.uncertainty_us, 0U);

  TmstFit below_zero = m;
  below_zero.intercept_ns = -1;
  EXPECT_EQ(map_tmst_to_raw(below_zero, 0, 0).raw_ns, 0U);
  EXPECT_EQ(map_tmst_to_raw(below_zero, 0, 0).tmst_half_window_ns, 0U);
  EXPECT_FALSE(map_tmst_to_raw(TmstFit{}, 50000, 0).valid);
}

TEST(AddAnchorGated, InsertsOnlyWhenTheSampleStaysWithinTheGate) {
  TmstMapper m = ideal_mapper(5);
  EXPECT_TRUE(m.add_anchor_gated(ideal(50000), 55000, 0));
  EXPECT_EQ(m.anchors().size(), 6U);

  EXPECT_FALSE(m.add_anchor_gated(TmstAnchor{60000, 9, 8}, 55000, 0));
  EXPECT_EQ(m.last_rejected().reject_reason, FitRejectReason::anchor_window_reversed);

  EXPECT_FALSE(m.add_anchor_gated(ideal(60000), 1'000'000'000, 0));
  EXPECT_EQ(m.last_rejected().reject_reason, FitRejectReason::sample_uncertainty_too_large);
  EXPECT_EQ(m.last_rejected().last_tick, 60000U);  // the candidate's fit, for the diagnostic
  EXPECT_EQ(m.anchors().size(), 6U);
  EXPECT_EQ(m.fit().last_tick, 50000U);
}

// Anchors 0..40000 with 20 us half windows: slope uncertainty 1 ns/tick, so the
// far tick, 300000 past the span, maps with 321 us.
constexpr std::uint64_t far_tick = 340000;

struct RefreshRun {
  MapperRefreshOutcome outcome;
  std::string error;
  int snapshots = 0;         // taken by the refresh
  std::size_t anchors = 0;   // in the window after it
  FitRejectReason reason = FitRejectReason::none;
};

// A timebase whose window holds ideal anchors 0..40000 with 20 us half windows
// (none when empty), then the refresh of tick with snapshots from script.
RefreshRun run_refresh(ScriptedSource::Script script, bool strict, std::uint64_t tick = far_tick,
                       std::uint64_t measurement = 0, bool empty = false) {
  ScriptedSource source;
  TmstTimebase timebase(source, false);
  if (!empty) {
    source.feed({ideal(0, 20000), ideal(10000, 20000), ideal(20000, 20000), ideal(30000, 20000), ideal(40000, 20000)});
    for (int i = 0; i < 5; ++i) timebase.insert_fresh_anchor(AnchorGate::plain());
  }
  const int before = source.snapshots;
  source.script(std::move(script));
  RefreshRun run;
  run.error = error_of<std::runtime_error>(
      [&] { run.outcome = timebase.refresh_mapper(strict, tick, measurement, 777); });
  run.snapshots = source.snapshots - before;
  run.anchors = timebase.mapper().anchors().size();
  run.reason = timebase.last_reject_reason();
  return run;
}

TEST(RefreshMapper, ReturnsAValidMappingWithoutMessage) {
  EXPECT_EQ(run_refresh(nullptr, false, 20000).snapshots, 0);

  const RefreshRun run = run_refresh([](int) { return ideal_snapshot(far_tick - 1000); }, true);
  EXPECT_EQ(run.error, "");
  EXPECT_TRUE(run.outcome.mapping.valid);
  EXPECT_TRUE(run.outcome.message.empty());
  EXPECT_EQ(run.anchors, 6U);
}

TEST(RefreshMapper, SoftDropDecisionTable) {
  const auto stretched = [](int i) { return ideal_snapshot(41000 + static_cast<std::uint64_t>(i), 150000); };
  const auto stale = [](int) { return ideal_snapshot(40000); };  // the same reading: non_monotonic_anchor
  const auto still_far = [](int i) { return ideal_snapshot(41000 + 1000 * static_cast<std::uint64_t>(i)); };
  const std::uint64_t overflow = UINT64_MAX;  // uncertainty_us 0 with a real prediction
  struct Row {
    ScriptedSource::Script script;
    bool strict;
    std::uint64_t measurement;
    int snapshots;
    FitRejectReason reason;
    bool gate_drop;
  };
  const Row rows[] = {
      {stale, false, 0, 1, FitRejectReason::non_monotonic_anchor, true},
      {stale, true, 0, 1, FitRejectReason::non_monotonic_anchor, false},
      {stretched, false, 0, 3, FitRejectReason::anchor_window_too_wide, true},
      {still_far, false, 0, 3, FitRejectReason::sample_uncertainty_too_large, true},
      {stretched, false, overflow, 3, FitRejectReason::anchor_window_too_wide, true},
      {stale, false, overflow, 1, FitRejectReason::non_monotonic_anchor, false},
      {stretched, true, overflow, 3, FitRejectReason::anchor_window_too_wide, false},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(testing::Message() << "row " << (&row - rows));
    const RefreshRun run = run_refresh(row.script, row.strict, far_tick, row.measurement);
    EXPECT_EQ(run.snapshots, row.snapshots);
    EXPECT_EQ(run.reason, row.reason);
    EXPECT_EQ(run.anchors, 5U);
    EXPECT_EQ(run.outcome.gate_drop, row.gate_drop);
    EXPECT_EQ(run.error.empty(), row.gate_drop);
    const std::string& text = row.gate_drop ? run.outcome.message : run.error;
    EXPECT_NE(text.find(std::string("recovery_refresh_rejected_fit={reason=") + fit_reject_reason_name(row.reason)),
              std::string::npos);
  }

  EXPECT_EQ(run_refresh(stale, false).outcome.message,
            "TMST to RAW mapping failed or exceeded uncertainty gate: fifo_tmst_tick=340000, "
            "measurement_uncertainty_ns=0, gpio_delivery_age_ns=777, timestamp_quantization_ns=1000, "
            "uncertainty_us=321, tmst_half_window_ns=20000, mapping_residual_abs_ns=0, slope_uncertainty_ns=0, "
            "mapping_age_ns=300000, fit={reason=none, anchors=5, span_ticks=40000, slope_ns_per_tick=1000, "
            "slope_error_ppm=1000, max_half_window_ns=20000, max_residual_ns=0}, "
            "recovery_refresh_rejected_fit={reason=non_monotonic_anchor, anchors=5, span_ticks=40000, "
            "slope_ns_per_tick=1000, slope_error_ppm=1000, max_half_window_ns=20000, max_residual_ns=0}");
}

TEST(RefreshMapper, BridgeWindowRefusalSoftDropsAndAnInvalidFitNeverDoes) {
  const TmstFit fit = fitted(0, 20000, 1);
  TmstFit refused = fit;
  refused.valid = false;
  refused.reject_reason = FitRejectReason::bridge_window_too_wide;
  const TmstMapping mapping = map_tmst_to_raw(fit, far_tick, UINT64_MAX);
  const MapperRefreshOutcome soft = judge_failed_mapping(fit, refused, mapping, false, far_tick, UINT64_MAX, 0);
  EXPECT_TRUE(soft.gate_drop);
  refused.reject_reason = FitRejectReason::slope_out_of_range;
  EXPECT_NE(error_of<std::runtime_error>(
                [&] { judge_failed_mapping(fit, refused, mapping, false, far_tick, UINT64_MAX, 0); })
                .find("recovery_refresh_rejected_fit={reason=slope_out_of_range"),
            std::string::npos);

  const RefreshRun run = run_refresh([](int) { return ideal_snapshot(50000); }, false, far_tick, 0, true);
  EXPECT_NE(run.error.find("uncertainty_us=0, "), std::string::npos);
  EXPECT_NE(run.error.find("recovery_refresh_rejected_fit={reason=insufficient_anchors, anchors=1"),
            std::string::npos);
}

}  // namespace
}  // namespace pelmor_lusk
