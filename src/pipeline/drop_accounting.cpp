#include "pipeline/drop_accounting.hpp"

#include <algorithm>

#include "common/text.hpp"

namespace pelmor_lusk {

bool detail_has_uncertainty_over_200(std::string_view detail) noexcept {
  static constexpr std::string_view key = "uncertainty_us=";
  std::size_t pos = detail.find(key);
  while (pos != std::string_view::npos) {
    std::size_t i = pos + key.size();
    bool over = false;
    std::uint64_t value = 0;
    for (; i < detail.size() && detail[i] >= '0' && detail[i] <= '9'; ++i) {
      value = value * 10 + static_cast<std::uint64_t>(detail[i] - '0');
      if (value > 200) over = true;  // stays true however many digits follow
    }
    if (over) return true;
    pos = detail.find(key, pos + key.size());
  }
  return false;
}

std::string format_timing_drop_summary(const TimingDropCounters& c, std::string_view label) {
  struct Entry {
    const char* key;
    std::uint32_t value;
  };
  const ResyncCounts& mismatch = c.resyncs(RecoveryReason::batch_mismatch);
  const ResyncCounts& gap = c.resyncs(RecoveryReason::gpio_sequence_gap);
  const ResyncCounts& overflow = c.resyncs(RecoveryReason::gpio_queue_overflow);
  const Entry entries[] = {
      {"total_drops", c.total_drops},
      {"tmst_raw_drops", c.tmst_raw_drops},
      {"bridge_drops", c.bridge_drops},
      {"phase_drops", c.phase_drops},
      {"startup_phase_drops", c.startup_phase_drops},
      {"runtime_phase_drops", c.runtime_phase_drops},
      {"batch_mismatch_resyncs", mismatch.resyncs},
      {"batch_mismatch_resync_drops", mismatch.drops},
      {"batch_mismatch_discarded_gpio_events", mismatch.discarded_gpio_events},
      {"gpio_sequence_gap_resyncs", gap.resyncs},
      {"gpio_sequence_gap_resync_drops", gap.drops},
      {"gpio_sequence_gap_discarded_gpio_events", gap.discarded_gpio_events},
      {"gpio_queue_overflow_resyncs", overflow.resyncs},
      {"gpio_queue_overflow_resync_drops", overflow.drops},
      {"gpio_queue_overflow_discarded_gpio_events", overflow.discarded_gpio_events},
      {"resync_failures", c.resync_failures},
      {"uncertainty_over_200_drops", c.uncertainty_over_200_drops},
      {"max_consecutive_drops", c.max_consecutive_drops},
      {"detailed_logs", c.detailed_logs},
  };
  std::string out("TIMING_DROP_SUMMARY label=");
  out += label;
  for (const Entry& e : entries) {
    out += ' ';
    out += e.key;
    out += '=';
    out += std::to_string(e.value);
  }
  const std::uint32_t suppressed = c.total_drops - std::min(c.total_drops, c.detailed_logs);
  out += " suppressed_logs=" + std::to_string(suppressed);
  out += " mapper_failure_count=" + std::to_string(c.total_drops);
  return out;
}

void DropAccounting::add_drops(std::uint32_t count) noexcept {
  c_.total_drops += count;
  c_.consecutive_drops += count;
  c_.max_consecutive_drops = std::max(c_.max_consecutive_drops, c_.consecutive_drops);
}

void DropAccounting::print_periodic_summary_if_due() {
  if (c_.total_drops <= detailed_drop_log_limit) return;
  if (c_.total_drops % drop_summary_period != 0 || c_.total_drops == last_summary_total_) return;
  write_diagnostic_line(format_timing_drop_summary(c_, "periodic"));
  last_summary_total_ = c_.total_drops;
}

void DropAccounting::write_final_summary() {
  if (final_summary_done_) return;
  write_diagnostic_line(format_timing_drop_summary(c_, "final"));
  final_summary_done_ = true;
  last_summary_total_ = c_.total_drops;
}

void DropAccounting::record_drop(TimingDropKind kind, TimingDropStage stage, std::string_view message,
                                 std::string_view detail) {
  add_drops(1);
  switch (kind) {
    case TimingDropKind::tmst_raw:
      c_.tmst_raw_drops += 1;
      break;
    case TimingDropKind::bridge:
      c_.bridge_drops += 1;
      break;
    case TimingDropKind::phase:
      c_.drop_sample_count += 1;
      c_.phase_drops += 1;
      if (stage == TimingDropStage::startup) c_.startup_phase_drops += 1;
      if (stage == TimingDropStage::runtime) c_.runtime_phase_drops += 1;
      break;
  }

  if (detail_has_uncertainty_over_200(detail)) c_.uncertainty_over_200_drops += 1;

  if (c_.total_drops <= detailed_drop_log_limit) {
    c_.detailed_logs += 1;
    std::string line(message);
    line += ": ";
    line += detail;
    line += ", mapper_failure_count=" + std::to_string(c_.total_drops);
    write_diagnostic_line(line);
    return;
  }
  print_periodic_summary_if_due();
}

void DropAccounting::record_resync_success(RecoveryReason reason, std::uint32_t discarded_fifo_samples,
                                           std::uint32_t discarded_gpio_events_total) {
  ResyncCounts& counts = c_.by_reason[index_of(reason)];
  counts.resyncs += 1;
  counts.drops += discarded_fifo_samples;
  counts.discarded_gpio_events += discarded_gpio_events_total;
  if (discarded_fifo_samples != 0) add_drops(discarded_fifo_samples);
  print_periodic_summary_if_due();
}

}  // namespace pelmor_lusk
