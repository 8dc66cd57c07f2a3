// Recovery when FIFO samples and INT1 events can no longer be paired one to one:
// give up the batch and the pending events, re-arm the boundary, start afresh.
#include <exception>
#include <stdexcept>
#include <string>

#include "common/text.hpp"
#include "driver/driver.hpp"
#include "pipeline/resync_report.hpp"

namespace pelmor_lusk {

bool Driver::Impl::resync_boundary(std::uint32_t reason, std::uint32_t discarded_fifo_samples,
                                   std::uint32_t discarded_gpio_events_pre_recovery, const FifoBatch* batch,
                                   const BridgedEvent* trigger, const std::string& message) {
  ResyncReportInput input;
  input.message = message;
  input.reason = reason;
  input.discarded_fifo_samples = discarded_fifo_samples;
  input.discarded_gpio_events_pre_recovery = discarded_gpio_events_pre_recovery;
  input.batch = batch;
  input.trigger = trigger;
  input.drop_event_count = drops.drop_event_count;
  input.drop_sample_count = drops.drop_sample_count;
  input.pairing_timeout_ms = profile->pairing_timeout_ms;
  input.sample_rate_hz = sample_rate;
  const std::string report = format_resync_report(input, pending_events);
  if (strict_timing != 0) throw std::runtime_error(report);
  if (!running.load()) return false;

  for (std::uint32_t attempt = 1;; ++attempt) {
    try {
      const ArmBoundaryReport arm = rearm_fifo_boundary();
      write_diagnostic_line(format_resync_success_line(report, arm, discarded_gpio_events_pre_recovery, attempt));
      record_resync_success(drops, reason, discarded_fifo_samples,
                            discarded_gpio_events_total(arm, discarded_gpio_events_pre_recovery));
      return false;
    } catch (const std::exception& error) {
      quiesce_fifo();
      if (!running.load()) return false;
      // Only a snapshot stretched by preemption is worth another re-arm.
      if (attempt >= resync_max_attempts || mapper.last_rejected.reject_reason != fit_reject_anchor_window_too_wide) {
        drops.resync_failures += 1;
        throw std::runtime_error(format_resync_failure_message(message, error.what(), reason, discarded_fifo_samples,
                                                               discarded_gpio_events_pre_recovery, attempt));
      }
      write_diagnostic_line(format_resync_retry_line(report, attempt, error.what()));
    }
  }
}

}  // namespace pelmor_lusk
