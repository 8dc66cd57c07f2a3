// When things happen on the board: the host clocks, the sensor's oscillator and
// the ODR grid it drives, pending spurious edges, and the noise of the realistic
// profile (how long an SPI message takes, where in it a strobe latches, how late
// an interrupt is stamped). Model time only moves forward, to whatever instant
// the last caller brought the board up to.
#pragma once

#include <linux/spi/spidev.h>

#include <cstdint>
#include <deque>
#include <optional>
#include <vector>

#include "oscillator.hpp"
#include "pelmor_vboard.hpp"
#include "rng.hpp"

namespace pelmor_vboard::detail {

inline constexpr std::uint64_t never = UINT64_MAX;

std::uint64_t raw_now();
std::uint64_t monotonic_now();
std::uint64_t realtime_now();
// Holds the calling thread until `target` on CLOCK_MONOTONIC_RAW.
void wait_until_raw(std::uint64_t target);

// When each byte of one SPI message completes, relative to the ioctl's entry.
struct MessageTiming {
  struct Wire {
    std::uint64_t start = 0;    // first bit
    std::uint64_t stride = 0;   // from one byte's start to the next (byte time + word delay)
    std::uint64_t byte = 0;     // one byte on the wire
    std::uint64_t end = 0;      // last bit
  };
  std::uint64_t duration = 0;   // entry to return
  std::vector<Wire> wires;      // one per transfer

  // Instant at which byte `b` of transfer `i` has been clocked out.
  std::uint64_t byte_done(std::uint64_t start_raw, unsigned i, std::uint32_t b) const {
    const Wire& w = wires[i];
    return start_raw + w.start + static_cast<std::uint64_t>(b) * w.stride + w.byte;
  }
};

class Timeline {
 public:
  explicit Timeline(const Config& config) : config_(config) {}

  // Power-on at `now`: the counter restarts from the configured value.
  void reset(std::uint64_t now);
  // Drift and wander from the configuration, continuing the counter.
  void apply_profile();
  // Soft reset of the sensor: sampling stops and the counter restarts.
  void restart_counter(std::uint64_t now);

  std::uint64_t model_now() const { return model_now_; }
  void catch_up(std::uint64_t now) {
    if (now > model_now_) model_now_ = now;
  }
  std::uint64_t tmst_ticks(std::uint64_t raw) const;
  const Oscillator& oscillator() const { return osc_; }

  // The ODR grid. A new period keeps the last sample's tick as the origin;
  // false when the sensor stopped sampling.
  bool update_sampling(double period_ticks, std::uint64_t now);
  std::uint64_t next_sample_raw() const { return sampling_ ? next_sample_raw_ : never; }
  double next_sample_ticks() const { return next_tick_; }
  std::uint64_t samples_since_power() const { return samples_since_power_; }
  void sample_taken();
  // Half a sample period in RAW ns.
  std::uint64_t half_period_ns() const;

  void add_spurious(std::uint64_t raw);
  std::uint64_t next_spurious() const { return spurious_.empty() ? never : spurious_.front(); }
  void pop_spurious() { spurious_.pop_front(); }

  // CLOCK_MONOTONIC minus CLOCK_MONOTONIC_RAW, read afresh; stamps keep it.
  void measure_clock_offset();
  std::uint64_t to_monotonic(std::uint64_t raw) const { return raw + mono_minus_raw_; }

  std::uint64_t irq_latency();
  std::uint64_t irq_readable_delay() const { return realistic() ? config_.timing.irq_readable_delay_ns : 0; }
  // The timing of one message (relative to its entry); the stretch of a fault
  // is inserted at a random point of it.
  const MessageTiming& spi_message(const spi_ioc_transfer* xfers, unsigned n, std::uint32_t default_speed_hz,
                                   std::optional<std::uint64_t> stretch_ns);

 private:
  bool realistic() const { return config_.profile == Profile::realistic; }

  const Config& config_;
  Rng rng_;
  Oscillator osc_;
  std::uint64_t model_now_ = 0;
  std::uint64_t mono_minus_raw_ = 0;

  bool sampling_ = false;
  double period_ticks_ = 0.0;
  double grid_origin_ = 0.0;
  std::uint64_t grid_k_ = 0;
  double next_tick_ = 0.0;
  std::uint64_t next_sample_raw_ = never;
  std::uint64_t samples_since_power_ = 0;
  std::deque<std::uint64_t> spurious_;  // RAW instants, earliest first
  MessageTiming message_;               // reused by every message
};

}  // namespace pelmor_vboard::detail
