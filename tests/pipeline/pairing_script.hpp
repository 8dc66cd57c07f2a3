// Plays the worker loop around a PairingCore on an ideal timeline: TMST tick t
// happened at RAW base_raw_ns + 1000 t, and its INT1 edge carries that time.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

#include "pipeline/pairing_core.hpp"
#include "timing/timing_test_support.hpp"

namespace pelmor_lusk::testing_support {

// Anchors every 1e6 ticks keep every tick the tests reach inside the fitted span.
inline TmstMapper spanning_ideal_mapper() {
  TmstMapper m;
  for (std::uint64_t i = 0; i < tmst_anchor_capacity; ++i) m.add_anchor(ideal(i * 1'000'000), 50000);
  return m;
}

inline std::uint64_t raw_of_tick(std::uint64_t tick) { return base_raw_ns + tick * 1000; }

// Changes the ideal mapping outcome before the core sees it.
using OutcomeEdit = std::function<void(MapperRefreshOutcome&)>;

inline OutcomeEdit soft_drop() {
  return [](MapperRefreshOutcome& o) { o.message = "TMST to RAW mapping failed or exceeded uncertainty gate: test"; };
}
inline OutcomeEdit mapped_at(std::uint64_t raw_ns) {
  return [raw_ns](MapperRefreshOutcome& o) { o.mapping.raw_ns = raw_ns; };
}

struct PairingScript {
  explicit PairingScript(const RateProfile& rate, bool strict = false, bool pairing_check = false)
      : profile(rate), core(rate, rate.rate_hz, strict, pairing_check), mapper(spanning_ideal_mapper()) {}

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

  // Pairs packet as process_batch does, pairing it again after every `again`;
  // returns the last action.
  SampleAction play(const FifoPacket& p, std::uint32_t remaining = 1, const OutcomeEdit& edit = {}) {
    for (;;) {
      SampleVerdict v = core.pair_sample(p, remaining, pairing_mapper != nullptr ? *pairing_mapper : mapper);
      if (v.action == SampleAction::map) {
        mappings.push_back(v.mapping);
        MapperRefreshOutcome outcome;
        outcome.mapping = map_tmst_to_raw(mapper, v.mapping.tick, v.mapping.half_window_ns);
        if (edit) edit(outcome);
        v = core.accept_mapping(p, outcome, wrap_count);
      }
      switch (v.action) {
        case SampleAction::again:
          agains += 1;
          continue;
        case SampleAction::resync:
          resyncs.push_back(v.resync);
          break;
        case SampleAction::reanchor:
          reanchors += 1;
          break;
        case SampleAction::emit:
          emitted.push_back(v.sample);
          break;
        case SampleAction::next:
        case SampleAction::map:
          break;
      }
      return v.action;
    }
  }

  // The next sensor sample one period on, with its edge.
  SampleAction sample(const OutcomeEdit& edit = {}) { return sample_at(tick + profile.nominal_step_ticks, edit); }
  SampleAction sample_at(std::uint64_t at_tick, const OutcomeEdit& edit = {}) {
    tick = at_tick;
    admit(edge(at_tick));
    return play(packet(at_tick), 1, edit);
  }
  void stream(int count) {
    for (int i = 0; i < count; ++i) sample();
  }
  // The next sample, paired with an edge whose stamp is off by offset_ns (the
  // neighbour's edge after a slip, a late interrupt).
  SampleAction sample_with_edge_off(std::int64_t offset_ns) {
    tick += profile.nominal_step_ticks;
    BridgedEvent e = edge(tick);
    e.raw_ns = static_cast<std::uint64_t>(static_cast<std::int64_t>(e.raw_ns) + offset_ns);
    admit(e);
    return play(packet(tick));
  }

  const RateProfile& profile;
  PairingCore core;
  TmstMapper mapper;                        // maps every sample
  const TmstMapper* pairing_mapper = nullptr;  // handed to pair_sample instead, when set
  std::uint64_t wrap_count = 0;
  std::uint64_t tick = 0;  // of the last sample streamed, or the anchor
  std::uint32_t seqno = 0;

  std::vector<ImuSample> emitted;
  std::vector<ResyncRequest> resyncs;
  std::vector<MappingRequest> mappings;
  int reanchors = 0;
  int agains = 0;
};

}  // namespace pelmor_lusk::testing_support
