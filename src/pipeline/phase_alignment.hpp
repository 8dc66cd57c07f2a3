// FIFO/GPIO phase: the paired event's RAW time against the sample's mapped time.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "pipeline/drop_accounting.hpp"
#include "timing/bridged_event.hpp"

namespace pelmor_lusk {

enum class PhaseAction : std::uint32_t {
  accept = 0,
  drop_event = 1,   // the event is early: an extra event
  drop_sample = 2,  // the sample is early: a missing event
};

// "accept", "drop_event", "drop_sample".
const char* phase_action_name(PhaseAction action) noexcept;

struct PhaseDecision {
  PhaseAction action = PhaseAction::accept;
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

inline constexpr std::uint32_t phase_alignment_discard_limit = 256;

// Startup convergence between pairs.
class PhaseAlignment {
 public:
  void on_accept() noexcept {
    phase_aligned_ = true;
    runtime_stage_ = true;
    startup_alignment_discards_ = 0;
  }
  void on_bridge_discard() noexcept {
    startup_alignment_discards_ += 1;
    phase_aligned_ = false;
  }
  // A drop_event or drop_sample decision on the pair of event and the sample
  // with fifo_low16: counts the discard, and throws std::runtime_error when
  // alignment did not converge or, strict, was lost. Returns the text of the
  // decision for a sample drop.
  std::string on_mismatch(const PhaseDecision& decision, const PhaseCalibration& calibration,
                          const BridgedEvent& event, std::uint16_t fifo_low16, bool strict_timing);

  TimingDropStage drop_stage() const noexcept {
    return runtime_stage_ ? TimingDropStage::runtime : TimingDropStage::startup;
  }
  std::uint32_t startup_alignment_discards() const noexcept { return startup_alignment_discards_; }

 private:
  bool phase_aligned_ = false;
  bool runtime_stage_ = false;  // after the first accepted sample
  std::uint32_t startup_alignment_discards_ = 0;
};

}  // namespace pelmor_lusk
