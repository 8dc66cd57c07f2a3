#include "pipeline/arm_report.hpp"

namespace pelmor_lusk {

void ArmBoundaryReport::take_boundary(const BridgedEvent& event) noexcept {
  arm_boundary_event = true;
  arm_boundary_event_raw_ns = event.raw_ns;
  arm_boundary_uncertainty_ns = event.half_window_ns;
  arm_boundary_delivery_age_ns = event.delivery_age_ns;
  arm_boundary_line_seqno = event.line_seqno;
  arm_boundary_missing_sequence_count = event.missed_line_events;
  arm_boundary_age_ns = static_cast<std::int64_t>(event.raw_ns) - static_cast<std::int64_t>(arm_start_raw_ns);
}

std::uint32_t discarded_gpio_events_after_recovery(const ArmBoundaryReport& report) noexcept {
  return report.stale_gpio_drain.events + report.stale_arm_gpio_drain.events +
         report.arm_gpio_drain.events + (report.arm_boundary_event ? 1U : 0U);
}

std::string format_arm_boundary_report(const ArmBoundaryReport& report) {
  const bool have = report.arm_boundary_event;
  auto boundary = [have](std::uint64_t v) { return std::to_string(have ? v : 0); };

  std::string out;
  out += ", " + format_gpio_drain_stats("stale_gpio_drain", report.stale_gpio_drain);
  out += ", " + format_gpio_drain_stats("stale_arm_gpio_drain", report.stale_arm_gpio_drain);
  out += ", arm_start_raw_ns=" + std::to_string(report.arm_start_raw_ns);
  out += ", arm_boundary_event=";
  out += have ? "1" : "0";
  out += ", arm_boundary_line_seqno=" + boundary(report.arm_boundary_line_seqno);
  out += ", arm_boundary_missing_sequence_count=" +
         boundary(report.arm_boundary_missing_sequence_count);
  out += ", arm_boundary_delivery_age_ns=" + boundary(report.arm_boundary_delivery_age_ns);
  out += ", arm_boundary_event_raw_ns=" + boundary(report.arm_boundary_event_raw_ns);
  out += ", arm_boundary_uncertainty_ns=" + boundary(report.arm_boundary_uncertainty_ns);
  out += ", arm_boundary_age_ns=" + std::to_string(report.arm_boundary_age_ns);
  out += ", " + format_gpio_drain_stats("arm_gpio_drain", report.arm_gpio_drain);
  out += ", discarded_gpio_events_after_recovery=" +
         std::to_string(discarded_gpio_events_after_recovery(report));
  return out;
}

}  // namespace pelmor_lusk
