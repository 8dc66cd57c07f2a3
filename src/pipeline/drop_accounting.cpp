#include "pipeline/drop_accounting.hpp"

#include <algorithm>

#include "common/text.hpp"
#include "pipeline/resync_report.hpp"

namespace pelmor_lusk {

namespace {

void add_drops(TimingDropCounters& c, std::uint32_t count) noexcept {
  c.total_drops += count;
  c.consecutive_drops += count;
  c.max_consecutive_drops = std::max(c.max_consecutive_drops, c.consecutive_drops);
}

}  // namespace

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
  const Entry entries[] = {
      {"total_drops", c.total_drops},
      {"tmst_raw_drops", c.tmst_raw_drops},
      {"bridge_drops", c.bridge_drops},
      {"phase_drops", c.phase_drops},
      {"startup_phase_drops", c.startup_phase_drops},
      {"runtime_phase_drops", c.runtime_phase_drops},
      {"batch_mismatch_resyncs", c.batch_mismatch_resyncs},
      {"batch_mismatch_resync_drops", c.batch_mismatch_resync_drops},
      {"batch_mismatch_discarded_gpio_events", c.batch_mismatch_discarded_gpio_events},
      {"gpio_sequence_gap_resyncs", c.gpio_sequence_gap_resyncs},
      {"gpio_sequence_gap_resync_drops", c.gpio_sequence_gap_resync_drops},
      {"gpio_sequence_gap_discarded_gpio_events", c.gpio_sequence_gap_discarded_gpio_events},
      {"gpio_queue_overflow_resyncs", c.gpio_queue_overflow_resyncs},
      {"gpio_queue_overflow_resync_drops", c.gpio_queue_overflow_resync_drops},
      {"gpio_queue_overflow_discarded_gpio_events", c.gpio_queue_overflow_discarded_gpio_events},
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

void print_timing_drop_summary(const TimingDropCounters& counters, std::string_view label) {
  write_diagnostic_line(format_timing_drop_summary(counters, label));
}

void print_periodic_summary_if_due(TimingDropCounters& c) {
  if (c.total_drops <= detailed_drop_log_limit) return;
  if (c.total_drops % drop_summary_period != 0 || c.total_drops == c.last_summary_total) return;
  print_timing_drop_summary(c, "periodic");
  c.last_summary_total = c.total_drops;
}

void print_final_timing_drop_summary(TimingDropCounters& c) {
  if (c.final_summary_done) return;
  print_timing_drop_summary(c, "final");
  c.final_summary_done = true;
  c.last_summary_total = c.total_drops;
}

void record_timing_drop(TimingDropCounters& c, StepReference& reference, PendingEventQueue& queue,
                        const StepGateResult& resume, bool consume_event, std::uint32_t kind,
                        std::string_view message, std::string_view detail, std::uint32_t stage) {
  advance_step_reference(reference, resume);
  if (consume_event) queue.pop_front();
  add_drops(c, 1);

  switch (kind) {
    case timing_drop_bridge:
      c.bridge_drops += 1;
      break;
    case timing_drop_phase:
      c.phase_drops += 1;
      if (stage == timing_drop_stage_startup) c.startup_phase_drops += 1;
      if (stage == timing_drop_stage_runtime) c.runtime_phase_drops += 1;
      break;
    default:
      c.tmst_raw_drops += 1;
      break;
  }

  if (detail_has_uncertainty_over_200(detail)) c.uncertainty_over_200_drops += 1;

  if (c.total_drops <= detailed_drop_log_limit) {
    c.detailed_logs += 1;
    std::string line(message);
    line += ": ";
    line += detail;
    line += ", mapper_failure_count=" + std::to_string(c.total_drops);
    write_diagnostic_line(line);
    return;
  }
  print_periodic_summary_if_due(c);
}

void record_resync_success(TimingDropCounters& c, std::uint32_t reason,
                           std::uint32_t discarded_fifo_samples, std::uint32_t discarded_gpio_events_total) {
  std::uint32_t* resyncs = &c.batch_mismatch_resyncs;
  std::uint32_t* drops = &c.batch_mismatch_resync_drops;
  std::uint32_t* events = &c.batch_mismatch_discarded_gpio_events;
  if (reason == recovery_gpio_sequence_gap) {
    resyncs = &c.gpio_sequence_gap_resyncs;
    drops = &c.gpio_sequence_gap_resync_drops;
    events = &c.gpio_sequence_gap_discarded_gpio_events;
  } else if (reason == recovery_gpio_queue_overflow) {
    resyncs = &c.gpio_queue_overflow_resyncs;
    drops = &c.gpio_queue_overflow_resync_drops;
    events = &c.gpio_queue_overflow_discarded_gpio_events;
  } else if (reason == recovery_timing_drop_run) {
    resyncs = &c.timing_drop_run_resyncs;
    drops = &c.timing_drop_run_resync_drops;
    events = &c.timing_drop_run_discarded_gpio_events;
  } else if (reason == recovery_pairing_slip) {
    resyncs = &c.pairing_slip_resyncs;
    drops = &c.pairing_slip_resync_drops;
    events = &c.pairing_slip_discarded_gpio_events;
  } else if (reason == recovery_wide_anchor_map) {
    resyncs = &c.wide_anchor_map_resyncs;
    drops = &c.wide_anchor_map_resync_drops;
    events = &c.wide_anchor_map_discarded_gpio_events;
  }
  *resyncs += 1;
  *drops += discarded_fifo_samples;
  *events += discarded_gpio_events_total;
  if (discarded_fifo_samples != 0) add_drops(c, discarded_fifo_samples);
  print_periodic_summary_if_due(c);
}

}  // namespace pelmor_lusk
