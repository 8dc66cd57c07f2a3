#include "timing/tmst_timebase.hpp"

namespace pelmor_lusk {

bool fresh_anchor_worth_retrying(std::uint32_t attempt, std::uint32_t reason, const AnchorGate& gate) noexcept {
  if (attempt >= fresh_anchor_attempts) return false;
  return reason == fit_reject_anchor_window_too_wide ||
         (gate.for_sample && reason == fit_reject_sample_uncertainty_too_large);
}

void TmstTimebase::reset() noexcept {
  const bool bracket_fit = mapper_.bracket_fit;
  mapper_ = TmstMapper{};
  mapper_.bracket_fit = bracket_fit;
  // The width is the sensor's and stays.
  unwrap_.have_previous = false;
  unwrap_.previous = 0;
  unwrap_.wrap_count = 0;
}

namespace {

bool insert_anchor(TmstMapper& mapper, const TmstAnchor& anchor, const AnchorGate& gate) {
  if (gate.for_sample) return add_anchor_gated(mapper, anchor, gate.tick, gate.measurement_uncertainty_ns);
  return mapper.add_anchor(anchor, tmst_establish_residual_limit_ns);
}

}  // namespace

bool insert_fresh_anchor(TmstMapper& mapper, TmstUnwrapState& unwrap, AnchorSource& source, const AnchorGate& gate,
                         std::uint64_t* inserted_tick) {
  for (std::uint32_t attempt = 1;; ++attempt) {
    const TmstAnchor anchor = anchor_from_snapshot(unwrap, source.take_snapshot());
    if (insert_anchor(mapper, anchor, gate)) {
      mapper.outshone = false;
      if (inserted_tick != nullptr) *inserted_tick = anchor.tick;
      return true;
    }
    const std::uint32_t reason = mapper.last_rejected.reject_reason;
    if (!fresh_anchor_worth_retrying(attempt, reason, gate)) {
      mapper.outshone = (reason == fit_reject_residual_too_large || reason == fit_reject_sample_uncertainty_too_large) &&
                        window_outshone_by(mapper, anchor);
      return false;
    }
  }
}

MapperRefreshOutcome refresh_mapper(TmstMapper& mapper, TmstUnwrapState& unwrap, AnchorSource& source,
                                    bool strict_timing, std::uint64_t tick, std::uint64_t measurement_uncertainty_ns,
                                    std::uint64_t gpio_delivery_age_ns) {
  MapperRefreshOutcome outcome;
  outcome.mapping = map_tmst_to_raw(mapper, tick, measurement_uncertainty_ns);
  if (outcome.mapping.valid) return outcome;
  if (insert_fresh_anchor(mapper, unwrap, source, AnchorGate::sample(tick, measurement_uncertainty_ns))) {
    // The anchor went in only because the new fit maps tick within the gate.
    outcome.mapping = map_tmst_to_raw(mapper, tick, measurement_uncertainty_ns);
    return outcome;
  }
  return judge_failed_mapping(mapper, outcome.mapping, strict_timing, tick, measurement_uncertainty_ns,
                              gpio_delivery_age_ns);
}

}  // namespace pelmor_lusk
