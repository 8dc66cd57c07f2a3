// The worker's per-sample decisions as one state machine. It is given INT1
// events and FIFO packets, maps each packet's timestamp through the run's
// timebase, and answers one verdict per packet; the worker loop around it does
// the waiting and reading. It makes no system call and reads no clock: the
// timebase takes its snapshots from the source the run gave it. Fatal verdicts
// are thrown as std::runtime_error carrying their text.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "common/rate_profile.hpp"
#include "common/run_options.hpp"
#include "pipeline/arm_report.hpp"
#include "pipeline/decimator.hpp"
#include "pipeline/drop_accounting.hpp"
#include "pipeline/imu_sample.hpp"
#include "pipeline/pairing_slip.hpp"
#include "pipeline/pending_event_queue.hpp"
#include "pipeline/phase_alignment.hpp"
#include "pipeline/recovery_reason.hpp"
#include "pipeline/step_gate.hpp"
#include "sensor/fifo_batch.hpp"
#include "timing/bridged_event.hpp"
#include "timing/tmst_mapping.hpp"
#include "timing/tmst_timebase.hpp"

namespace pelmor_lusk {

// Every this many accepted samples a fresh anchor keeps the fit up with drift.
inline constexpr std::uint64_t periodic_refresh_every = 16;
inline constexpr std::uint32_t startup_sentinel_limit = 256;
inline constexpr std::uint32_t sentinel_reanchor_every = 16;

// A request to give up the batch and the pending events and re-arm.
struct ResyncRequest {
  RecoveryReason reason = RecoveryReason::batch_mismatch;
  std::uint32_t discarded_fifo_samples = 0;
  std::uint32_t discarded_gpio_events_pre_recovery = 0;
  std::optional<BridgedEvent> trigger;
  std::string message;
};

enum class SampleAction : std::uint8_t {
  next,      // go on with the next packet
  again,     // pair the same packet again: its event was dropped
  emit,      // deliver `sample`, then the next packet
  reanchor,  // take a fresh anchor, then the next packet
  resync,    // give up the batch: `resync`
};

struct SampleVerdict {
  SampleAction action = SampleAction::next;
  ResyncRequest resync;
  ImuSample sample;
};

// Expected delay and error bound are zero: only the profile's flag is defined.
inline PhaseCalibration phase_calibration_of(const RateProfile& profile) noexcept {
  return PhaseCalibration{0, 0, profile.phase_calibrated != 0};
}

class PairingCore {
 public:
  // Samples are mapped through timebase, which the run re-arms and rebuilds.
  PairingCore(const RateProfile& profile, std::uint32_t sample_rate_hz, const RunOptions& options,
              TmstTimebase& timebase) noexcept;

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
  // with the oldest pending event, gates its step, maps its tick and judges
  // the pair.
  SampleVerdict pair_sample(const FifoPacket& packet, std::uint32_t remaining_samples);

  // --- Recovery ---
  // The loss report; throws it in strict mode.
  std::string begin_resync(const ResyncRequest& request, const FifoBatch* batch) const;
  void resync_succeeded(const ResyncRequest& request, std::string_view report, const ArmBoundaryReport& arm,
                        std::uint32_t attempts);
  void resync_retrying(std::string_view report, std::uint32_t attempt, std::string_view error) const;
  // Counts the failure and returns the fatal text.
  std::string resync_failed(const ResyncRequest& request, std::string_view error, std::uint32_t attempts);
  void count_batch_failure() noexcept { accounting_.record_batch_failure(); }

  // --- Arming ---
  // Forgets the pending events, the step reference, the boundary and the phase
  // convergence.
  void begin_arm() noexcept;
  void set_runtime_boundary(const ArmBoundaryReport& arm) noexcept;
  // The FIFO streams from the anchor at anchor_tick; a short first step is allowed.
  void armed(std::uint64_t anchor_tick) noexcept;

  // --- End of run ---
  void write_final_summary() { accounting_.write_final_summary(); }

  const TimingDropCounters& counters() const noexcept { return accounting_.counters(); }
  std::uint64_t samples_emitted() const noexcept { return sample_sequence_; }
  std::size_t pending_events() const noexcept { return pending_.size(); }

 private:
  SampleVerdict resync_verdict(RecoveryReason reason, std::string message, std::uint32_t discarded_fifo_samples,
                               const BridgedEvent* trigger) const;
  SampleVerdict step_gate_failed(const FifoPacket& packet, const BridgedEvent& event, const StepGateResult& gate,
                                 std::uint32_t remaining_samples);
  SampleVerdict drop_for_bridge(const FifoPacket& packet, const BridgedEvent& event, const StepGateResult& gate,
                                std::uint32_t remaining_samples);
  bool refresh_due(std::uint64_t tick) const noexcept;
  SampleVerdict judge_mapped(const FifoPacket& packet, const BridgedEvent& event, const StepGateResult& gate,
                             const MapperRefreshOutcome& outcome, std::uint32_t remaining_samples);
  // drop_event: the same packet pairs again; drop_sample: dropped, the event stays.
  SampleVerdict phase_mismatch(const FifoPacket& packet, const BridgedEvent& event, const StepGateResult& gate,
                               const PhaseDecision& phase);
  // An accepted sample whose axes hold the startup sentinel: skipped, and the
  // map re-anchored every sixteenth; fatal once a sample was accepted.
  SampleVerdict startup_sentinel();
  // The sample is dropped and counted; the step reference moves as for an
  // accepted one.
  void drop_sample(const StepGateResult& gate, bool consume_event, TimingDropKind kind, TimingDropStage stage,
                   std::string_view message, std::string_view detail);
  // After a timing drop: next, or a resync that rebuilds the map once a second
  // of samples has been dropped in a row since the last arm.
  SampleVerdict after_timing_drop(std::uint32_t remaining_samples);
  // A resync when the pairing-slip check, if on, sees a slip at this sample.
  std::optional<ResyncRequest> check_pairing(const BridgedEvent& event, std::uint64_t mapped_ns,
                                             std::uint32_t remaining_samples);
  void fill_sample(const FifoPacket& packet, const BridgedEvent& event, const TmstMapping& mapping,
                   ImuSample& sample);

  const RateProfile& profile_;
  std::uint32_t sample_rate_hz_;
  bool strict_timing_;
  PhaseCalibration calibration_;
  TmstTimebase& timebase_;
  std::optional<PairingSlipCheck> slip_check_;  // set when the check is on

  PendingEventQueue pending_;
  DropAccounting accounting_;
  Decimator decimator_;

  // Set by every arm.
  StepReference step_;
  std::uint64_t boundary_reference_tick_ = 0;
  bool runtime_boundary_context_ = false;
  ArmBoundaryReport runtime_arm_;  // the last run-time re-arm, for the step-gate text
  PhaseAlignment phase_;
  // Timing drops in a row since the last accepted sample or arm.
  std::uint32_t drop_run_ = 0;

  // Whole run.
  std::uint64_t accepted_sample_count_ = 0;
  std::uint32_t startup_sentinel_count_ = 0;
  std::uint64_t sample_sequence_ = 0;
  std::uint64_t last_mapped_ns_ = 0;  // 0 = none yet
};

}  // namespace pelmor_lusk
