#include "timing/tmst_timebase.hpp"

namespace pelmor_lusk {

bool fresh_anchor_worth_retrying(std::uint32_t attempt, FitRejectReason reason, const AnchorGate& gate) noexcept {
  if (attempt >= fresh_anchor_attempts) return false;
  return reason == FitRejectReason::anchor_window_too_wide ||
         (gate.for_sample && reason == FitRejectReason::sample_uncertainty_too_large);
}

void TmstTimebase::reset() noexcept {
  mapper_ = TmstMapper(mapper_.bracket_fit(), mapper_.latch_margins());
  unwrap_.reset();
  outshone_ = false;
}

bool TmstTimebase::offer_fresh_anchors(const AnchorGate& gate, bool periodic, std::uint64_t* inserted_tick) {
  for (std::uint32_t attempt = 1;; ++attempt) {
    const TmstAnchor anchor =
        anchor_from_snapshot(unwrap_, periodic ? source_.take_refresh_snapshot() : source_.take_snapshot());
    const bool inserted = gate.for_sample
                              ? mapper_.add_anchor_gated(anchor, gate.tick, gate.measurement_uncertainty_ns)
                              : mapper_.add_anchor(anchor, tmst_establish_residual_limit_ns);
    if (inserted) {
      outshone_ = false;
      if (inserted_tick != nullptr) *inserted_tick = anchor.tick;
      return true;
    }
    const FitRejectReason reason = last_reject_reason();
    if (!fresh_anchor_worth_retrying(attempt, reason, gate)) {
      outshone_ = (reason == FitRejectReason::residual_too_large ||
                   reason == FitRejectReason::sample_uncertainty_too_large) &&
                  mapper_.outshone_by(anchor);
      return false;
    }
  }
}

MapperRefreshOutcome TmstTimebase::refresh_mapper(bool strict_timing, std::uint64_t tick,
                                                  std::uint64_t measurement_uncertainty_ns,
                                                  std::uint64_t gpio_delivery_age_ns) {
  MapperRefreshOutcome outcome;
  outcome.mapping = map_tmst_to_raw(mapper_.fit(), tick, measurement_uncertainty_ns);
  if (outcome.mapping.valid) return outcome;
  if (insert_fresh_anchor(AnchorGate::sample(tick, measurement_uncertainty_ns))) {
    // The anchor went in only because the new fit maps tick within the gate.
    outcome.mapping = map_tmst_to_raw(mapper_.fit(), tick, measurement_uncertainty_ns);
    return outcome;
  }
  return judge_failed_mapping(mapper_.fit(), mapper_.last_rejected(), outcome.mapping, strict_timing, tick,
                              measurement_uncertainty_ns, gpio_delivery_age_ns);
}

}  // namespace pelmor_lusk
