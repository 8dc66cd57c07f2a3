#include "pipeline/step_gate.hpp"

namespace pelmor_lusk {

std::uint64_t unwrap_low16(std::uint64_t reference, std::uint16_t low16) noexcept {
  std::uint64_t candidate = (reference & ~std::uint64_t{0xFFFF}) | low16;
  if (reference > candidate) candidate += 0x10000;
  return candidate;
}

StepGateResult StepReference::evaluate(std::uint64_t boundary_reference_tick, std::uint16_t low16,
                                       std::uint64_t min_step_ticks, std::uint64_t max_step_ticks) const noexcept {
  StepGateResult result;
  result.first_sample = !have_reference_;
  result.reference_tick = have_reference_ ? reference_tick_ : boundary_reference_tick;
  result.candidate_tick = unwrap_low16(result.reference_tick, low16);
  result.step = result.candidate_tick - result.reference_tick;
  const std::uint64_t lower = result.first_sample && allow_short_first_step_ ? 1 : min_step_ticks;
  result.passed = result.step >= lower && result.step <= max_step_ticks;
  return result;
}

void StepReference::advance(const StepGateResult& outcome) noexcept {
  if (outcome.passed) {
    have_reference_ = true;
    reference_tick_ = outcome.candidate_tick;
    if (outcome.first_sample) allow_short_first_step_ = false;
  } else {
    have_reference_ = false;
    reference_tick_ = 0;
  }
}

std::string format_step_gate_message(const StepGateResult& gate, const StepGateMessageFields& f) {
  std::string out = "FIFO timestamp step out of " + std::to_string(f.rate_hz) + " Hz gate: " +
                    std::to_string(gate.step) + " ticks";
  out += ", fifo_low16=" + std::to_string(f.fifo_low16);
  out += ", reference_tick=" + std::to_string(gate.reference_tick);
  out += ", first_sample=";
  out += gate.first_sample ? "1" : "0";
  out += ", min_step_ticks=" + std::to_string(f.min_step_ticks);
  out += ", max_step_ticks=" + std::to_string(f.max_step_ticks);
  out += ", allow_short_first_step=";
  out += f.allow_short_first_step ? "1" : "0";
  out += ", runtime_boundary_context=";
  out += f.runtime_boundary_context ? "1" : "0";
  out += ", arm_start_raw_ns=" + std::to_string(f.arm_start_raw_ns);
  out += ", arm_boundary_event_raw_ns=" + std::to_string(f.arm_boundary_event_raw_ns);
  out += ", arm_boundary_uncertainty_ns=" + std::to_string(f.arm_boundary_uncertainty_ns);
  out += ", arm_boundary_age_ns=" + std::to_string(f.arm_boundary_age_ns);
  return out;
}

}  // namespace pelmor_lusk
