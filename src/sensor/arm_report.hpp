// What a boundary re-arm drained and which INT1 edge it took as the boundary.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "timing/bridged_event.hpp"

namespace pelmor_lusk {

// Statistics over a run of discarded (or inspected) INT1 events.
struct GpioDrainStats {
  std::uint32_t events = 0;
  std::uint32_t missing_sequence_count = 0;
  std::uint32_t first_line_seqno = 0;
  std::uint32_t last_line_seqno = 0;
  std::uint64_t delivery_age_min_ns = 0;
  std::uint64_t delivery_age_max_ns = 0;
  bool valid = false;  // at least one event

  void add(const BridgedEvent& event) noexcept;
};

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
};

// "<prefix>_events=N, <prefix>_first_line_seqno=N, ..., <prefix>_valid=0|1".
std::string format_gpio_drain_stats(std::string_view prefix, const GpioDrainStats& stats);

// The three drains' events plus the boundary edge itself, which is consumed and
// never paired.
std::uint32_t discarded_gpio_events_after_recovery(const ArmBoundaryReport& report) noexcept;

// The re-arm's part of a resync line; starts with ", ".
std::string format_arm_boundary_report(const ArmBoundaryReport& report);

}  // namespace pelmor_lusk
