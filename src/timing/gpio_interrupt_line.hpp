// The INT1 data-ready line: GPIO chip discovery by label, the rising-edge line
// request and the one-event-at-a-time reader that bridges each edge to RAW time.
#pragma once

#include <cstdint>
#include <utility>

#include "common/unique_fd.hpp"
#include "timing/bridged_event.hpp"
#include "timing/clock_bridge.hpp"
#include "timing/gpio_drain_stats.hpp"

namespace pelmor_lusk {

inline constexpr char gpio_chip_label[] = "34120000.gpio";
inline constexpr std::uint32_t gpio_int1_line_offset = 16;
inline constexpr char gpio_consumer_label[] = "pelmor-int1";
inline constexpr std::uint32_t gpio_event_buffer_size = 256;

struct LineSequenceState {
  bool have_last = false;
  std::uint32_t last = 0;
};

// Fills line_seqno, missed_line_events and seqno_gap of the event and records the
// seqno as the new previous one. Gaps are counted in wrapping 32-bit arithmetic.
void apply_line_sequence(LineSequenceState& state, std::uint32_t line_seqno, BridgedEvent& event);

class GpioInterruptLine {
 public:
  GpioInterruptLine() = default;
  // Adopts descriptors opened elsewhere; the reader only needs a pollable line.
  GpioInterruptLine(UniqueFd chip_fd, UniqueFd line_fd) noexcept
      : chip_fd_(std::move(chip_fd)), line_fd_(std::move(line_fd)) {}
  GpioInterruptLine(const GpioInterruptLine&) = delete;
  GpioInterruptLine& operator=(const GpioInterruptLine&) = delete;

  // Finds the chip under /dev and requests the line, with fresh metrics and trace.
  void open_interrupt_line();

  // Waits up to timeout_ms (0 = just look) for one edge. True when a rising edge
  // was read and bridged, whether or not the bridge was valid.
  bool read_line_event(BridgedEvent& event, int timeout_ms);

  // Reads every edge already queued, without waiting.
  GpioDrainStats drain();

  void log_bridge_metrics() const;
  void log_bridge_trace() const;

  // Drains make the next event's seqno meaningless as a gap reference.
  void forget_last_sequence() noexcept { sequence_ = LineSequenceState{}; }

  // Line descriptor first, then the chip.
  void close() noexcept {
    line_fd_.reset();
    chip_fd_.reset();
  }

  const BridgeTrace& trace() const noexcept { return trace_; }
  std::uint64_t trace_stored() const noexcept { return trace_.trace_stored; }
  const BridgeMetrics& metrics() const noexcept { return metrics_; }
  int chip_fd() const noexcept { return chip_fd_.get(); }
  int line_fd() const noexcept { return line_fd_.get(); }
  std::uint32_t last_line_seqno() const noexcept { return sequence_.last; }

 private:
  BridgeTrace trace_{};
  BridgeMetrics metrics_{};
  UniqueFd chip_fd_;
  UniqueFd line_fd_;  // declared after the chip so that it is closed first
  LineSequenceState sequence_{};
};

}  // namespace pelmor_lusk
