// The sensor's timebase as seen from the host: the unwrapped TMST counter, the
// anchor map fitted onto CLOCK_MONOTONIC_RAW, and the rules by which fresh
// anchors are taken from the source the run provides.
#pragma once

#include <cstdint>

#include "timing/anchor_map.hpp"
#include "timing/tmst_mapper.hpp"
#include "timing/tmst_mapping.hpp"

namespace pelmor_lusk {

// A fresh snapshot can only cure a bracket stretched by preemption and, for a
// gated anchor, a sample still outside the uncertainty gate.
inline constexpr std::uint32_t fresh_anchor_attempts = 3;

// How a fresh anchor is judged before it joins the map.
struct AnchorGate {
  bool for_sample = false;                       // false: the establishment residual limit only
  std::uint64_t tick = 0;                        // the sample the new fit must map within the gate
  std::uint64_t measurement_uncertainty_ns = 0;

  static AnchorGate plain() noexcept { return AnchorGate{}; }
  static AnchorGate sample(std::uint64_t tick, std::uint64_t measurement_uncertainty_ns) noexcept {
    return AnchorGate{true, tick, measurement_uncertainty_ns};
  }
};

// True when attempt number `attempt` (from 1), refused for `reason`, is worth
// another with a fresh snapshot under `gate`.
bool fresh_anchor_worth_retrying(std::uint32_t attempt, FitRejectReason reason, const AnchorGate& gate) noexcept;

// The mapper and the counter's unwrap state of one run, with the source of its
// anchors. It makes no system call itself: every snapshot comes from source.
class TmstTimebase {
 public:
  TmstTimebase(AnchorSource& source, bool bracket_fit) noexcept
      : source_(source), mapper_(bracket_fit, bracket_fit ? source.latch_margins() : LatchMargins{}) {}
  TmstTimebase(const TmstTimebase&) = delete;
  TmstTimebase& operator=(const TmstTimebase&) = delete;

  // Forgets every anchor and the counter's wrap history.
  void reset() noexcept;
  // Builds the map from scratch; throws when it cannot.
  void establish() { establish_anchor_map(mapper_, unwrap_, source_); }

  // Offers up to fresh_anchor_attempts anchors; true when one went in, with its
  // tick in *inserted_tick.
  bool insert_fresh_anchor(const AnchorGate& gate, std::uint64_t* inserted_tick = nullptr) {
    return offer_fresh_anchors(gate, false, inserted_tick);
  }
  // Keeps the fit up with the sensor clock's drift while the FIFO streams; a
  // refused anchor leaves the fit in force.
  void refresh_for_sample(std::uint64_t tick, std::uint64_t measurement_uncertainty_ns) {
    offer_fresh_anchors(AnchorGate::sample(tick, measurement_uncertainty_ns), true, nullptr);
  }
  // Maps tick; when it fails its gate, fresh anchors gated on tick are offered
  // first. A valid mapping, a soft drop (message set), or a throw.
  MapperRefreshOutcome refresh_mapper(bool strict_timing, std::uint64_t tick, std::uint64_t measurement_uncertainty_ns,
                                      std::uint64_t gpio_delivery_age_ns);

  const TmstMapper& mapper() const noexcept { return mapper_; }
  // See TmstMapper::bound_sample.
  std::optional<TightMapping> bound_sample(std::uint64_t tick, std::uint64_t stamp_ns) {
    return mapper_.bound_sample(tick, stamp_ns);
  }
  std::uint64_t wrap_count() const noexcept { return unwrap_.wrap_count(); }
  FitRejectReason last_reject_reason() const noexcept { return mapper_.last_rejected().reject_reason; }
  // The last fresh anchor offered was refused although the window is wide
  // against it: only a rebuilt map can take it in. Cleared when an anchor joins.
  bool outshone() const noexcept { return outshone_; }

 private:
  bool offer_fresh_anchors(const AnchorGate& gate, bool periodic, std::uint64_t* inserted_tick);

  AnchorSource& source_;
  TmstMapper mapper_;
  TmstUnwrap unwrap_{};
  bool outshone_ = false;
};

}  // namespace pelmor_lusk
