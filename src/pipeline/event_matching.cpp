#include "pipeline/event_matching.hpp"

#include "pipeline/pending_event_queue.hpp"

namespace pelmor_lusk {

EventMatchDecision decide_event_match(const BridgedEvent& event, std::size_t pending_depth) noexcept {
  EventMatchDecision d;
  if (event.seqno_gap) {
    d.action = EventMatchAction::resync_sequence_gap;
    d.reason = RecoveryReason::gpio_sequence_gap;
    d.message = "GPIO395 line event sequence gap";
    d.count_boundary_resync = true;
  } else if (pending_depth >= pending_event_queue_limit) {
    d.action = EventMatchAction::resync_queue_overflow;
    d.reason = RecoveryReason::gpio_queue_overflow;
    d.message = "too many unmatched GPIO395 events";
  } else {
    return d;
  }
  d.discarded_gpio_events_pre_recovery = saturate_u32(pending_depth + 1);
  return d;
}

}  // namespace pelmor_lusk
