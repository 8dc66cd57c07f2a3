// Counting, logging and summarising every sample the pipeline throws away.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

#include "pipeline/recovery_reason.hpp"

namespace pelmor_lusk {

enum class TimingDropKind : std::uint32_t {
  tmst_raw = 0,
  bridge = 1,
  phase = 2,
};

enum class TimingDropStage : std::uint32_t {
  none = 0,
  startup = 1,
  runtime = 2,
};

// Drops logged in full before only the counters move.
inline constexpr std::uint32_t detailed_drop_log_limit = 8;
// One periodic summary per this many drops.
inline constexpr std::uint32_t drop_summary_period = 256;

// What the resyncs of one reason cost.
struct ResyncCounts {
  std::uint32_t resyncs = 0;
  std::uint32_t drops = 0;                   // FIFO samples they discarded
  std::uint32_t discarded_gpio_events = 0;
};

struct TimingDropCounters {
  std::uint32_t total_drops = 0;
  std::uint32_t tmst_raw_drops = 0;
  std::uint32_t bridge_drops = 0;
  std::uint32_t phase_drops = 0;
  std::uint32_t startup_phase_drops = 0;
  std::uint32_t runtime_phase_drops = 0;
  // Only the first three reasons are in the summary line.
  std::array<ResyncCounts, recovery_reason_count> by_reason{};
  std::uint32_t resync_failures = 0;
  std::uint32_t uncertainty_over_200_drops = 0;
  std::uint32_t max_consecutive_drops = 0;
  std::uint32_t detailed_logs = 0;

  std::uint32_t consecutive_drops = 0;   // reset by every accepted sample
  std::uint32_t drop_event_count = 0;    // phase decisions
  std::uint32_t drop_sample_count = 0;
  std::uint32_t boundary_resyncs = 0;    // sequence-gap events, and slips when the pairing check is on
  std::uint32_t batch_failures = 0;      // FIFO reads that failed

  const ResyncCounts& resyncs(RecoveryReason reason) const noexcept { return by_reason[index_of(reason)]; }
};

// True when some "...uncertainty_us=" key in the detail carries a decimal value
// above 200.
bool detail_has_uncertainty_over_200(std::string_view detail) noexcept;

// "TIMING_DROP_SUMMARY label=<label> total_drops=N ... suppressed_logs=N mapper_failure_count=N"
std::string format_timing_drop_summary(const TimingDropCounters& counters, std::string_view label);

// The counters of one run and the rules by which drops are logged: the first
// eight in full, then a "periodic" summary each time the total lands on a
// multiple of 256, and one "final" summary.
class DropAccounting {
 public:
  // One dropped sample, logged as "<message>: <detail>, mapper_failure_count=N"
  // while in the first eight. A phase drop is a dropped sample of the phase check.
  void record_drop(TimingDropKind kind, TimingDropStage stage, std::string_view message, std::string_view detail);
  // An event the phase check dropped as early; not a sample drop.
  void record_dropped_event() noexcept { c_.drop_event_count += 1; }
  // A successful boundary resync: its reason's counts, the discarded FIFO
  // samples as drops, then the periodic summary rule.
  void record_resync_success(RecoveryReason reason, std::uint32_t discarded_fifo_samples,
                             std::uint32_t discarded_gpio_events_total);
  void record_resync_failure() noexcept { c_.resync_failures += 1; }
  void record_boundary_resync() noexcept { c_.boundary_resyncs += 1; }
  void record_batch_failure() noexcept { c_.batch_failures += 1; }
  void record_accepted_sample() noexcept { c_.consecutive_drops = 0; }

  // Writes the "final" summary once; later calls do nothing.
  void write_final_summary();

  const TimingDropCounters& counters() const noexcept { return c_; }

 private:
  void add_drops(std::uint32_t count) noexcept;
  void print_periodic_summary_if_due();

  TimingDropCounters c_;
  std::uint32_t last_summary_total_ = 0;  // total_drops at the last summary
  bool final_summary_done_ = false;
};

}  // namespace pelmor_lusk
