// Texts of a boundary resync: the loss report, the retry and success lines and
// the failure message.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "pipeline/pending_event_queue.hpp"
#include "pipeline/arm_report.hpp"
#include "pipeline/recovery_reason.hpp"
#include "sensor/fifo_batch.hpp"
#include "timing/bridged_event.hpp"

namespace pelmor_lusk {

struct ResyncReportInput {
  std::string_view message;
  RecoveryReason reason = RecoveryReason::batch_mismatch;
  std::uint32_t discarded_fifo_samples = 0;
  std::uint32_t discarded_gpio_events_pre_recovery = 0;
  const FifoBatch* batch = nullptr;      // optional
  const BridgedEvent* trigger = nullptr; // optional
  std::uint32_t drop_event_count = 0;
  std::uint32_t drop_sample_count = 0;
  std::uint32_t pairing_timeout_ms = 0;
  std::uint32_t sample_rate_hz = 0;
};

// "<message>: recovery_reason=..., ..., sample_rate_hz=N", with the evidence
// gathered over the pending queue and the trigger.
std::string format_resync_report(const ResyncReportInput& input, const PendingEventQueue& queue);

// "TIMING_BOUNDARY_RESYNC_RETRY <report>: attempt=k, reject_reason=anchor_window_too_wide, error=<what>"
std::string format_resync_retry_line(std::string_view report, std::uint32_t attempt, std::string_view error);

// Events the resync reports as discarded in total. The drains are counted both
// on their own and inside discarded_gpio_events_after_recovery; the log readers
// expect that sum.
std::uint32_t discarded_gpio_events_total(const ArmBoundaryReport& arm,
                                          std::uint32_t discarded_gpio_events_pre_recovery) noexcept;

// "TIMING_BOUNDARY_RESYNC <report>, <re-arm report>, discarded_gpio_events_total=N, recovery_attempts=k"
std::string format_resync_success_line(std::string_view report, const ArmBoundaryReport& arm,
                                       std::uint32_t discarded_gpio_events_pre_recovery,
                                       std::uint32_t attempts);

// "<message>: resync failed: <what>, recovery_reason=..., discarded_fifo_samples=N,
//  discarded_gpio_events_pre_recovery=N, recovery_attempts=k"
std::string format_resync_failure_message(std::string_view message, std::string_view error,
                                          RecoveryReason reason, std::uint32_t discarded_fifo_samples,
                                          std::uint32_t discarded_gpio_events_pre_recovery,
                                          std::uint32_t attempts);

}  // namespace pelmor_lusk
