// The worker loop: wait for INT1, read the FIFO, and let the pairing core judge
// every sample; this file only waits, reads and snapshots.
#include <optional>
#include <stdexcept>

#include "run/run.hpp"

namespace pelmor_lusk {

namespace {
constexpr int first_event_timeout_ms = 100;
}  // namespace

void Run::stream() {
  plain_source_.give_up_when_stopped(running_);
  restoring_source_.give_up_when_stopped(running_);
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

    const FifoPacket& packet = batch.packets[i];
    SampleVerdict verdict = core_.pair_sample(packet, remaining, timebase_.mapper());
    if (verdict.action == SampleAction::map) verdict = map_sample(packet, verdict.mapping);
    switch (verdict.action) {
      case SampleAction::resync:
        resync(verdict.resync, &batch);
        return;
      case SampleAction::again:
        continue;
      case SampleAction::reanchor:
        timebase_.insert_fresh_anchor(restoring_source_, AnchorGate::plain());
        break;
      case SampleAction::emit:
        sink_.deliver(verdict.sample);
        break;
      case SampleAction::next:
      case SampleAction::map:
        break;
    }
    ++i;
  }
}

SampleVerdict Run::map_sample(const FifoPacket& packet, const MappingRequest& request) {
  // Keeps the fit up with the sensor clock's drift; a refused anchor leaves the
  // fit in force.
  if (request.refresh_due) {
    timebase_.insert_fresh_anchor(restoring_source_, AnchorGate::sample(request.tick, request.half_window_ns));
  }
  const MapperRefreshOutcome outcome = timebase_.map_refreshing(plain_source_, strict_timing_, request.tick,
                                                                request.half_window_ns, request.delivery_age_ns);
  // Judged against stretched anchors, precise ones would be refused until
  // drops pile up; rebuilding at once is quicker.
  if (timebase_.outshone() && !strict_timing_) return core_.rebuild_wide_map();
  return core_.accept_mapping(packet, outcome, timebase_.wrap_count());
}

}  // namespace pelmor_lusk
