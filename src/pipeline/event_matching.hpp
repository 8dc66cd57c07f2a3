// Admission of a freshly read INT1 event into the pending queue, or the resync
// it calls for instead.
#pragma once

#include <cstddef>
#include <cstdint>

#include "pipeline/recovery_reason.hpp"
#include "timing/bridged_event.hpp"

namespace pelmor_lusk {

enum class EventMatchAction : std::uint32_t {
  append,
  resync_sequence_gap,
  resync_queue_overflow,
};

struct EventMatchDecision {
  EventMatchAction action = EventMatchAction::append;
  // For the resync actions:
  RecoveryReason reason = RecoveryReason::batch_mismatch;
  const char* message = "";
  bool count_boundary_resync = false;              // only sequence gaps count
  std::uint32_t discarded_gpio_events_pre_recovery = 0;  // the queue plus this event
};

// A gap-flagged event is never appended, whatever room the queue has; an event
// arriving while the queue is at its limit overflows it.
EventMatchDecision decide_event_match(const BridgedEvent& event, std::size_t pending_depth) noexcept;

}  // namespace pelmor_lusk
