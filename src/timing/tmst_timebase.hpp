// The sensor's timebase as seen from the host: the unwrapped TMST counter, the
// anchor map fitted onto CLOCK_MONOTONIC_RAW, and the one rule by which fresh
// anchors are taken when the map refuses one.
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
bool fresh_anchor_worth_retrying(std::uint32_t attempt, std::uint32_t reason, const AnchorGate& gate) noexcept;

// Offers up to fresh_anchor_attempts anchors from source; true when one went in,
// with its tick in *inserted_tick. Sets or clears mapper.outshone.
bool insert_fresh_anchor(TmstMapper& mapper, TmstUnwrapState& unwrap, AnchorSource& source, const AnchorGate& gate,
                         std::uint64_t* inserted_tick = nullptr);

// Maps tick; when it fails its gate, fresh anchors gated on tick are offered
// first. A valid mapping, a soft drop (message set), or a throw.
MapperRefreshOutcome refresh_mapper(TmstMapper& mapper, TmstUnwrapState& unwrap, AnchorSource& source,
                                    bool strict_timing, std::uint64_t tick, std::uint64_t measurement_uncertainty_ns,
                                    std::uint64_t gpio_delivery_age_ns);

// The mapper and the counter's unwrap state of one run, kept together.
class TmstTimebase {
 public:
  explicit TmstTimebase(bool bracket_fit = false) noexcept { mapper_.bracket_fit = bracket_fit; }

  // Forgets every anchor and the counter's wrap history.
  void reset() noexcept;

  // Builds the map from scratch; throws when it cannot.
  void establish(AnchorSource& source) { establish_anchor_map(mapper_, unwrap_, source); }

  bool insert_fresh_anchor(AnchorSource& source, const AnchorGate& gate, std::uint64_t* inserted_tick = nullptr) {
    return pelmor_lusk::insert_fresh_anchor(mapper_, unwrap_, source, gate, inserted_tick);
  }
  MapperRefreshOutcome map_refreshing(AnchorSource& source, bool strict_timing, std::uint64_t tick,
                                      std::uint64_t measurement_uncertainty_ns, std::uint64_t gpio_delivery_age_ns) {
    return refresh_mapper(mapper_, unwrap_, source, strict_timing, tick, measurement_uncertainty_ns,
                          gpio_delivery_age_ns);
  }

  const TmstMapper& mapper() const noexcept { return mapper_; }
  std::uint64_t wrap_count() const noexcept { return unwrap_.wrap_count; }
  std::uint32_t last_reject_reason() const noexcept { return mapper_.last_rejected.reject_reason; }
  // A wide window refused a precise fresh anchor: the map needs rebuilding.
  bool outshone() const noexcept { return mapper_.outshone; }
  const TmstFit& last_rejected() const noexcept { return mapper_.last_rejected; }

 private:
  TmstMapper mapper_{};
  TmstUnwrapState unwrap_{};
};

}  // namespace pelmor_lusk
