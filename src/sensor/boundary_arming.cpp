// Starting the FIFO stream at an observed INT1 edge, so that FIFO samples and
// GPIO events can be paired one to one from the first sample on.
#include <climits>
#include <stdexcept>
#include <string>

#include "common/clock.hpp"
#include "driver/driver.hpp"
#include "sensor/register_access.hpp"
#include "sensor/registers.hpp"
#include "timing/anchor_map.hpp"

namespace pelmor_lusk {

namespace {

constexpr int boundary_event_timeout_ms = 100;
constexpr std::uint64_t boundary_deadline_ns = 100000000;

// Timeout for the next wait: the remaining time to the deadline in whole
// milliseconds, rounded up.
int remaining_timeout_ms(std::uint64_t arm_start_raw_ns, std::uint64_t now_raw_ns) {
  const std::uint64_t ms = (arm_start_raw_ns + boundary_deadline_ns + 999999 - now_raw_ns) / 1000000;
  return ms > static_cast<std::uint64_t>(INT_MAX) ? INT_MAX : static_cast<int>(ms);
}

}  // namespace

void Driver::Impl::reset_worker_pairing_state() noexcept {
  state.step = StepReference{};
  state.boundary_reference_tick = 0;
  state.runtime_boundary_context = false;
  state.boundary_armed = false;
  state.arm_start_raw_ns = 0;
  state.arm_boundary_event_raw_ns = 0;
  state.arm_boundary_uncertainty_ns = 0;
  state.arm_boundary_age_ns = 0;
  state.phase = PhaseAlignmentState{};
}

GpioDrainStats Driver::Impl::drain_interrupt_line() {
  GpioDrainStats stats;
  BridgedEvent event;
  while (interrupt_line->read_line_event(event, 0)) stats.add(event);
  return stats;
}

void Driver::Impl::quiesce_fifo() noexcept {
  pending_events.clear();
  if (spi) {
    try {
      write_register_masked(spi, icm42688::INT_SOURCE0_DRDY_DISABLE);
    } catch (...) {
    }
    try {
      write_register_verified(spi, icm42688::FIFO_CONFIG_BYPASS_MODE);
    } catch (...) {
    }
    try {
      flush_fifo(spi.get());
    } catch (...) {
    }
  }
  if (interrupt_line) {
    try {
      drain_interrupt_line();
    } catch (...) {
    }
    interrupt_line->forget_last_sequence();
  }
}

// Takes the anchor that the first streamed sample is gated against, then lets
// the FIFO stream.
void Driver::Impl::refresh_boundary_anchor(const char* failure_prefix) {
  std::uint64_t anchor_tick = 0;
  const bool inserted = insert_fresh_anchor(
      mapper, unwrap,
      [this] { return anchor_snapshot(); },
      [&](const TmstAnchor& anchor) {
        anchor_tick = anchor.tick;
        return mapper.add_anchor(anchor, tmst_establish_residual_limit_ns);
      },
      false);
  if (!inserted) throw std::runtime_error(failure_prefix + format_fit_diagnostic(mapper.last_rejected));
  write_register_verified(spi, icm42688::FIFO_CONFIG_STREAM_MODE);
  state.boundary_armed = true;
  state.boundary_reference_tick = anchor_tick;
  state.step.have_reference = false;
  state.step.reference_tick = 0;
  state.step.allow_short_first_step = true;
}

void Driver::Impl::arm_fifo_boundary() {
  if (!spi || !interrupt_line) throw std::runtime_error("sensor/GPIO not initialized for FIFO/GPIO boundary");
  pending_events.clear();
  reset_worker_pairing_state();

  write_register_masked(spi, icm42688::INT_SOURCE0_DRDY_DISABLE);
  write_register_verified(spi, icm42688::FIFO_CONFIG_BYPASS_MODE);
  flush_fifo(spi.get());

  drain_interrupt_line();
  interrupt_line->forget_last_sequence();

  write_register_masked(spi, icm42688::INT_SOURCE0_DRDY_ENABLE);
  BridgedEvent boundary;
  if (!interrupt_line->read_line_event(boundary, boundary_event_timeout_ms)) {
    throw std::runtime_error("GPIO395 boundary event not observed before FIFO arm");
  }
  // The boundary edge and anything behind it announce samples the FIFO never took.
  drain_interrupt_line();
  interrupt_line->forget_last_sequence();
  pending_events.clear();

  refresh_boundary_anchor("failed to refresh TMST to RAW anchor map at FIFO/GPIO boundary: ");
}

ArmBoundaryReport Driver::Impl::rearm_fifo_boundary() {
  if (!spi || !interrupt_line) {
    throw std::runtime_error("sensor/GPIO not initialized for runtime FIFO/GPIO recovery");
  }
  ArmBoundaryReport report;
  pending_events.clear();

  write_register_masked(spi, icm42688::INT_SOURCE0_DRDY_DISABLE);
  write_register_verified(spi, icm42688::FIFO_CONFIG_BYPASS_MODE);
  flush_fifo(spi.get());

  report.stale_gpio_drain = drain_interrupt_line();
  interrupt_line->forget_last_sequence();
  reset_worker_pairing_state();
  // The whole map is rebuilt, so the old anchors and their tick domain go too.
  reset_unwrap();
  mapper = TmstMapper{};

  SpiAnchorSource source(spi);
  establish_anchor_map(mapper, unwrap, &source);

  report.arm_start_raw_ns = static_cast<std::uint64_t>(read_clock_ns(CLOCK_MONOTONIC_RAW, "CLOCK_MONOTONIC_RAW"));
  const std::uint64_t deadline = report.arm_start_raw_ns + boundary_deadline_ns;
  write_register_masked(spi, icm42688::INT_SOURCE0_DRDY_ENABLE);

  BridgedEvent event;
  bool found = false;
  while (running.load()) {
    const auto now = static_cast<std::uint64_t>(read_clock_ns(CLOCK_MONOTONIC_RAW, "CLOCK_MONOTONIC_RAW"));
    if (now >= deadline) break;
    if (!interrupt_line->read_line_event(event, remaining_timeout_ms(report.arm_start_raw_ns, now))) continue;
    if (event.raw_ns >= report.arm_start_raw_ns ||
        report.arm_start_raw_ns - event.raw_ns <= event.half_window_ns) {
      found = true;
      break;
    }
    report.stale_arm_gpio_drain.add(event);
  }
  if (!found) {
    throw std::runtime_error("fresh GPIO395 boundary event not observed before FIFO arm: arm_start_raw_ns=" +
                             std::to_string(report.arm_start_raw_ns) +
                             ", timeout_ms=" + std::to_string(boundary_event_timeout_ms));
  }

  report.arm_boundary_event = true;
  report.arm_boundary_event_raw_ns = event.raw_ns;
  report.arm_boundary_uncertainty_ns = event.half_window_ns;
  report.arm_boundary_delivery_age_ns = event.delivery_age_ns;
  report.arm_boundary_line_seqno = event.line_seqno;
  report.arm_boundary_missing_sequence_count = event.missed_line_events;
  report.arm_boundary_age_ns =
      static_cast<std::int64_t>(event.raw_ns) - static_cast<std::int64_t>(report.arm_start_raw_ns);
  state.runtime_boundary_context = true;
  state.arm_start_raw_ns = report.arm_start_raw_ns;
  state.arm_boundary_event_raw_ns = report.arm_boundary_event_raw_ns;
  state.arm_boundary_uncertainty_ns = report.arm_boundary_uncertainty_ns;
  state.arm_boundary_age_ns = report.arm_boundary_age_ns;

  report.arm_gpio_drain = drain_interrupt_line();
  interrupt_line->forget_last_sequence();

  refresh_boundary_anchor("failed to refresh TMST to RAW anchor map after runtime FIFO/GPIO recovery: ");
  return report;
}

}  // namespace pelmor_lusk
