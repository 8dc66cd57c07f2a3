#include "pipeline/resync_report.hpp"

#include "common/text.hpp"

namespace pelmor_lusk {

namespace {

const char* flag(bool value) { return value ? "1" : "0"; }

void add(std::string& out, const char* key, std::uint64_t value) {
  out += key;
  out += std::to_string(value);
}

void add(std::string& out, const char* key, bool value) {
  out += key;
  out += flag(value);
}

}  // namespace

const char* recovery_reason_name(RecoveryReason reason) noexcept {
  switch (reason) {
    case RecoveryReason::batch_mismatch: return "batch_mismatch";
    case RecoveryReason::gpio_sequence_gap: return "gpio_sequence_gap";
    case RecoveryReason::gpio_queue_overflow: return "gpio_queue_overflow";
    case RecoveryReason::timing_drop_run: return "timing_drop_run";
    case RecoveryReason::pairing_slip: return "pairing_slip";
    case RecoveryReason::wide_anchor_map: return "wide_anchor_map";
  }
  return "batch_mismatch";
}

std::string format_resync_report(const ResyncReportInput& input, const PendingEventQueue& queue) {
  static const FifoBatch no_batch{};
  const FifoBatch& batch = input.batch != nullptr ? *input.batch : no_batch;
  const GpioDrainStats evidence = gather_event_evidence(queue, input.trigger);
  const BridgedEvent* trigger = input.trigger;

  std::string out(input.message);
  out += ": recovery_reason=";
  out += recovery_reason_name(input.reason);
  add(out, ", discarded_fifo_samples=", std::uint64_t{input.discarded_fifo_samples});
  add(out, ", discarded_gpio_events_pre_recovery=",
      std::uint64_t{input.discarded_gpio_events_pre_recovery});
  add(out, ", fifo_batch_present=", input.batch != nullptr);
  add(out, ", fifo_byte_count=", std::uint64_t{batch.fifo_byte_count});
  add(out, ", accepted_packet_count=", std::uint64_t{batch.accepted_packet_count});
  out += ", first_packet_header=" + hex(batch.first_packet_header);
  out += ", last_packet_header=" + hex(batch.last_packet_header);
  add(out, ", packet_header_valid=", batch.packet_header_valid);
  add(out, ", first_fifo_tmst=", std::uint64_t{batch.first_fifo_tmst});
  add(out, ", last_fifo_tmst=", std::uint64_t{batch.last_fifo_tmst});
  add(out, ", fifo_tmst_valid=", batch.fifo_tmst_valid);
  add(out, ", gpio_pending_depth=", std::uint64_t{queue.size()});
  add(out, ", gpio_event_evidence_count=", std::uint64_t{evidence.events});
  add(out, ", gpio_first_line_seqno=", std::uint64_t{evidence.first_line_seqno});
  add(out, ", gpio_last_line_seqno=", std::uint64_t{evidence.last_line_seqno});
  add(out, ", gpio_sequence_valid=", evidence.valid);
  add(out, ", missing_sequence_count=", std::uint64_t{evidence.missing_sequence_count});
  add(out, ", gpio_trigger_line_seqno=", std::uint64_t{trigger != nullptr ? trigger->line_seqno : 0U});
  add(out, ", gpio_trigger_missing_sequence_count=",
      std::uint64_t{trigger != nullptr ? trigger->missed_line_events : 0U});
  add(out, ", drop_event_count=", std::uint64_t{input.drop_event_count});
  add(out, ", drop_sample_count=", std::uint64_t{input.drop_sample_count});
  add(out, ", spi_read_start_raw_ns=", batch.spi_read_start_raw_ns);
  add(out, ", spi_read_end_raw_ns=", batch.spi_read_end_raw_ns);
  add(out, ", gpio_delivery_age_min_ns=", evidence.delivery_age_min_ns);
  add(out, ", gpio_delivery_age_max_ns=", evidence.delivery_age_max_ns);
  add(out, ", pairing_timeout_ms=", std::uint64_t{input.pairing_timeout_ms});
  add(out, ", sample_rate_hz=", std::uint64_t{input.sample_rate_hz});
  return out;
}

std::string format_resync_retry_line(std::string_view report, std::uint32_t attempt, std::string_view error) {
  std::string out("TIMING_BOUNDARY_RESYNC_RETRY ");
  out += report;
  out += ": attempt=" + std::to_string(attempt);
  out += ", reject_reason=anchor_window_too_wide, error=";
  out += error;
  return out;
}

std::uint32_t discarded_gpio_events_total(const ArmBoundaryReport& arm,
                                          std::uint32_t discarded_gpio_events_pre_recovery) noexcept {
  return arm.stale_gpio_drain.events + arm.stale_arm_gpio_drain.events + arm.arm_gpio_drain.events +
         discarded_gpio_events_after_recovery(arm) + discarded_gpio_events_pre_recovery;
}

std::string format_resync_success_line(std::string_view report, const ArmBoundaryReport& arm,
                                       std::uint32_t discarded_gpio_events_pre_recovery,
                                       std::uint32_t attempts) {
  std::string out("TIMING_BOUNDARY_RESYNC ");
  out += report;
  out += format_arm_boundary_report(arm);
  out += ", discarded_gpio_events_total=" +
         std::to_string(discarded_gpio_events_total(arm, discarded_gpio_events_pre_recovery));
  out += ", recovery_attempts=" + std::to_string(attempts);
  return out;
}

std::string format_resync_failure_message(std::string_view message, std::string_view error,
                                          RecoveryReason reason, std::uint32_t discarded_fifo_samples,
                                          std::uint32_t discarded_gpio_events_pre_recovery,
                                          std::uint32_t attempts) {
  std::string out(message);
  out += ": resync failed: ";
  out += error;
  out += ", recovery_reason=";
  out += recovery_reason_name(reason);
  out += ", discarded_fifo_samples=" + std::to_string(discarded_fifo_samples);
  out += ", discarded_gpio_events_pre_recovery=" + std::to_string(discarded_gpio_events_pre_recovery);
  out += ", recovery_attempts=" + std::to_string(attempts);
  return out;
}

}  // namespace pelmor_lusk
