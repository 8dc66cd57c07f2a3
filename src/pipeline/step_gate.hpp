// TMST step gate: each FIFO sample's 16-bit tick must advance by about one
// sensor period from the last sample that passed.
#pragma once

#include <cstdint>
#include <string>

namespace pelmor_lusk {

struct StepGateResult {
  bool passed = false;
  bool first_sample = false;             // gated without a reference
  std::uint64_t candidate_tick = 0;      // unwrapped tick of the sample
  std::uint64_t step = 0;                // candidate_tick - reference_tick
  std::uint64_t reference_tick = 0;      // the reference the step was taken from
};

// The reference with its low 16 bits replaced by low16, one 16-bit period later
// when that would lie before the reference.
std::uint64_t unwrap_low16(std::uint64_t reference, std::uint16_t low16) noexcept;

// The worker's step reference between samples: the last accepted (or
// dropped but gated) unwrapped tick.
class StepReference {
 public:
  // Gates low16 against the reference, or boundary_reference_tick when there
  // is none yet. A first sample may be as short as 1 tick right after an arm.
  StepGateResult evaluate(std::uint64_t boundary_reference_tick, std::uint16_t low16, std::uint64_t min_step_ticks,
                          std::uint64_t max_step_ticks) const noexcept;
  // After a sample was accepted or dropped: a gated sample becomes the new
  // reference (and ends the short-first-step allowance when it was a first
  // sample); a sample that failed the gate leaves no reference.
  void advance(const StepGateResult& outcome) noexcept;
  // The FIFO streams from a new boundary: no reference, a short first step allowed.
  void armed() noexcept {
    *this = StepReference{};
    allow_short_first_step_ = true;
  }
  bool allow_short_first_step() const noexcept { return allow_short_first_step_; }

 private:
  bool have_reference_ = false;
  std::uint64_t reference_tick_ = 0;
  bool allow_short_first_step_ = false;
};

struct StepGateMessageFields {
  std::uint32_t rate_hz = 0;
  std::uint16_t fifo_low16 = 0;
  std::uint64_t min_step_ticks = 0;
  std::uint64_t max_step_ticks = 0;
  bool allow_short_first_step = false;
  bool runtime_boundary_context = false;
  std::uint64_t arm_start_raw_ns = 0;
  std::uint64_t arm_boundary_event_raw_ns = 0;
  std::uint64_t arm_boundary_uncertainty_ns = 0;
  std::int64_t arm_boundary_age_ns = 0;
};

// "FIFO timestamp step out of <rate> Hz gate: <step> ticks, fifo_low16=..., ..."
std::string format_step_gate_message(const StepGateResult& gate, const StepGateMessageFields& fields);

}  // namespace pelmor_lusk
