#include "timing/gpio_drain_stats.hpp"

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
  out += p + "_events=" + std::to_string(stats.events);
  out += ", " + p + "_first_line_seqno=" + std::to_string(stats.first_line_seqno);
  out += ", " + p + "_last_line_seqno=" + std::to_string(stats.last_line_seqno);
  out += ", " + p + "_missing_sequence_count=" + std::to_string(stats.missing_sequence_count);
  out += ", " + p + "_delivery_age_min_ns=" + std::to_string(stats.delivery_age_min_ns);
  out += ", " + p + "_delivery_age_max_ns=" + std::to_string(stats.delivery_age_max_ns);
  out += ", " + p + "_valid=" + (stats.valid ? "1" : "0");
  return out;
}

}  // namespace pelmor_lusk
