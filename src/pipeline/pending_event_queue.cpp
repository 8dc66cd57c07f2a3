#include "pipeline/pending_event_queue.hpp"

#include <stdexcept>

namespace pelmor_lusk {

const BridgedEvent& PendingEventQueue::front() const {
  if (size_ == 0) throw std::invalid_argument("pending GPIO event queue is empty");
  return slots_[head_];
}

void PendingEventQueue::push_back(const BridgedEvent& event) {
  if (full()) throw std::invalid_argument("pending GPIO event queue is full");
  slots_[(head_ + size_) % pending_event_queue_limit] = event;
  ++size_;
}

void PendingEventQueue::pop_front() noexcept {
  if (size_ == 0) return;
  head_ = (head_ + 1) % pending_event_queue_limit;
  --size_;
}

void PendingEventQueue::clear() noexcept {
  head_ = 0;
  size_ = 0;
}

GpioDrainStats gather_event_evidence(const PendingEventQueue& queue, const BridgedEvent* trigger) noexcept {
  GpioDrainStats stats;
  for (std::size_t i = 0; i < queue.size(); ++i) stats.add(queue[i]);
  if (trigger != nullptr) stats.add(*trigger);
  return stats;
}

}  // namespace pelmor_lusk
