#include "pipeline/phase_alignment.hpp"

#include <algorithm>
#include <limits>
#include <stdexcept>

namespace pelmor_lusk {

namespace {

constexpr std::int64_t i64_max = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t i64_min = std::numeric_limits<std::int64_t>::min();

std::int64_t saturate_i64(std::uint64_t value) noexcept {
  return static_cast<std::int64_t>(std::min(value, static_cast<std::uint64_t>(i64_max)));
}

std::int64_t saturating_sub(std::int64_t a, std::int64_t b) noexcept {
  std::int64_t out = 0;
  if (!__builtin_sub_overflow(a, b, &out)) return out;
  return b < 0 ? i64_max : i64_min;
}

const char* flag(bool value) noexcept { return value ? "1" : "0"; }

}  // namespace

const char* phase_action_name(PhaseAction action) noexcept {
  switch (action) {
    case PhaseAction::accept: return "accept";
    case PhaseAction::drop_event: return "drop_event";
    case PhaseAction::drop_sample: return "drop_sample";
  }
  return "unknown";
}

PhaseDecision decide_phase(std::uint64_t event_raw_ns, std::uint64_t mapped_ns,
                           std::uint32_t phase_uncertainty_us, const PhaseCalibration& cal) noexcept {
  PhaseDecision d;
  // Two's-complement difference: both instants share the RAW time base.
  d.phase_delta_ns = static_cast<std::int64_t>(event_raw_ns - mapped_ns);
  d.phase_uncertainty_ns = std::uint64_t{phase_uncertainty_us} * 1000U;
  const std::int64_t uncertainty = saturate_i64(d.phase_uncertainty_ns);
  d.effective_max_error_ns =
      cal.max_error_ns > 0 ? cal.max_error_ns + std::min(uncertainty, i64_max - cal.max_error_ns) : uncertainty;

  if (!cal.phase_calibrated) {
    d.phase_error_ns = 0;
    d.action = PhaseAction::accept;
    return d;
  }
  d.phase_error_ns = saturating_sub(d.phase_delta_ns, cal.expected_delay_ns);
  if (d.phase_error_ns < -d.effective_max_error_ns) {
    d.action = PhaseAction::drop_event;
  } else if (d.phase_error_ns > d.effective_max_error_ns) {
    d.action = PhaseAction::drop_sample;
  } else {
    d.action = PhaseAction::accept;
  }
  return d;
}

std::string format_phase_decision(const PhaseDecision& d, const PhaseCalibration& cal,
                                  const BridgedEvent& event, std::uint16_t fifo_low16,
                                  std::uint32_t startup_alignment_discards, std::string_view drop_stage) {
  std::string out("action=");
  out += phase_action_name(d.action);
  out += ", phase_delta_ns=" + std::to_string(d.phase_delta_ns);
  out += ", phase_error_ns=" + std::to_string(d.phase_error_ns);
  out += ", expected_delay_ns=" + std::to_string(cal.expected_delay_ns);
  out += ", phase_calibrated=";
  out += flag(cal.phase_calibrated);
  out += ", max_error_ns=" + std::to_string(cal.max_error_ns);
  out += ", phase_uncertainty_us=" + std::to_string(d.phase_uncertainty_ns / 1000U +
                                                    (d.phase_uncertainty_ns % 1000U != 0 ? 1U : 0U));
  out += ", effective_max_error_ns=" + std::to_string(d.effective_max_error_ns);
  out += ", event_line_seqno=" + std::to_string(event.line_seqno);
  out += ", bridge_valid=";
  out += flag(event.valid);
  out += ", bridge_reject_reason=";
  out += bridge_reject_reason_name(event.reject_reason);
  out += ", bridge_half_window_ns=" + std::to_string(event.half_window_ns);
  out += ", gpio_delivery_age_ns=" + std::to_string(event.delivery_age_ns);
  out += ", fifo_low16=" + std::to_string(fifo_low16);
  out += ", startup_alignment_discards=" + std::to_string(startup_alignment_discards);
  if (!drop_stage.empty()) {
    out += ", drop_stage=";
    out += drop_stage;
  }
  return out;
}

std::string format_bridge_drop_detail(const BridgedEvent& event, std::uint16_t fifo_low16,
                                      std::uint32_t startup_alignment_discards,
                                      const std::optional<PhaseDecision>& decision, bool mapping_valid,
                                      std::string_view mapping_diagnostic) {
  std::string out("reason=");
  out += bridge_reject_reason_name(event.reject_reason);
  out += ", half_window_ns=" + std::to_string(event.half_window_ns);
  out += ", gpio_delivery_age_ns=" + std::to_string(event.delivery_age_ns);
  out += ", max_half_window_ns=" + std::to_string(bridge_max_half_window_ns);
  out += ", ";
  if (decision.has_value()) {
    out += "phase_delta_ns=" + std::to_string(decision->phase_delta_ns);
    out += ", phase_error_ns=" + std::to_string(decision->phase_error_ns);
    out += ", phase_action=";
    out += phase_action_name(decision->action);
    out += ", mapping_valid=";
    out += flag(mapping_valid);
  } else {
    out += "phase_delta_ns=unavailable, phase_error_ns=unavailable";
    out += ", phase_unavailable_reason=mapping_timestamp_unavailable";
  }
  out += ", mapping_diagnostic={";
  out += mapping_diagnostic;
  out += "}";
  out += ", event_line_seqno=" + std::to_string(event.line_seqno);
  out += ", fifo_low16=" + std::to_string(fifo_low16);
  out += ", startup_alignment_discards=" + std::to_string(startup_alignment_discards);
  return out;
}

std::string PhaseAlignment::on_mismatch(const PhaseDecision& decision, const PhaseCalibration& calibration,
                                        const BridgedEvent& event, std::uint16_t fifo_low16, bool strict_timing) {
  startup_alignment_discards_ += 1;
  const bool was_aligned = phase_aligned_;
  phase_aligned_ = false;

  if (startup_alignment_discards_ > phase_alignment_discard_limit) {
    throw std::runtime_error("FIFO/GPIO startup phase alignment did not converge: " +
                             format_phase_decision(decision, calibration, event, fifo_low16,
                                                   startup_alignment_discards_));
  }
  if (was_aligned && strict_timing) {
    throw std::runtime_error("FIFO/GPIO phase mismatch after startup alignment: " +
                             format_phase_decision(decision, calibration, event, fifo_low16,
                                                   startup_alignment_discards_));
  }
  if (decision.action != PhaseAction::drop_sample) return {};
  return format_phase_decision(decision, calibration, event, fifo_low16, startup_alignment_discards_,
                               runtime_stage_ ? "runtime" : "startup");
}

}  // namespace pelmor_lusk
