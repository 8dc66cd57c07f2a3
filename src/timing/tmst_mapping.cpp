#include "timing/tmst_mapping.hpp"

#include <algorithm>
#include <cstdint>
#include <stdexcept>

namespace pelmor_lusk {

namespace {

std::uint64_t saturating_add(std::uint64_t a, std::uint64_t b) {
  const std::uint64_t sum = a + b;
  return sum < a ? UINT64_MAX : sum;
}

// Largest total' whose "+ quantization" step still fits: 2^64 - 1 - 1000.
constexpr std::uint64_t max_total_with_measurement = UINT64_MAX - tmst_quantization_ns;

}  // namespace

TmstMapping map_tmst_to_raw(const TmstFit& fit, std::uint64_t tick, std::uint64_t measurement_uncertainty_ns) {
  TmstMapping m{};
  if (!fit.valid) return m;

  const binary128 p = to_q(tick) * fit.slope_ns_per_tick + fit.intercept_ns;
  if (p < 0 || p > u64_max_q) return m;
  m.raw_ns = to_u64(round_half_away_q(p));
  m.mapping_residual_abs_ns = fit.max_residual_ns;
  m.tmst_half_window_ns = fit.max_half_window_ns;

  // Outside the anchored span the slope error grows with the distance.
  std::uint64_t distance = 0;
  if (tick < fit.first_tick) {
    distance = fit.first_tick - tick;
  } else if (tick > fit.last_tick) {
    distance = tick - fit.last_tick;
  }
  const binary128 extrapolation = to_q(distance) * fit.slope_uncertainty_ns_per_tick;
  m.mapping_age_ns = extrapolation > u64_max_q ? UINT64_MAX : to_u64(ceil_q(extrapolation));

  const std::uint64_t total =
      saturating_add(saturating_add(m.mapping_age_ns, m.tmst_half_window_ns), m.mapping_residual_abs_ns);
  const std::uint64_t with_measurement = total + measurement_uncertainty_ns;
  if (with_measurement < total || with_measurement > max_total_with_measurement) {
    m.valid = false;
    m.uncertainty_us = 0;
    return m;
  }
  m.valid = with_measurement + tmst_quantization_ns <= mapping_uncertainty_gate_ns;
  // (total' + 1000) rounded up to whole microseconds, saturated.
  const std::uint64_t rounded_us = with_measurement / 1000 + (with_measurement % 1000 != 0 ? 1 : 0) + 1;
  m.uncertainty_us = static_cast<std::uint32_t>(std::min<std::uint64_t>(rounded_us, UINT32_MAX));
  return m;
}

MapperRefreshOutcome judge_failed_mapping(const TmstFit& fit, const TmstFit& last_rejected, const TmstMapping& mapping,
                                          bool strict_timing, std::uint64_t tick,
                                          std::uint64_t measurement_uncertainty_ns,
                                          std::uint64_t gpio_delivery_age_ns) {
  MapperRefreshOutcome outcome;
  outcome.mapping = mapping;
  // A soft drop needs a real prediction and a lenient run; an invalid fit is always
  // fatal. A map whose refresh is refused only for a stretched bracket is still
  // trusted for the next sample.
  if (outcome.mapping.raw_ns != 0 && !strict_timing) {
    if (outcome.mapping.uncertainty_us > mapping_uncertainty_gate_us) {
      outcome.gate_drop = true;
    } else {
      const FitRejectReason reason = last_rejected.reject_reason;
      outcome.gate_drop =
          reason == FitRejectReason::anchor_window_too_wide || reason == FitRejectReason::bridge_window_too_wide;
    }
  }

  outcome.message = "TMST to RAW mapping failed or exceeded uncertainty gate: " +
                    format_mapping_diagnostic(outcome.mapping, fit, tick, measurement_uncertainty_ns,
                                              gpio_delivery_age_ns);
  outcome.message += ", recovery_refresh_rejected_fit={" + format_fit_diagnostic(last_rejected) + "}";
  if (!outcome.gate_drop) throw std::runtime_error(outcome.message);
  return outcome;
}

std::string format_mapping_diagnostic(const TmstMapping& mapping, const TmstFit& fit, std::uint64_t tick,
                                      std::uint64_t measurement_uncertainty_ns, std::uint64_t gpio_delivery_age_ns) {
  std::string out;
  out += "fifo_tmst_tick=" + std::to_string(tick);
  out += ", measurement_uncertainty_ns=" + std::to_string(measurement_uncertainty_ns);
  out += ", gpio_delivery_age_ns=" + std::to_string(gpio_delivery_age_ns);
  out += ", timestamp_quantization_ns=" + std::to_string(tmst_quantization_ns);
  out += ", uncertainty_us=" + std::to_string(mapping.uncertainty_us);
  out += ", tmst_half_window_ns=" + std::to_string(mapping.tmst_half_window_ns);
  out += ", mapping_residual_abs_ns=" + std::to_string(mapping.mapping_residual_abs_ns);
  out += ", slope_uncertainty_ns=" + std::to_string(mapping.slope_uncertainty_ns);
  out += ", mapping_age_ns=" + std::to_string(mapping.mapping_age_ns);
  out += ", fit={" + format_fit_diagnostic(fit) + "}";
  return out;
}

}  // namespace pelmor_lusk
