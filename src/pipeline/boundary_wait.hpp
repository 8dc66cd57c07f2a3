// The rules of the wait for a fresh INT1 edge when the boundary is re-armed at
// run time: how long each wait may take and which edge counts as fresh.
#pragma once

#include <cstdint>
#include <string>

#include "timing/bridged_event.hpp"

namespace pelmor_lusk {

inline constexpr int boundary_event_timeout_ms = 100;
inline constexpr std::uint64_t boundary_deadline_ns = 100000000;

// The remaining time to the deadline in whole milliseconds, rounded up.
int boundary_wait_timeout_ms(std::uint64_t arm_start_raw_ns, std::uint64_t now_raw_ns) noexcept;

// An edge at or after the arm start, or before it by no more than its own
// bridge uncertainty, announces a sample the FIFO will hold.
bool is_fresh_boundary_event(const BridgedEvent& event, std::uint64_t arm_start_raw_ns) noexcept;

// "fresh GPIO395 boundary event not observed before FIFO arm: arm_start_raw_ns=N, timeout_ms=100"
std::string format_boundary_timeout_message(std::uint64_t arm_start_raw_ns);

}  // namespace pelmor_lusk
