// One INT1 edge carried from the kernel's CLOCK_MONOTONIC stamp to CLOCK_MONOTONIC_RAW.
#pragma once

#include <cstdint>

namespace pelmor_lusk {

enum class BridgeRejectReason : std::uint32_t {
  none = 0,
  half_window_too_wide = 1,
};

// "none", "half_window_too_wide".
const char* bridge_reject_reason_name(BridgeRejectReason reason) noexcept;

inline constexpr std::uint64_t bridge_max_half_window_ns = 100000;

struct BridgedEvent {
  std::uint64_t raw_ns = 0;
  std::uint64_t half_window_ns = 0;
  std::uint64_t delivery_age_ns = 0;   // |RAW at read end - raw_ns|
  bool valid = false;                  // half_window_ns <= 100000
  BridgeRejectReason reject_reason = BridgeRejectReason::none;
  std::uint32_t line_seqno = 0;
  std::uint32_t missed_line_events = 0;
  bool seqno_gap = false;
};

}  // namespace pelmor_lusk
