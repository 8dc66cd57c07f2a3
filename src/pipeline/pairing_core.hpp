// The worker's per-sample decisions as one state machine. It is given INT1
// events, FIFO packets and the mappings of their timestamps, and answers what to
// do next; the worker loop around it does the waiting, reading and snapshotting.
// It makes no system call and reads no clock. Fatal verdicts are thrown as
// std::runtime_error carrying their text.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "common/rate_profile.hpp"
#include "pipeline/arm_report.hpp"
#include "pipeline/decimator.hpp"
#include "pipeline/drop_accounting.hpp"
#include "pipeline/imu_sample.hpp"
#include "pipeline/pairing_slip.hpp"
#include "pipeline/pending_event_queue.hpp"
#include "pipeline/phase_alignment.hpp"
#include "pipeline/resync_report.hpp"
#include "pipeline/step_gate.hpp"
#include "sensor/fifo_batch.hpp"
#include "timing/bridged_event.hpp"
#include "timing/tmst_mapper.hpp"
#include "timing/tmst_mapping.hpp"

namespace pelmor_lusk {

// Every this many accepted samples a fresh anchor keeps the fit up with drift.
inline constexpr std::uint64_t periodic_refresh_every = 16;
inline constexpr std::uint32_t startup_sentinel_limit = 256;
inline constexpr std::uint32_t sentinel_reanchor_every = 16;

// A request to give up the batch and the pending events and re-arm.
struct ResyncRequest {
  std::uint32_t reason = recovery_batch_mismatch;
  std::uint32_t discarded_fifo_samples = 0;
  std::uint32_t discarded_gpio_events_pre_recovery = 0;
  std::optional<BridgedEvent> trigger;
  std::string message;
};

enum class SampleAction : std::uint8_t {
  next,      // go on with the next packet
  again,     // pair the same packet again: its event was dropped
  resync,    // give up the batch: `resync`
  map,       // map `mapping`, then hand the outcome to accept_mapping
  emit,      // deliver `sample`, then the next packet
  reanchor,  // take a fresh anchor, then the next packet
};

struct MappingRequest {
  std::uint64_t tick = 0;
  std::uint64_t half_window_ns = 0;
  std::uint64_t delivery_age_ns = 0;
  bool refresh_due = false;  // offer a fresh anchor gated on tick first
};

struct SampleVerdict {
  SampleAction action = SampleAction::next;
  MappingRequest mapping;
  ResyncRequest resync;
  ImuSample sample;
};

// Expected delay and error bound are zero: only the profile's flag is defined.
inline PhaseCalibration phase_calibration_of(const RateProfile& profile) noexcept {
  return PhaseCalibration{0, 0, profile.phase_calibrated != 0};
}

class PairingCore {
 public:
  // pairing_check turns on the opt-in pairing-slip check.
  PairingCore(const RateProfile& profile, std::uint32_t sample_rate_hz, bool strict_timing,
              bool pairing_check = false) noexcept;

  // --- Events ---
  // Queues the event, or asks for a resync; the caller fills in
  // discarded_fifo_samples.
  std::optional<ResyncRequest> admit_event(const BridgedEvent& event);
  bool short_of_events(std::uint32_t remaining_samples) const noexcept {
    return pending_.size() < remaining_samples;
  }
  // The pairing wait ran out with fewer events than samples.
  ResyncRequest batch_mismatch(std::uint32_t remaining_samples) const;

  // --- Samples ---
  // Pairs packet (with remaining_samples left in its batch, itself included)
  // with the oldest pending event: next, resync, or map.
  SampleVerdict pair_sample(const FifoPacket& packet, std::uint32_t remaining_samples, const TmstMapper& mapper);
  // The mapping asked for by the last pair_sample: next, again, reanchor or emit.
  SampleVerdict accept_mapping(const FifoPacket& packet, const MapperRefreshOutcome& outcome,
                               std::uint64_t wrap_count);
  // Instead of accept_mapping when the map refused a precise fresh anchor
  // because it was built from stretched ones: a resync that rebuilds it, with
  // this sample among the discarded.
  SampleVerdict rebuild_wide_map();

  // --- Recovery ---
  // The loss report; throws it in strict mode.
  std::string begin_resync(const ResyncRequest& request, const FifoBatch* batch) const;
  void resync_succeeded(const ResyncRequest& request, std::string_view report, const ArmBoundaryReport& arm,
                        std::uint32_t attempts);
  void resync_retrying(std::string_view report, std::uint32_t attempt, std::string_view error) const;
  // Counts the failure and returns the fatal text.
  std::string resync_failed(const ResyncRequest& request, std::string_view error, std::uint32_t attempts);
  void count_batch_failure() noexcept { counters_.batch_failures += 1; }

  // --- Arming ---
  // Forgets the pending events, the step reference, the boundary and the phase
  // convergence.
  void begin_arm() noexcept;
  void set_runtime_boundary(const ArmBoundaryReport& arm) noexcept;
  // The FIFO streams from the anchor at anchor_tick; a short first step is allowed.
  void armed(std::uint64_t anchor_tick) noexcept;

  // --- End of run ---
  void write_final_summary() { print_final_timing_drop_summary(counters_); }

  const TimingDropCounters& counters() const noexcept { return counters_; }
  std::uint64_t samples_emitted() const noexcept { return sample_sequence_; }
  std::size_t pending_events() const noexcept { return pending_.size(); }
  const StepReference& step_reference() const noexcept { return step_; }

 private:
  StepGateMessageFields step_gate_message_fields(std::uint16_t low16) const noexcept;
  SampleVerdict drop_for_bridge(const FifoPacket& packet, const BridgedEvent& event, const StepGateResult& gate,
                                const TmstMapper& mapper);
  // After a timing drop: next, or a resync that rebuilds the map once a second
  // of samples has been dropped in a row since the last arm.
  SampleVerdict after_timing_drop();
  // A resync when the pairing-slip check, if on, sees a slip at this sample.
  std::optional<ResyncRequest> check_pairing(const BridgedEvent& event, std::uint64_t mapped_ns);
  void fill_sample(const FifoPacket& packet, const BridgedEvent& event, std::uint64_t mapped_ns,
                   std::uint32_t uncertainty_us, std::uint64_t wrap_count, ImuSample& sample);

  const RateProfile& profile_;
  std::uint32_t sample_rate_hz_;
  bool strict_timing_;
  PhaseCalibration calibration_;
  std::optional<PairingSlipCheck> slip_check_;  // set when the check is on

  PendingEventQueue pending_;
  TimingDropCounters counters_;
  Decimator decimator_;

  // Set by every arm.
  StepReference step_;
  std::uint64_t boundary_reference_tick_ = 0;
  bool runtime_boundary_context_ = false;
  ArmBoundaryReport runtime_arm_;  // the last run-time re-arm, for the step-gate text
  PhaseAlignmentState phase_;

  // Whole run.
  std::uint64_t accepted_sample_count_ = 0;
  std::uint32_t startup_sentinel_count_ = 0;
  std::uint64_t sample_sequence_ = 0;
  std::uint64_t last_mapped_ns_ = 0;  // 0 = none yet

  // Timing drops in a row since the last accepted sample or arm.
  std::uint32_t drop_run_ = 0;

  // Between pair_sample and accept_mapping.
  StepGateResult current_gate_{};
  BridgedEvent current_event_{};
  std::uint32_t current_remaining_ = 0;
};

}  // namespace pelmor_lusk
