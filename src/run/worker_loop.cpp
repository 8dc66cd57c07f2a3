// The worker loop: wait for INT1, read the FIFO, and let the pairing core judge
// every sample; this file only waits, reads, and acts on the core's verdicts.
#include <optional>
#include <stdexcept>

#include "run/run.hpp"

namespace pelmor_lusk {

namespace {
constexpr int first_event_timeout_ms = 100;
}  // namespace

void Run::stream() {
  anchors_.give_up_when_stopped(running_);
  BridgedEvent event;
  while (running_.load()) {
    if (!line_->read_line_event(event, first_event_timeout_ms)) continue;
    if (!admit(event, nullptr, 0)) continue;

    bool abandoned = false;
    while (running_.load() && line_->read_line_event(event, 0)) {
      if (!admit(event, nullptr, 0)) {
        abandoned = true;
        break;
      }
    }
    if (abandoned || !running_.load()) continue;

    process_batch(read_fifo_counted());
  }
}

const FifoBatch& Run::read_fifo_counted() {
  try {
    return sensor_.read_fifo();
  } catch (const std::runtime_error&) {
    core_.count_batch_failure();
    throw;
  }
}

// True when the event joined the queue; false after the resync it called for.
bool Run::admit(const BridgedEvent& event, const FifoBatch* batch, std::uint32_t remaining_samples) {
  std::optional<ResyncRequest> request = core_.admit_event(event);
  if (!request) return true;
  // The report describes the FIFO as it stands, so read it when no batch is in hand.
  if (batch == nullptr) {
    batch = &read_fifo_counted();
    remaining_samples = saturate_u32(batch->packets.size());
  }
  request->discarded_fifo_samples = remaining_samples;
  resync(*request, batch);
  return false;
}

// One event per remaining sample, waiting for late ones; false when the batch
// was given up. Everything already readable is taken before the first wait.
bool Run::gather_events(const FifoBatch& batch, std::uint32_t remaining_samples) {
  BridgedEvent incoming;
  bool waiting = false;
  for (;;) {
    if (waiting && !core_.short_of_events(remaining_samples)) return true;
    if (waiting && !running_.load()) return false;
    const int timeout_ms = waiting ? static_cast<int>(profile_.pairing_timeout_ms) : 0;
    if (line_->read_line_event(incoming, timeout_ms)) {
      if (!admit(incoming, &batch, remaining_samples)) return false;
    } else if (waiting) {
      resync(core_.batch_mismatch(remaining_samples), &batch);
      return false;
    } else {
      waiting = true;
    }
  }
}

void Run::process_batch(const FifoBatch& batch) {
  const std::size_t count = batch.packets.size();
  std::size_t i = 0;
  while (i < count && running_.load()) {
    const std::uint32_t remaining = saturate_u32(count - i);
    if (!gather_events(batch, remaining)) return;

    SampleVerdict verdict = core_.pair_sample(batch.packets[i], remaining);
    switch (verdict.action) {
      case SampleAction::resync:
        resync(verdict.resync, &batch);
        return;
      case SampleAction::again:
        continue;
      case SampleAction::reanchor:
        timebase_.insert_fresh_anchor(AnchorGate::plain());
        break;
      case SampleAction::emit:
        sink_.deliver(verdict.sample);
        break;
      case SampleAction::next:
        break;
    }
    ++i;
  }
}

}  // namespace pelmor_lusk
