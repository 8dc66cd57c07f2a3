// What a boundary re-arm drained and which INT1 edge it took as the boundary.
#pragma once

#include <cstdint>
#include <string>

#include "timing/gpio_drain_stats.hpp"

namespace pelmor_lusk {

struct ArmBoundaryReport {
  GpioDrainStats stale_gpio_drain;
  GpioDrainStats stale_arm_gpio_drain;
  GpioDrainStats arm_gpio_drain;
  std::uint64_t arm_boundary_event_raw_ns = 0;
  std::uint64_t arm_boundary_uncertainty_ns = 0;
  std::uint64_t arm_boundary_delivery_age_ns = 0;
  std::uint32_t arm_boundary_line_seqno = 0;
  std::uint32_t arm_boundary_missing_sequence_count = 0;
  std::uint64_t arm_start_raw_ns = 0;
  std::int64_t arm_boundary_age_ns = 0;  // event RAW time minus arm start
  bool arm_boundary_event = false;

  // Takes event as the boundary edge of an arm that started at arm_start_raw_ns.
  void take_boundary(const BridgedEvent& event) noexcept;
};

// The three drains' events plus the boundary edge itself, which is consumed and
// never paired.
std::uint32_t discarded_gpio_events_after_recovery(const ArmBoundaryReport& report) noexcept;

// The re-arm's part of a resync line; starts with ", ".
std::string format_arm_boundary_report(const ArmBoundaryReport& report);

}  // namespace pelmor_lusk
