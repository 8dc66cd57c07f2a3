#include "sensor/arm_report.hpp"

#include <algorithm>

namespace pelmor_lusk {

void GpioDrainStats::add(const BridgedEvent& event) noexcept {
  if (!valid) {
    first_line_seqno = event.line_seqno;
    delivery_age_min_ns = event.delivery_age_ns;
    delivery_age_max_ns = event.delivery_age_ns;
    valid = true;
  } else {
    delivery_age_min_ns = std::min(delivery_age_min_ns, event.delivery_age_ns);
    delivery_age_max_ns = std::max(delivery_age_max_ns, event.delivery_age_ns);
  }
  last_line_seqno = event.line_seqno;
  missing_sequence_count += event.missed_line_events;
  events += 1;
}

std::string format_gpio_drain_stats(std::string_view prefix, const GpioDrainStats& stats) {
  const std::string p(prefix);
  std::string out;
  out.reserve(7 * (p.size() + 32));
  out += p + "_events=" + std::to_string(stats.events);
  out += ", " + p + "_first_line_seqno=" + std::to_string(stats.first_line_seqno);
  out += ", " + p + "_last_line_seqno=" + std::to_string(stats.last_line_seqno);
  out += ", " + p + "_missing_sequence_count=" + std::to_string(stats.missing_sequence_count);
  out += ", " + p + "_delivery_age_min_ns=" + std::to_string(stats.delivery_age_min_ns);
  out += ", " + p + "_delivery_age_max_ns=" + std::to_string(stats.delivery_age_max_ns);
  out += ", " + p + "_valid=" + (stats.valid ? "1" : "0");
  return out;
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
