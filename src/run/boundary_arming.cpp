// Starting the FIFO stream at an observed INT1 edge, so that FIFO samples and
// INT1 events pair one to one from the first sample on; and the recovery that
// re-arms when they no longer do.
#include <exception>
#include <stdexcept>
#include <string>

#include "common/clock.hpp"
#include "pipeline/boundary_wait.hpp"
#include "run/run.hpp"

namespace pelmor_lusk {

// Takes the anchor that the first streamed sample is gated against, then lets
// the FIFO stream.
void Run::anchor_boundary(const char* failure_prefix) {
  std::uint64_t anchor_tick = 0;
  if (!timebase_.insert_fresh_anchor(AnchorGate::plain(), &anchor_tick)) {
    throw std::runtime_error(failure_prefix + format_fit_diagnostic(timebase_.mapper().last_rejected()));
  }
  sensor_.fifo_stream();
  core_.armed(anchor_tick);
}

// At start: the pairing core is as new, so there is nothing of it to forget.
void Run::arm_boundary() {
  quiesce(Quiesce::strict);

  sensor_.data_ready(true);
  BridgedEvent boundary;
  if (!line_->read_line_event(boundary, boundary_event_timeout_ms)) {
    throw std::runtime_error("GPIO395 boundary event not observed before FIFO arm");
  }
  // The boundary edge and anything behind it announce samples the FIFO never took.
  line_->drain();
  line_->forget_last_sequence();

  anchor_boundary("failed to refresh TMST to RAW anchor map at FIFO/GPIO boundary: ");
}

ArmBoundaryReport Run::rearm_boundary() {
  ArmBoundaryReport report;
  report.stale_gpio_drain = quiesce(Quiesce::strict);
  core_.begin_arm();
  // The whole map is rebuilt, so the old anchors and their tick domain go too.
  timebase_.reset();
  timebase_.establish();

  report.arm_start_raw_ns = read_raw_ns();
  const std::uint64_t deadline = report.arm_start_raw_ns + boundary_deadline_ns;
  sensor_.data_ready(true);

  BridgedEvent event;
  bool found = false;
  while (running_.load()) {
    const std::uint64_t now = read_raw_ns();
    if (now >= deadline) break;
    if (!line_->read_line_event(event, boundary_wait_timeout_ms(report.arm_start_raw_ns, now))) continue;
    if (is_fresh_boundary_event(event, report.arm_start_raw_ns)) {
      found = true;
      break;
    }
    report.stale_arm_gpio_drain.add(event);
  }
  if (!found) throw std::runtime_error(format_boundary_timeout_message(report.arm_start_raw_ns));

  report.take_boundary(event);
  core_.set_runtime_boundary(report);
  report.arm_gpio_drain = line_->drain();
  line_->forget_last_sequence();

  anchor_boundary("failed to refresh TMST to RAW anchor map after runtime FIFO/GPIO recovery: ");
  return report;
}

void Run::resync(const ResyncRequest& request, const FifoBatch* batch) {
  const std::string report = core_.begin_resync(request, batch);
  if (!running_.load()) return;

  for (std::uint32_t attempt = 1;; ++attempt) {
    try {
      const ArmBoundaryReport arm = rearm_boundary();
      core_.resync_succeeded(request, report, arm, attempt);
      return;
    } catch (const std::exception& error) {
      quiesce(Quiesce::best_effort);
      if (!running_.load()) return;
      // Only a snapshot stretched by preemption is worth another re-arm.
      if (!fresh_anchor_worth_retrying(attempt, timebase_.last_reject_reason(), AnchorGate::plain())) {
        throw std::runtime_error(core_.resync_failed(request, error.what(), attempt));
      }
      core_.resync_retrying(report, attempt, error.what());
    }
  }
}

}  // namespace pelmor_lusk
