#include <gtest/gtest.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "pairing_script.hpp"
#include "pipeline/pairing_core.hpp"
#include "pipeline/resync_report.hpp"
#include "sensor/sample_units.hpp"

namespace pelmor_lusk {
namespace {

using testing_support::anchor;
using testing_support::error_of;
using testing_support::PairingScript;
using testing_support::raw_of_tick;
using testing_support::WindowShape;

constexpr std::uint64_t anchor_tick = 1'000'000;

bool contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }
bool starts_with(const std::string& text, const std::string& head) { return text.rfind(head, 0) == 0; }

RateProfile with_phase_calibration(RateProfile p) {
  p.phase_calibrated = 1;
  return p;
}
const RateProfile calibrated_25hz = with_phase_calibration(rate_profile_25hz);

SampleAction sentinel_sample(PairingScript& s, int axis) {
  s.tick += s.profile.nominal_step_ticks;
  s.admit(s.edge(s.tick));
  FifoPacket p = PairingScript::packet(s.tick);
  std::int16_t* axes[] = {&p.accel_x, &p.accel_y, &p.accel_z, &p.gyro_x, &p.gyro_y, &p.gyro_z};
  *axes[axis % 6] = axis_sentinel;
  return s.play(p);
}

// --- Clean streams ---

TEST(PairingCoreStream, Clean25HzEmitsEverySampleAtItsOwnTimes) {
  PairingScript s(rate_profile_25hz);
  s.arm(anchor_tick);
  s.stream(50);  // 2e6 ticks: the 16-bit counter wraps about thirty times

  ASSERT_EQ(s.emitted.size(), 50U);
  for (std::size_t i = 0; i < s.emitted.size(); ++i) {
    const std::uint64_t tick = anchor_tick + (i + 1) * 40000;
    const ImuSample& out = s.emitted[i];
    EXPECT_EQ(out.sample_index, i);
    EXPECT_EQ(out.tmst_wrap_count, s.wrap_counts[i]) << i;
    EXPECT_EQ(out.mapped_time_raw_ns, raw_of_tick(tick)) << i;
    EXPECT_EQ(out.event_time_raw_ns, raw_of_tick(tick)) << i;
    EXPECT_EQ(out.fifo_timestamp_low16, tick & 0xFFFF) << i;
    EXPECT_EQ(out.total_drops + out.boundary_resyncs + out.batch_failures, 0U) << i;
  }
  EXPECT_EQ(s.wrap_counts.back(), 2U);  // the periodic refreshes carried the counter's turns
  EXPECT_EQ(s.core.samples_emitted(), 50U);
  EXPECT_EQ(s.core.pending_events(), 0U);
  EXPECT_EQ(s.core.counters().total_drops, 0U);
  EXPECT_TRUE(s.resyncs.empty());
}

TEST(PairingCoreStream, Clean30HzKeepsThirtyOfEveryTwoHundredStartingWithTheFirst) {
  PairingScript s(rate_profile_30hz);
  s.arm(anchor_tick);
  auto accepted_position = [](const ImuSample& out) {
    return (out.mapped_time_raw_ns - raw_of_tick(anchor_tick)) / 5'000'000 - 1;
  };

  s.stream(200);
  EXPECT_EQ(s.emitted.size(), 30U);
  s.stream(200);
  ASSERT_EQ(s.emitted.size(), 60U);

  // Accumulating 30 towards 200 from 170: emitted where the running sum crosses a multiple of 200.
  const std::vector<std::uint64_t> first_positions = {0, 7, 14, 20, 27, 34, 40};
  for (std::size_t k = 0; k < first_positions.size(); ++k) {
    EXPECT_EQ(accepted_position(s.emitted[k]), first_positions[k]) << k;
  }
  for (std::size_t k = 0; k < s.emitted.size(); ++k) {
    EXPECT_EQ(s.emitted[k].sample_index, k);
    EXPECT_EQ(s.emitted[k].event_time_raw_ns, s.emitted[k].mapped_time_raw_ns);
    const std::uint64_t position = accepted_position(s.emitted[k]);
    EXPECT_EQ((170 + 30 * (position + 1)) / 200 - (170 + 30 * position) / 200, 1U) << position;
  }
}

TEST(PairingCoreStream, SampleCarriesSiUnitsRawWordsUncertaintyAndCounters) {
  PairingScript s(rate_profile_25hz);
  s.arm(anchor_tick);
  s.core.count_batch_failure();
  testing::internal::CaptureStderr();
  s.unmappable_sample();
  testing::internal::GetCapturedStderr();

  s.tick += 40000;
  BridgedEvent late = s.edge(s.tick);
  late.raw_ns += 1234;  // INT1 is not exactly at the sample's mapped time
  late.half_window_ns = 34'500;
  s.admit(late);
  FifoPacket p = PairingScript::packet(s.tick);
  p.temperature = 0x1234;
  p.temperature_raw = 40;
  p.accel_x = 2048;
  p.accel_y = -1024;
  p.accel_z = 3;
  p.gyro_x = 164;
  p.gyro_y = -328;
  p.gyro_z = 1;
  ASSERT_EQ(s.play(p), SampleAction::emit);

  const ImuSample& out = s.emitted.at(0);
  const double g = 9.80665;
  const double pi = 3.14159265358979323846;
  EXPECT_NEAR(out.temperature_c, 40 / 2.07 + 25, 1e-12);
  EXPECT_NEAR(out.accel_mps2[0], g, 1e-12);
  EXPECT_NEAR(out.accel_mps2[1], -g / 2, 1e-12);
  EXPECT_NEAR(out.accel_mps2[2], 3 * g / 2048, 1e-12);
  EXPECT_NEAR(out.gyro_radps[0], 10 * pi / 180, 1e-12);
  EXPECT_NEAR(out.gyro_radps[1], -20 * pi / 180, 1e-12);
  EXPECT_NEAR(out.gyro_radps[2], pi / 180 / 16.4, 1e-12);
  const std::int16_t words[7] = {0x1234, 2048, -1024, 3, 164, -328, 1};
  for (int i = 0; i < 7; ++i) EXPECT_EQ(out.raw_words[i], words[i]) << i;
  EXPECT_EQ(out.event_time_raw_ns, late.raw_ns);
  EXPECT_EQ(out.mapped_time_raw_ns, raw_of_tick(s.tick));
  // 34.5 us of bridge, 1 us of bracket, 0.88 us of extrapolation past the
  // newest anchor and the 1 us tick, rounded up.
  EXPECT_EQ(out.phase_uncertainty_us, 38U);
  EXPECT_EQ(out.batch_failures, 1U);
  EXPECT_EQ(out.total_drops, 1U);
  EXPECT_EQ(out.sample_index, 0U);  // the dropped sample used no index
}

// --- Event admission ---

TEST(PairingCoreEvents, SequenceGapAsksForResyncAndCountsABoundaryResync) {
  PairingScript s(rate_profile_25hz);
  for (std::uint64_t i = 1; i <= 3; ++i) ASSERT_FALSE(s.admit(s.edge(anchor_tick + i * 40000)));
  BridgedEvent gap = s.edge(anchor_tick + 4 * 40000);
  gap.seqno_gap = true;
  gap.missed_line_events = 2;

  const std::optional<ResyncRequest> r = s.admit(gap);
  ASSERT_TRUE(r);
  EXPECT_EQ(r->reason, RecoveryReason::gpio_sequence_gap);
  EXPECT_EQ(r->message, "GPIO395 line event sequence gap");
  EXPECT_EQ(r->discarded_gpio_events_pre_recovery, 4U);
  EXPECT_EQ(r->discarded_fifo_samples, 0U);  // the loop fills it in
  ASSERT_TRUE(r->trigger);
  EXPECT_EQ(r->trigger->line_seqno, 4U);
  EXPECT_EQ(s.core.pending_events(), 3U);  // the gap edge is never queued
  EXPECT_EQ(s.core.counters().boundary_resyncs, 1U);

  s.core.begin_arm();
  ASSERT_TRUE(s.admit(gap));
  EXPECT_EQ(s.resyncs.back().discarded_gpio_events_pre_recovery, 1U);
  EXPECT_EQ(s.core.counters().boundary_resyncs, 2U);
}

TEST(PairingCoreEvents, QueueOverflowAsksForResyncWithoutCountingABoundaryResync) {
  PairingScript s(rate_profile_25hz);
  for (int i = 0; i < 128; ++i) ASSERT_FALSE(s.admit(s.edge(anchor_tick))) << i;

  const std::optional<ResyncRequest> r = s.admit(s.edge(anchor_tick));
  ASSERT_TRUE(r);
  EXPECT_EQ(r->reason, RecoveryReason::gpio_queue_overflow);
  EXPECT_EQ(r->message, "too many unmatched GPIO395 events");
  EXPECT_EQ(r->discarded_gpio_events_pre_recovery, 129U);
  EXPECT_EQ(r->trigger->line_seqno, 129U);
  EXPECT_EQ(s.core.counters().boundary_resyncs, 0U);
  EXPECT_EQ(s.core.pending_events(), 128U);

  BridgedEvent gap = s.edge(anchor_tick);
  gap.seqno_gap = true;
  EXPECT_EQ(s.admit(gap)->reason, RecoveryReason::gpio_sequence_gap);  // a gap wins over a full queue
}

TEST(PairingCoreEvents, MissingEdgeIsABatchMismatch) {
  PairingScript s(rate_profile_25hz);
  s.arm(anchor_tick);
  EXPECT_EQ(error_of<std::runtime_error>([&] { s.play(PairingScript::packet(anchor_tick + 40000)); }),
            "FIFO sample has no matching GPIO395 event");

  s.admit(s.edge(anchor_tick + 40000));
  s.admit(s.edge(anchor_tick + 80000));
  EXPECT_TRUE(s.core.short_of_events(3));
  EXPECT_FALSE(s.core.short_of_events(2));
  const ResyncRequest r = s.core.batch_mismatch(3);
  EXPECT_EQ(r.reason, RecoveryReason::batch_mismatch);
  EXPECT_EQ(r.message, "FIFO/GPIO batch boundary mismatch");
  EXPECT_EQ(r.discarded_fifo_samples, 3U);
  EXPECT_EQ(r.discarded_gpio_events_pre_recovery, 2U);
  EXPECT_FALSE(r.trigger);
}

// --- Step gate ---

TEST(PairingCoreStepGate, SkippedSampleAsksForResyncOrThrowsWhenStrict) {
  for (const RateProfile* profile : {&rate_profile_25hz, &rate_profile_30hz}) {
    SCOPED_TRACE(profile->rate_hz);
    std::string lenient_message;
    for (const bool strict : {false, true}) {
      PairingScript s(*profile, strict);
      s.arm(anchor_tick);
      s.stream(5);
      const std::uint64_t last_tick = s.tick;
      const std::uint64_t skipped = last_tick + 2 * profile->nominal_step_ticks;
      for (std::uint64_t i = 0; i < 3; ++i) s.admit(s.edge(skipped + i * profile->nominal_step_ticks));
      const FifoPacket p = PairingScript::packet(skipped);
      if (strict) {
        EXPECT_EQ(error_of<std::runtime_error>([&] { s.play(p, 3); }), lenient_message);
        continue;
      }
      ASSERT_EQ(s.play(p, 3), SampleAction::resync);
      const ResyncRequest& r = s.resyncs.back();
      lenient_message = r.message;
      EXPECT_TRUE(starts_with(r.message, "FIFO timestamp step out of " + std::to_string(profile->rate_hz) +
                                             " Hz gate: "))
          << r.message;
      EXPECT_TRUE(contains(r.message, ", reference_tick=" + std::to_string(last_tick) + ", first_sample=0,"));
      EXPECT_TRUE(contains(r.message, "runtime_boundary_context=0"));
      EXPECT_EQ(r.reason, RecoveryReason::batch_mismatch);
      EXPECT_EQ(r.discarded_fifo_samples, 3U);
      EXPECT_EQ(r.discarded_gpio_events_pre_recovery, 3U);
      EXPECT_EQ(r.trigger->line_seqno, 6U);  // the front edge the sample was paired with
      EXPECT_EQ(s.core.counters().total_drops, 0U);  // drops are counted when the resync succeeds
    }
  }
}

TEST(PairingCoreStepGate, FirstStepAfterAnArmMayBeShortButNotLong) {
  for (const RateProfile* profile : {&rate_profile_25hz, &rate_profile_30hz}) {
    SCOPED_TRACE(profile->rate_hz);
    PairingScript s(*profile);
    s.arm(anchor_tick);
    ASSERT_EQ(s.sample_at(anchor_tick + 1), SampleAction::emit);
    EXPECT_EQ(s.emitted.back().fifo_timestamp_low16, (anchor_tick + 1) & 0xFFFF);
    EXPECT_EQ(s.sample_at(anchor_tick + 2), SampleAction::resync);  // the allowance ended

    s.arm(anchor_tick);
    EXPECT_NE(s.sample_at(anchor_tick + profile->max_step_ticks), SampleAction::resync);
    EXPECT_NE(s.sample(), SampleAction::resync);  // the long first step became the reference

    s.arm(anchor_tick);
    ASSERT_EQ(s.sample_at(anchor_tick + profile->max_step_ticks + 1), SampleAction::resync);
    const std::string initial = s.resyncs.back().message;
    EXPECT_TRUE(contains(initial, ", reference_tick=" + std::to_string(anchor_tick) + ", first_sample=1,"));
    EXPECT_TRUE(contains(initial, "allow_short_first_step=1, runtime_boundary_context=0, arm_start_raw_ns=0,"));
  }
}

TEST(PairingCoreStepGate, RuntimeRearmPutsItsBoundaryInTheMessage) {
  PairingScript s(rate_profile_25hz);
  s.arm(anchor_tick);
  s.stream(3);

  ArmBoundaryReport arm;
  arm.arm_start_raw_ns = 5'000'000;
  arm.arm_boundary_event_raw_ns = 4'970'000;
  arm.arm_boundary_uncertainty_ns = 50;
  arm.arm_boundary_age_ns = -30'000;
  const std::uint64_t rearm_tick = s.tick + 100'000;
  s.core.begin_arm();
  s.core.set_runtime_boundary(arm);
  s.core.armed(rearm_tick);
  EXPECT_EQ(s.sample_at(rearm_tick + 1), SampleAction::emit);  // short first step again
  EXPECT_EQ(s.emitted.back().sample_index, 3U);

  s.core.begin_arm();
  s.core.set_runtime_boundary(arm);
  s.core.armed(s.tick);
  ASSERT_EQ(s.sample_at(s.tick + 60001), SampleAction::resync);
  EXPECT_TRUE(contains(s.resyncs.back().message,
                       "runtime_boundary_context=1, arm_start_raw_ns=5000000, arm_boundary_event_raw_ns=4970000, "
                       "arm_boundary_uncertainty_ns=50, arm_boundary_age_ns=-30000"))
      << s.resyncs.back().message;

  // An arm without a runtime boundary forgets the last one.
  s.arm(s.tick);
  ASSERT_EQ(s.sample_at(s.tick + 60001), SampleAction::resync);
  EXPECT_TRUE(contains(s.resyncs.back().message, "runtime_boundary_context=0, arm_start_raw_ns=0,"));
}

// --- Dropped samples ---

void invalidate_bridge(BridgedEvent& e) {
  e.valid = false;
  e.reject_reason = BridgeRejectReason::half_window_too_wide;
  e.half_window_ns = 150'000;
}

TEST(PairingCoreDrops, InvalidBridgeDropsTheSampleAndConsumesItsEdge) {
  PairingScript s(rate_profile_25hz);
  s.arm(anchor_tick);
  s.stream(2);
  testing::internal::CaptureStderr();
  EXPECT_EQ(s.sample_with_edge(invalidate_bridge), SampleAction::next);
  const std::string log = testing::internal::GetCapturedStderr();
  EXPECT_TRUE(starts_with(log, "GPIO395 MONOTONIC to RAW bridge timing sample dropped: reason=half_window_too_wide,"))
      << log;
  EXPECT_EQ(s.core.counters().bridge_drops, 1U);
  EXPECT_EQ(s.core.counters().tmst_raw_drops, 0U);
  EXPECT_EQ(s.core.counters().total_drops, 1U);
  EXPECT_EQ(s.core.pending_events(), 0U);

  // The dropped sample still moved the step reference: the next one is one period on.
  ASSERT_EQ(s.sample(), SampleAction::emit);
  EXPECT_EQ(s.emitted.back().event_time_raw_ns, raw_of_tick(s.tick));
  EXPECT_EQ(s.emitted.back().sample_index, 2U);
  EXPECT_EQ(s.emitted.back().total_drops, 1U);

  PairingScript strict(rate_profile_25hz, true);
  strict.arm(anchor_tick);
  const std::string error = error_of<std::runtime_error>([&] { strict.sample_with_edge(invalidate_bridge); });
  EXPECT_TRUE(starts_with(error, "GPIO395 MONOTONIC to RAW bridge exceeded uncertainty gate: reason=half_window_too_wide,"))
      << error;
}

TEST(PairingCoreDrops, TmstSoftDropsCountConsecutivelyUntilASampleIsAccepted) {
  PairingScript s(rate_profile_25hz);
  s.arm(anchor_tick);
  testing::internal::CaptureStderr();
  for (int i = 0; i < 3; ++i) EXPECT_EQ(s.unmappable_sample(), SampleAction::next);
  EXPECT_EQ(s.core.counters().consecutive_drops, 3U);
  ASSERT_EQ(s.sample(), SampleAction::emit);
  EXPECT_EQ(s.unmappable_sample(), SampleAction::next);
  ASSERT_EQ(s.sample(), SampleAction::emit);
  const std::string log = testing::internal::GetCapturedStderr();

  EXPECT_TRUE(starts_with(log, "TMST to RAW timing sample dropped: TMST to RAW mapping failed or exceeded uncertainty "
                               "gate: fifo_tmst_tick=" + std::to_string(anchor_tick + 40000) +
                               ", measurement_uncertainty_ns=250000, gpio_delivery_age_ns=500,"))
      << log;
  const TimingDropCounters& c = s.core.counters();
  EXPECT_EQ(c.tmst_raw_drops, 4U);
  EXPECT_EQ(c.bridge_drops, 0U);
  EXPECT_EQ(c.total_drops, 4U);
  EXPECT_EQ(c.max_consecutive_drops, 3U);
  EXPECT_EQ(c.consecutive_drops, 0U);
  EXPECT_EQ(s.core.pending_events(), 0U);
  ASSERT_EQ(s.emitted.size(), 2U);
  EXPECT_EQ(s.emitted[1].sample_index, 1U);
  EXPECT_EQ(s.emitted[1].event_time_raw_ns, raw_of_tick(s.tick));
  EXPECT_EQ(s.emitted[1].total_drops, 4U);
}

TEST(PairingCoreDrops, ASecondOfDropsInARowCallsForARebuiltMap) {
  PairingScript s(rate_profile_25hz);
  s.arm(anchor_tick);
  testing::internal::CaptureStderr();
  for (int i = 0; i < 24; ++i) ASSERT_EQ(s.unmappable_sample(), SampleAction::next) << i;
  ASSERT_EQ(s.sample(), SampleAction::emit);  // an accepted sample starts the count again
  for (int i = 0; i < 24; ++i) ASSERT_EQ(s.unmappable_sample(), SampleAction::next) << i;
  ASSERT_EQ(s.unmappable_sample(), SampleAction::resync);  // the 25th: one second at 25 Hz
  ASSERT_EQ(s.resyncs.size(), 1U);
  EXPECT_EQ(s.resyncs[0].reason, RecoveryReason::timing_drop_run);
  EXPECT_EQ(s.resyncs[0].message, "timing samples dropped for a second in a row");
  EXPECT_EQ(s.resyncs[0].discarded_fifo_samples, 0U);
  EXPECT_FALSE(s.resyncs[0].trigger.has_value());

  // The count starts again at each arm, so a rebuilt map gets its own second.
  s.arm(s.tick);
  for (int i = 0; i < 24; ++i) ASSERT_EQ(s.unmappable_sample(), SampleAction::next) << i;
  testing::internal::GetCapturedStderr();
  EXPECT_EQ(s.core.counters().consecutive_drops, 49U);
}

TEST(PairingCoreDrops, AMapRefusingAPreciseAnchorIsRebuiltWithTheBatchDiscarded) {
  // A map built while every snapshot was stretched, its latches 98 us before
  // the midpoints. With the widest bridge the gate allows, the first sample
  // needs a fresh anchor, and a precise one disagrees with the whole window.
  for (const bool strict : {false, true}) {
    SCOPED_TRACE(strict);
    PairingScript s(rate_profile_25hz, strict, false, WindowShape{50000, 98000, 99000});
    const std::uint64_t step = rate_profile_25hz.nominal_step_ticks;
    s.arm(760'000);
    for (std::uint64_t i = 1; i <= 3; ++i) {
      BridgedEvent e = s.edge(s.tick + i * step);
      e.half_window_ns = bridge_max_half_window_ns;
      s.admit(e);
    }
    s.tick += step;
    if (strict) {
      // No rebuild in strict mode: the refused refresh is the end of the run.
      EXPECT_TRUE(starts_with(error_of<std::runtime_error>([&] { s.play(PairingScript::packet(s.tick), 3); }),
                              "TMST to RAW mapping failed or exceeded uncertainty gate: "));
      continue;
    }
    ASSERT_EQ(s.play(PairingScript::packet(s.tick), 3), SampleAction::resync);
    EXPECT_TRUE(s.timebase.outshone());
    const ResyncRequest& r = s.resyncs.back();
    EXPECT_EQ(r.reason, RecoveryReason::wide_anchor_map);
    EXPECT_EQ(r.message, "TMST anchor map built from stretched snapshots refused a precise one");
    EXPECT_EQ(r.discarded_fifo_samples, 3U);  // this sample is not counted as a drop elsewhere
    EXPECT_EQ(r.discarded_gpio_events_pre_recovery, 3U);
    EXPECT_FALSE(r.trigger.has_value());
    EXPECT_EQ(s.core.counters().total_drops, 0U);
  }
}

// --- Startup sentinels ---

TEST(PairingCoreSentinels, StartupSentinelsAreSkippedReanchoredAndLimited) {
  PairingScript s(rate_profile_25hz);
  s.arm(anchor_tick);
  for (int i = 1; i <= 256; ++i) {
    const SampleAction action = sentinel_sample(s, i);
    ASSERT_EQ(action, i % 16 == 0 ? SampleAction::reanchor : SampleAction::next) << i;
  }
  EXPECT_EQ(s.reanchors, 16);
  EXPECT_TRUE(s.emitted.empty());
  EXPECT_EQ(s.core.pending_events(), 0U);
  EXPECT_EQ(error_of<std::runtime_error>([&] { sentinel_sample(s, 0); }),
            "IMU FIFO startup sentinel values did not clear");
}

TEST(PairingCoreSentinels, FirstCleanSampleEndsStartupAndLaterSentinelsAreFatal) {
  PairingScript s(rate_profile_25hz);
  s.arm(anchor_tick);
  for (int i = 0; i < 20; ++i) sentinel_sample(s, i);
  ASSERT_EQ(s.sample(), SampleAction::emit);
  EXPECT_EQ(s.emitted[0].sample_index, 0U);
  EXPECT_EQ(s.emitted[0].event_time_raw_ns, raw_of_tick(s.tick));
  EXPECT_EQ(s.core.counters().total_drops, 0U);
  EXPECT_EQ(error_of<std::runtime_error>([&] { sentinel_sample(s, 5); }),
            "IMU FIFO sample contains non-startup sentinel values");
}

// --- Mapped time ---

TEST(PairingCoreMapping, MappedTimeMustBeNonZero) {
  // A map whose line reaches RAW zero at the first sample's tick.
  PairingScript s(rate_profile_25hz);
  const std::uint64_t zero_tick = 900'000;
  std::vector<TmstAnchor> anchors;
  for (std::uint64_t k = 0; k < 4; ++k) anchors.push_back(TmstAnchor{zero_tick + k * 10000, k * 10'000'000, k * 10'000'000});
  s.rebuild_map(anchors);
  s.arm(zero_tick - 40000);
  EXPECT_EQ(error_of<std::runtime_error>([&] { s.sample(); }), "mapped sample timestamp is zero");
}

TEST(PairingCoreMapping, AMapRebuiltBehindTheLastDeliveredSampleIsFatal) {
  // After a resync the rebuilt map puts the next sample offset_ns earlier
  // than the old one did: one period earlier is the last sample's own time.
  const std::int64_t period_ns = 40'000'000;
  const struct {
    const char* name;
    std::int64_t offset_ns;
    const char* error;
  } cases[] = {
      {"equal", period_ns, "mapped sample timestamp is not monotonic"},
      {"earlier", period_ns + 1, "mapped sample timestamp is not monotonic"},
      {"later by 1 ns", period_ns - 1, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    PairingScript s(rate_profile_25hz);
    s.arm(800'000);  // ticks within the counter's first turn: the rebuilt map starts its own
    ASSERT_EQ(s.sample(), SampleAction::emit);
    std::vector<TmstAnchor> anchors;
    for (std::uint64_t k = 1; k <= 4; ++k) {
      const std::uint64_t tick = s.tick + k * 10000;
      anchors.push_back(anchor(tick, raw_of_tick(tick) - static_cast<std::uint64_t>(c.offset_ns)));
    }
    s.rebuild_map(anchors);
    s.arm(s.tick);
    EXPECT_EQ(error_of<std::runtime_error>([&] { s.sample(); }), c.error);
  }
}

TEST(PairingCoreMapping, PeriodicRefreshIsTakenEverySixteenAcceptedSamples) {
  PairingScript s(rate_profile_25hz);
  s.arm(anchor_tick);
  // Refresh snapshots taken while pairing each sample.
  const auto refreshes = [&s](int samples, bool unmappable = false) {
    std::vector<int> taken;
    for (int i = 0; i < samples; ++i) {
      const int before = s.source.refresh_snapshots;
      if (unmappable) {
        s.unmappable_sample();
      } else {
        s.sample();
      }
      taken.push_back(s.source.refresh_snapshots - before);
    }
    return taken;
  };
  std::vector<int> expected(50, 0);
  expected[16] = expected[32] = expected[48] = 1;
  EXPECT_EQ(refreshes(50), expected);
  const std::uint64_t refreshed_tick = s.timebase.mapper().anchors().back().tick;
  EXPECT_GT(refreshed_tick, anchor_tick + 48 * 40000);  // each went in: the window follows the stream

  // Drops do not advance the count: the refresh stays due until a sample is
  // accepted. Gated on a sample that cannot be mapped, it is refused and
  // offered again twice.
  refreshes(14);  // 64 accepted
  testing::internal::CaptureStderr();
  EXPECT_EQ(refreshes(1, true), std::vector<int>{3});
  testing::internal::GetCapturedStderr();
  EXPECT_EQ(refreshes(2), (std::vector<int>{1, 0}));
}

// --- Calibrated phase ---

TEST(PairingCorePhase, CalibratedPhaseDropsExtraAndLateEdges) {
  PairingScript s(calibrated_25hz);
  s.arm(anchor_tick);
  // Before alignment, and after it when lenient, an early extra edge is dropped.
  for (int round = 0; round < 2; ++round) {
    s.admit(s.edge(s.tick + 20000));  // between two samples
    ASSERT_EQ(s.sample(), SampleAction::emit);
    EXPECT_EQ(s.emitted.back().event_time_raw_ns, raw_of_tick(s.tick));
  }
  EXPECT_EQ(s.agains, 2);
  EXPECT_EQ(s.core.counters().drop_event_count, 2U);
  EXPECT_EQ(s.core.counters().total_drops, 0U);

  // A missing edge: the sample meets the next sample's edge, is dropped, and the edge waits.
  s.tick += 40000;
  s.admit(s.edge(s.tick + 40000));
  testing::internal::CaptureStderr();
  EXPECT_EQ(s.play(PairingScript::packet(s.tick)), SampleAction::next);
  testing::internal::GetCapturedStderr();
  EXPECT_EQ(s.core.counters().runtime_phase_drops, 1U);
  EXPECT_EQ(s.core.pending_events(), 1U);
  s.tick += 40000;
  ASSERT_EQ(s.play(PairingScript::packet(s.tick)), SampleAction::emit);
  EXPECT_EQ(s.emitted.back().event_time_raw_ns, raw_of_tick(s.tick));
  EXPECT_EQ(s.emitted.back().total_drops, 1U);

  PairingScript strict(calibrated_25hz, true);
  strict.arm(anchor_tick);
  strict.stream(1);
  strict.admit(strict.edge(strict.tick + 20000));
  EXPECT_TRUE(starts_with(error_of<std::runtime_error>([&] { strict.sample(); }),
                          "FIFO/GPIO phase mismatch after startup alignment: action=drop_event,"));
}

// --- Resync accounting ---

TEST(PairingCoreResync, ReportSuccessAndFailureAreCountedPerReason) {
  const struct {
    RecoveryReason reason;
    const char* name;
  } cases[] = {
      {RecoveryReason::batch_mismatch, "batch_mismatch"},   {RecoveryReason::gpio_sequence_gap, "gpio_sequence_gap"},
      {RecoveryReason::gpio_queue_overflow, "gpio_queue_overflow"}, {RecoveryReason::timing_drop_run, "timing_drop_run"},
      {RecoveryReason::pairing_slip, "pairing_slip"},       {RecoveryReason::wide_anchor_map, "wide_anchor_map"},
  };
  ArmBoundaryReport arm;
  arm.stale_gpio_drain.add(BridgedEvent{});
  arm.arm_boundary_event = true;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    PairingScript s(rate_profile_25hz);
    ResyncRequest request;
    request.reason = c.reason;
    request.message = "M";
    request.discarded_fifo_samples = 5;
    request.discarded_gpio_events_pre_recovery = 3;

    const std::string report = s.core.begin_resync(request, nullptr);
    EXPECT_TRUE(starts_with(report, std::string("M: recovery_reason=") + c.name +
                                        ", discarded_fifo_samples=5, discarded_gpio_events_pre_recovery=3,"))
        << report;
    EXPECT_TRUE(contains(report, ", pairing_timeout_ms=" + std::to_string(rate_profile_25hz.pairing_timeout_ms) +
                                     ", sample_rate_hz=25"))
        << report;

    testing::internal::CaptureStderr();
    s.core.resync_retrying(report, 1, "boom");
    s.core.resync_succeeded(request, report, arm, 2);
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(starts_with(log, "TIMING_BOUNDARY_RESYNC_RETRY " + report + ": attempt=1,")) << log;
    EXPECT_TRUE(contains(log, "\nTIMING_BOUNDARY_RESYNC " + report + ", ")) << log;

    const TimingDropCounters& k = s.core.counters();
    EXPECT_EQ(k.resyncs(c.reason).resyncs, 1U);
    EXPECT_EQ(k.resyncs(c.reason).drops, 5U);
    EXPECT_EQ(k.resyncs(c.reason).discarded_gpio_events, discarded_gpio_events_total(arm, 3));
    std::uint32_t all = 0;
    for (const ResyncCounts& counts : k.by_reason) all += counts.resyncs;
    EXPECT_EQ(all, 1U);
    EXPECT_EQ(k.total_drops, 5U);
    EXPECT_EQ(k.boundary_resyncs, 0U);  // counted at admission, not here

    const std::string failure = s.core.resync_failed(request, "boom", 4);
    EXPECT_TRUE(starts_with(failure, std::string("M: resync failed: boom, recovery_reason=") + c.name)) << failure;
    EXPECT_TRUE(contains(failure, "recovery_attempts=4"));
    EXPECT_EQ(s.core.counters().resync_failures, 1U);
  }

  PairingScript strict(rate_profile_30hz, true);
  ResyncRequest request;
  request.message = "M";
  const std::string error = error_of<std::runtime_error>([&] { (void)strict.core.begin_resync(request, nullptr); });
  EXPECT_TRUE(starts_with(error, "M: recovery_reason=batch_mismatch,")) << error;
  EXPECT_TRUE(contains(error, "sample_rate_hz=30")) << error;
}

TEST(PairingCoreResync, RunContinuesAfterARecoveredSequenceGap) {
  PairingScript s(rate_profile_25hz);
  s.arm(anchor_tick);
  s.stream(3);
  s.admit(s.edge(s.tick + 40000));
  BridgedEvent gap = s.edge(s.tick + 80000);
  gap.seqno_gap = true;
  std::optional<ResyncRequest> request = s.admit(gap);
  ASSERT_TRUE(request);
  request->discarded_fifo_samples = 2;

  const std::string report = s.core.begin_resync(*request, nullptr);
  ArmBoundaryReport arm;
  arm.arm_start_raw_ns = raw_of_tick(s.tick + 500'000);
  testing::internal::CaptureStderr();
  s.core.resync_succeeded(*request, report, arm, 1);
  testing::internal::GetCapturedStderr();
  s.core.begin_arm();
  EXPECT_EQ(s.core.pending_events(), 0U);
  s.core.set_runtime_boundary(arm);
  s.tick += 1'000'000;
  s.core.armed(s.tick);
  s.stream(2);

  ASSERT_EQ(s.emitted.size(), 5U);
  for (std::size_t i = 3; i < 5; ++i) {
    EXPECT_EQ(s.emitted[i].sample_index, i);
    EXPECT_EQ(s.emitted[i].boundary_resyncs, 1U);
    EXPECT_EQ(s.emitted[i].total_drops, 2U);
  }
  EXPECT_EQ(s.core.counters().resyncs(RecoveryReason::gpio_sequence_gap).resyncs, 1U);
  EXPECT_EQ(s.core.counters().resyncs(RecoveryReason::gpio_sequence_gap).drops, 2U);
}

}  // namespace
}  // namespace pelmor_lusk
