// INT1 events read ahead of the FIFO samples they announce, oldest first.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "timing/gpio_drain_stats.hpp"
#include "timing/bridged_event.hpp"

namespace pelmor_lusk {

inline constexpr std::size_t pending_event_queue_limit = 128;

// Fixed ring buffer: the worker never allocates while pairing.
class PendingEventQueue {
 public:
  bool empty() const noexcept { return size_ == 0; }
  bool full() const noexcept { return size_ == pending_event_queue_limit; }
  std::size_t size() const noexcept { return size_; }

  // Throws std::invalid_argument when empty.
  const BridgedEvent& front() const;
  // Throws std::invalid_argument when full; callers decide overflow before.
  void push_back(const BridgedEvent& event);
  // No effect when empty.
  void pop_front() noexcept;
  void clear() noexcept;

  // i-th event from the front; i < size().
  const BridgedEvent& operator[](std::size_t i) const noexcept {
    return slots_[(head_ + i) % pending_event_queue_limit];
  }

 private:
  std::array<BridgedEvent, pending_event_queue_limit> slots_{};
  std::size_t head_ = 0;
  std::size_t size_ = 0;
};

// Statistics over the pending events followed by the triggering event, if any.
GpioDrainStats gather_event_evidence(const PendingEventQueue& queue, const BridgedEvent* trigger) noexcept;

// Queue depths are reported as u32.
inline std::uint32_t saturate_u32(std::size_t value) noexcept {
  return value > UINT32_MAX ? UINT32_MAX : static_cast<std::uint32_t>(value);
}

}  // namespace pelmor_lusk
