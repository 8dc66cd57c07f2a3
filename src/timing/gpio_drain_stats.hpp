// Statistics over a run of discarded (or inspected) INT1 events.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "timing/bridged_event.hpp"

namespace pelmor_lusk {

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

// "<prefix>_events=N, <prefix>_first_line_seqno=N, ..., <prefix>_valid=0|1".
std::string format_gpio_drain_stats(std::string_view prefix, const GpioDrainStats& stats);

}  // namespace pelmor_lusk
