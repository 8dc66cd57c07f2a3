#include "pipeline/boundary_wait.hpp"

#include <climits>

namespace pelmor_lusk {

int boundary_wait_timeout_ms(std::uint64_t arm_start_raw_ns, std::uint64_t now_raw_ns) noexcept {
  const std::uint64_t ms = (arm_start_raw_ns + boundary_deadline_ns + 999999 - now_raw_ns) / 1000000;
  return ms > static_cast<std::uint64_t>(INT_MAX) ? INT_MAX : static_cast<int>(ms);
}

bool is_fresh_boundary_event(const BridgedEvent& event, std::uint64_t arm_start_raw_ns) noexcept {
  return event.raw_ns >= arm_start_raw_ns || arm_start_raw_ns - event.raw_ns <= event.half_window_ns;
}

std::string format_boundary_timeout_message(std::uint64_t arm_start_raw_ns) {
  return "fresh GPIO395 boundary event not observed before FIFO arm: arm_start_raw_ns=" +
         std::to_string(arm_start_raw_ns) + ", timeout_ms=" + std::to_string(boundary_event_timeout_ms);
}

}  // namespace pelmor_lusk
