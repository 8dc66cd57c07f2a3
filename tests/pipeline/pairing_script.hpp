// Plays the worker loop around a PairingCore on an ideal timeline: TMST tick t
// happened at RAW base_raw_ns + 1000 t, and its INT1 edge carries that time.
// The core maps through a real timebase whose snapshots come from a script.
#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

#include "pipeline/pairing_core.hpp"
#include "timing/timing_test_support.hpp"

namespace pelmor_lusk::testing_support {

inline std::uint64_t raw_of_tick(std::uint64_t tick) { return base_raw_ns + tick * 1000; }

// The anchor map a script starts from: sixteen anchors from tick 0, `spacing`
// apart, each bracket `half` wide on either side of a midpoint `late_ns` past
// the truth.
struct WindowShape {
  std::uint64_t spacing_ticks = 50000;
  std::uint64_t late_ns = 0;
  std::uint64_t half_ns = 1000;
};

struct PairingScript {
  explicit PairingScript(const RateProfile& rate, bool strict = false, bool pairing_check = false,
                         WindowShape window = {})
      : profile(rate),
        timebase(source, false),
        core(rate, rate.rate_hz, RunOptions{strict, pairing_check, false}, timebase) {
    std::vector<TmstAnchor> anchors;
    for (std::uint64_t i = 0; i < tmst_anchor_capacity; ++i) {
      const std::uint64_t at = i * window.spacing_ticks;
      anchors.push_back(anchor(at, raw_of_tick(at) + window.late_ns, window.half_ns));
    }
    rebuild_map(anchors);
  }

  // As a resync's re-arm does: a map built anew, from these anchors. Later
  // snapshots latch the counter exactly, a little after the last sample.
  void rebuild_map(const std::vector<TmstAnchor>& anchors) {
    timebase.reset();
    source.feed(anchors);
    for (std::size_t i = 0; i < anchors.size(); ++i) timebase.insert_fresh_anchor(AnchorGate::plain());
    snapshot_tick = std::max(snapshot_tick, anchors.back().tick);
    source.script([this](int) {
      snapshot_tick = std::max(snapshot_tick, tick) + 1000;
      return ideal_snapshot(snapshot_tick, 1000);
    });
  }

  // As an arm does: forget the old stream, then stream from anchor_tick.
  void arm(std::uint64_t anchor_tick) {
    core.begin_arm();
    core.armed(anchor_tick);
    tick = anchor_tick;
  }

  BridgedEvent edge(std::uint64_t at_tick) {
    BridgedEvent e;
    e.raw_ns = raw_of_tick(at_tick);
    e.half_window_ns = 2000;
    e.delivery_age_ns = 500;
    e.valid = true;
    e.line_seqno = ++seqno;
    return e;
  }

  static FifoPacket packet(std::uint64_t at_tick) {
    FifoPacket p;
    p.accel_z = 2048;
    p.gyro_x = 164;
    p.temperature = 40;
    p.temperature_raw = 40;
    p.fifo_tmst = static_cast<std::uint16_t>(at_tick & 0xFFFF);
    return p;
  }

  std::optional<ResyncRequest> admit(const BridgedEvent& e) {
    std::optional<ResyncRequest> request = core.admit_event(e);
    if (request) resyncs.push_back(*request);
    return request;
  }

  // Pairs packet as the worker loop does, pairing it again after every
  // `again`; returns the last action.
  SampleAction play(const FifoPacket& p, std::uint32_t remaining = 1) {
    for (;;) {
      SampleVerdict v = core.pair_sample(p, remaining);
      switch (v.action) {
        case SampleAction::again:
          agains += 1;
          continue;
        case SampleAction::resync:
          resyncs.push_back(v.resync);
          break;
        case SampleAction::reanchor:
          reanchors += 1;
          timebase.insert_fresh_anchor(AnchorGate::plain());
          break;
        case SampleAction::emit:
          emitted.push_back(v.sample);
          wrap_counts.push_back(timebase.wrap_count());
          break;
        case SampleAction::next:
          break;
      }
      return v.action;
    }
  }

  // The next sensor sample one period on, with its edge.
  SampleAction sample() { return sample_at(tick + profile.nominal_step_ticks); }
  SampleAction sample_at(std::uint64_t at_tick) {
    tick = at_tick;
    admit(edge(at_tick));
    return play(packet(at_tick));
  }
  void stream(int count) {
    for (int i = 0; i < count; ++i) sample();
  }
  // The next sample, paired with its edge changed by edit.
  SampleAction sample_with_edge(const std::function<void(BridgedEvent&)>& edit) {
    tick += profile.nominal_step_ticks;
    BridgedEvent e = edge(tick);
    edit(e);
    admit(e);
    return play(packet(tick));
  }
  // The next sample, paired with an edge whose stamp is off by offset_ns (the
  // neighbour's edge after a slip, a late interrupt).
  SampleAction sample_with_edge_off(std::int64_t offset_ns) {
    return sample_with_edge([offset_ns](BridgedEvent& e) {
      e.raw_ns = static_cast<std::uint64_t>(static_cast<std::int64_t>(e.raw_ns) + offset_ns);
    });
  }
  // The next sample, with an edge whose bridge half window no map can carry
  // within the uncertainty gate: a soft drop.
  SampleAction unmappable_sample() {
    return sample_with_edge([](BridgedEvent& e) { e.half_window_ns = 250'000; });
  }

  const RateProfile& profile;
  ScriptedSource source;
  TmstTimebase timebase;
  PairingCore core;
  std::uint64_t tick = 0;  // of the last sample streamed, or the anchor
  std::uint64_t snapshot_tick = 0;
  std::uint32_t seqno = 0;

  std::vector<ImuSample> emitted;
  std::vector<std::uint64_t> wrap_counts;  // the timebase's, as each sample was emitted
  std::vector<ResyncRequest> resyncs;
  int reanchors = 0;
  int agains = 0;
};

}  // namespace pelmor_lusk::testing_support
