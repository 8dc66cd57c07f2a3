// Counting, logging and summarising every sample the pipeline throws away.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "pipeline/pending_event_queue.hpp"
#include "pipeline/step_gate.hpp"

namespace pelmor_lusk {

enum TimingDropKind : std::uint32_t {
  timing_drop_tmst_raw = 0,
  timing_drop_bridge = 1,
  timing_drop_phase = 2,
};

enum TimingDropStage : std::uint32_t {
  timing_drop_stage_none = 0,
  timing_drop_stage_startup = 1,
  timing_drop_stage_runtime = 2,
};

// Drops logged in full before only the counters move.
inline constexpr std::uint32_t detailed_drop_log_limit = 8;
// One periodic summary per this many drops.
inline constexpr std::uint32_t drop_summary_period = 256;

struct TimingDropCounters {
  // Printed by the summary, in this order.
  std::uint32_t total_drops = 0;
  std::uint32_t tmst_raw_drops = 0;
  std::uint32_t bridge_drops = 0;
  std::uint32_t phase_drops = 0;
  std::uint32_t startup_phase_drops = 0;
  std::uint32_t runtime_phase_drops = 0;
  std::uint32_t batch_mismatch_resyncs = 0;
  std::uint32_t batch_mismatch_resync_drops = 0;
  std::uint32_t batch_mismatch_discarded_gpio_events = 0;
  std::uint32_t gpio_sequence_gap_resyncs = 0;
  std::uint32_t gpio_sequence_gap_resync_drops = 0;
  std::uint32_t gpio_sequence_gap_discarded_gpio_events = 0;
  std::uint32_t gpio_queue_overflow_resyncs = 0;
  std::uint32_t gpio_queue_overflow_resync_drops = 0;
  std::uint32_t gpio_queue_overflow_discarded_gpio_events = 0;
  std::uint32_t resync_failures = 0;
  std::uint32_t uncertainty_over_200_drops = 0;
  std::uint32_t max_consecutive_drops = 0;
  std::uint32_t detailed_logs = 0;

  std::uint32_t consecutive_drops = 0;   // reset by every accepted sample
  // Resyncs called for by a second of drops in a row; not in the summary line.
  std::uint32_t timing_drop_run_resyncs = 0;
  std::uint32_t timing_drop_run_resync_drops = 0;
  std::uint32_t timing_drop_run_discarded_gpio_events = 0;
  // Resyncs called for by the opt-in pairing check; not in the summary line.
  std::uint32_t pairing_slip_resyncs = 0;
  std::uint32_t pairing_slip_resync_drops = 0;
  std::uint32_t pairing_slip_discarded_gpio_events = 0;
  std::uint32_t wide_anchor_map_resyncs = 0;
  std::uint32_t wide_anchor_map_resync_drops = 0;
  std::uint32_t wide_anchor_map_discarded_gpio_events = 0;
  std::uint32_t drop_event_count = 0;    // phase decisions
  std::uint32_t drop_sample_count = 0;
  std::uint32_t boundary_resyncs = 0;    // sequence-gap events, and slips when the pairing check is on
  std::uint32_t batch_failures = 0;      // FIFO reads that failed

  std::uint32_t last_summary_total = 0;  // total_drops at the last summary
  bool final_summary_done = false;
};

// True when some "...uncertainty_us=" key in the detail carries a decimal value
// above 200.
bool detail_has_uncertainty_over_200(std::string_view detail) noexcept;

// "TIMING_DROP_SUMMARY label=<label> total_drops=N ... suppressed_logs=N mapper_failure_count=N"
std::string format_timing_drop_summary(const TimingDropCounters& counters, std::string_view label);
void print_timing_drop_summary(const TimingDropCounters& counters, std::string_view label);

// Writes the "periodic" summary when total_drops has newly landed on a multiple
// of 256 past the fully logged drops.
void print_periodic_summary_if_due(TimingDropCounters& counters);

// Writes the "final" summary once per driver; later calls do nothing.
void print_final_timing_drop_summary(TimingDropCounters& counters);

// One dropped sample. resume is the sample's step-gate outcome, which moves the
// step reference as an acceptance would; consume_event pops the paired event.
void record_timing_drop(TimingDropCounters& counters, StepReference& reference, PendingEventQueue& queue,
                        const StepGateResult& resume, bool consume_event, std::uint32_t kind,
                        std::string_view message, std::string_view detail, std::uint32_t stage);

// A successful boundary resync: per-reason counters, the discarded FIFO
// samples as drops, then the periodic summary rule.
void record_resync_success(TimingDropCounters& counters, std::uint32_t reason,
                           std::uint32_t discarded_fifo_samples, std::uint32_t discarded_gpio_events_total);

}  // namespace pelmor_lusk
