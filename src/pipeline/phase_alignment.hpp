// FIFO/GPIO phase: the paired event's RAW time against the sample's mapped time.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "pipeline/drop_accounting.hpp"
#include "pipeline/pending_event_queue.hpp"
#include "pipeline/step_gate.hpp"
#include "timing/bridged_event.hpp"

namespace pelmor_lusk {

enum PhaseAction : std::uint32_t {
  phase_accept = 0,
  phase_drop_event = 1,   // the event is early: an extra event
  phase_drop_sample = 2,  // the sample is early: a missing event
};

// "accept", "drop_event", "drop_sample", else "unknown".
const char* phase_action_name(std::uint32_t action) noexcept;

struct PhaseDecision {
  std::uint32_t action = phase_accept;
  std::int64_t phase_delta_ns = 0;
  std::int64_t phase_error_ns = 0;
  std::uint64_t phase_uncertainty_ns = 0;
  std::int64_t effective_max_error_ns = 0;
};

struct PhaseCalibration {
  std::int64_t expected_delay_ns = 0;
  std::int64_t max_error_ns = 0;
  bool phase_calibrated = false;
};

// event_raw_ns E, mapped_ns M, phase_uncertainty_us U of the mapping. Without a
// calibration every pair is accepted.
PhaseDecision decide_phase(std::uint64_t event_raw_ns, std::uint64_t mapped_ns,
                           std::uint32_t phase_uncertainty_us, const PhaseCalibration& calibration) noexcept;

// "action=..., phase_delta_ns=..., ..., startup_alignment_discards=N[, drop_stage=<stage>]";
// an empty drop_stage leaves the key out.
std::string format_phase_decision(const PhaseDecision& decision, const PhaseCalibration& calibration,
                                  const BridgedEvent& event, std::uint16_t fifo_low16,
                                  std::uint32_t startup_alignment_discards,
                                  std::string_view drop_stage = {});

// Detail of a drop whose event bridge is not valid. decision is the phase check
// of the sample's mapped time, absent when the mapping yielded no time.
std::string format_bridge_drop_detail(const BridgedEvent& event, std::uint16_t fifo_low16,
                                      std::uint32_t startup_alignment_discards,
                                      const std::optional<PhaseDecision>& decision, bool mapping_valid,
                                      std::string_view mapping_diagnostic);

// Startup convergence between pairs.
struct PhaseAlignmentState {
  bool phase_aligned = false;
  bool runtime_stage = false;             // after the first accepted sample
  std::uint32_t startup_alignment_discards = 0;

  void on_accept() noexcept {
    phase_aligned = true;
    runtime_stage = true;
    startup_alignment_discards = 0;
  }
  void on_bridge_discard() noexcept {
    startup_alignment_discards += 1;
    phase_aligned = false;
  }
  std::uint32_t drop_stage() const noexcept {
    return runtime_stage ? timing_drop_stage_runtime : timing_drop_stage_startup;
  }
  const char* drop_stage_name() const noexcept { return runtime_stage ? "runtime" : "startup"; }
};

inline constexpr std::uint32_t phase_alignment_discard_limit = 256;

// What the loop needs to act on a drop_event or drop_sample decision.
struct PhaseMismatchContext {
  PhaseCalibration calibration;
  const BridgedEvent* event = nullptr;   // the front event the sample was paired with
  std::uint16_t fifo_low16 = 0;
  bool strict_timing = false;
  StepGateResult resume;                  // the sample's step-gate outcome
};

// Handles a drop_event or drop_sample decision: counts the discard, throws
// std::runtime_error when alignment did not converge or (strict) was lost, then
// pops the event (drop_event, so the same sample pairs again) or drops the
// sample and keeps the event (drop_sample).
void handle_phase_mismatch(const PhaseDecision& decision, const PhaseMismatchContext& context,
                           PhaseAlignmentState& state, TimingDropCounters& counters,
                           StepReference& reference, PendingEventQueue& queue);

}  // namespace pelmor_lusk
