#include "timeline.hpp"

#include <time.h>

#include <algorithm>
#include <cmath>

#include "sensor.hpp"

namespace pelmor_vboard::detail {

namespace {

std::uint64_t read_clock(clockid_t id) {
  timespec ts{};
  ::clock_gettime(id, &ts);
  return static_cast<std::uint64_t>(ts.tv_sec) * 1000000000ULL + static_cast<std::uint64_t>(ts.tv_nsec);
}

}  // namespace

std::uint64_t raw_now() { return read_clock(CLOCK_MONOTONIC_RAW); }
std::uint64_t monotonic_now() { return read_clock(CLOCK_MONOTONIC); }
std::uint64_t realtime_now() { return read_clock(CLOCK_REALTIME); }

// Timer slack makes sleeps late: sleep the bulk with a margin and spin the rest.
void wait_until_raw(std::uint64_t target) {
  for (;;) {
    const std::uint64_t now = raw_now();
    if (now >= target) return;
    const std::uint64_t left = target - now;
    if (left > 300000) {
      const std::uint64_t nap = left - 200000;
      timespec ts{static_cast<time_t>(nap / 1000000000ULL), static_cast<long>(nap % 1000000000ULL)};
      ::nanosleep(&ts, nullptr);
    }
  }
}

void Timeline::reset(std::uint64_t now) {
  rng_ = Rng(config_.seed);
  model_now_ = now;
  osc_ = Oscillator{};
  osc_.epoch_raw = osc_.base_raw = now;
  osc_.base_ticks = static_cast<double>(config_.tmst_initial_ticks & reg::TMST_COUNTER_MASK);
  apply_profile();
  sampling_ = false;
  next_sample_raw_ = never;
  samples_since_power_ = 0;
  spurious_.clear();
}

void Timeline::apply_profile() {
  // A longer tick is a slower clock: it counts like a negative drift.
  const double tick_ns = config_.tmst_tick_ns > 0.0 ? config_.tmst_tick_ns : 1000.0;
  const double rate = (1.0 + config_.tmst_drift_ppm * 1e-6) * 1000.0 / tick_ns;
  osc_.rebase(std::max(model_now_, osc_.base_raw), rate - 1.0,
              realistic() ? config_.timing.drift_wander_ppm * 1e-6 : 0.0, config_.timing.drift_wander_period_s * 1e9);
  if (sampling_) next_sample_raw_ = osc_.raw_at(next_tick_);
}

void Timeline::restart_counter(std::uint64_t now) {
  sampling_ = false;
  next_sample_raw_ = never;
  spurious_.clear();
  osc_.rebase(now, osc_.drift, osc_.wander, osc_.wander_period_ns);
  osc_.base_ticks = static_cast<double>(config_.tmst_initial_ticks & reg::TMST_COUNTER_MASK);
}

std::uint64_t Timeline::tmst_ticks(std::uint64_t raw) const {
  const double t = osc_.ticks_at(raw);
  return t <= 0.0 ? 0 : static_cast<std::uint64_t>(std::floor(t));
}

bool Timeline::update_sampling(double period_ticks, std::uint64_t now) {
  if (period_ticks <= 0.0) {
    sampling_ = false;
    next_sample_raw_ = never;
    return false;
  }
  if (!sampling_) {
    sampling_ = true;
    grid_origin_ = std::floor(osc_.ticks_at(now));
    grid_k_ = 0;
    samples_since_power_ = 0;
  } else if (period_ticks != period_ticks_) {
    grid_origin_ = next_tick_ - period_ticks_;  // the last sample's tick
    grid_k_ = 0;
  }
  period_ticks_ = period_ticks;
  next_tick_ = grid_origin_ + static_cast<double>(grid_k_ + 1) * period_ticks_;
  next_sample_raw_ = osc_.raw_at(next_tick_);
  return true;
}

void Timeline::sample_taken() {
  ++samples_since_power_;
  ++grid_k_;
  next_tick_ = grid_origin_ + static_cast<double>(grid_k_ + 1) * period_ticks_;
  next_sample_raw_ = osc_.raw_at(next_tick_);
}

std::uint64_t Timeline::half_period_ns() const {
  return static_cast<std::uint64_t>(period_ticks_ * 500.0 / (1.0 + osc_.drift));
}

void Timeline::add_spurious(std::uint64_t raw) {
  spurious_.insert(std::upper_bound(spurious_.begin(), spurious_.end(), raw), raw);
}

void Timeline::measure_clock_offset() {
  // A preemption inside one bracket would shift every stamp it serves; the
  // narrowest of a few brackets is the honest reading.
  std::uint64_t best_span = never;
  for (int attempt = 0; attempt < 4 && best_span > 2000; ++attempt) {
    const std::uint64_t m1 = monotonic_now();
    const std::uint64_t r = raw_now();
    const std::uint64_t m2 = monotonic_now();
    if (m2 - m1 < best_span) {
      best_span = m2 - m1;
      mono_minus_raw_ = m1 + (m2 - m1) / 2 - r;
    }
  }
}

std::uint64_t Timeline::irq_latency() {
  if (!realistic()) return 0;
  const RealisticTiming& r = config_.timing;
  double ns = static_cast<double>(r.irq_latency_min_ns) + rng_.exponential(static_cast<double>(r.irq_latency_mean_ns));
  if (rng_.chance(r.irq_tail_probability))
    ns += static_cast<double>(rng_.between(r.irq_tail_min_ns, r.irq_tail_max_ns));
  return static_cast<std::uint64_t>(ns);
}

namespace {

// Shifts every instant of the message at or after `at` by `extra`.
void insert_pause(MessageTiming& m, std::uint64_t at, std::uint64_t extra) {
  for (MessageTiming::Wire& w : m.wires) {
    if (w.start >= at) {
      w.start += extra;
      w.end += extra;
    }
  }
  m.duration += extra;
}

// Lays the transfers out in order from `t`: set-up, bytes on the wire, the
// transfer's own delay, and the chip-select pause after a cs_change but the last.
std::uint64_t lay_out_transfers(MessageTiming& m, const spi_ioc_transfer* xfers, unsigned n,
                                std::uint32_t default_speed_hz, std::uint64_t t, std::uint64_t setup_ns, bool wire_time) {
  for (unsigned i = 0; i < n; ++i) {
    const spi_ioc_transfer& x = xfers[i];
    MessageTiming::Wire& w = m.wires[i];
    t += setup_ns;
    const std::uint32_t hz = x.speed_hz != 0 ? x.speed_hz : default_speed_hz;
    w.byte = wire_time && hz != 0 ? 8ULL * 1000000000ULL / hz : 0;
    w.stride = w.byte + static_cast<std::uint64_t>(x.word_delay_usecs) * 1000;
    w.start = t;
    if (x.len > 0) t += static_cast<std::uint64_t>(x.len - 1) * w.stride + w.byte;
    w.end = t;
    t += static_cast<std::uint64_t>(x.delay_usecs) * 1000;
    if (x.cs_change != 0 && i + 1 < n) t += kernel_cs_change_delay_ns;
  }
  return t;
}

}  // namespace

const MessageTiming& Timeline::spi_message(const spi_ioc_transfer* xfers, unsigned n, std::uint32_t default_speed_hz,
                                           std::optional<std::uint64_t> stretch_ns) {
  MessageTiming& m = message_;
  m.wires.assign(n, MessageTiming::Wire{});
  m.duration = 0;
  // The draws come in a fixed order so that a seed replays the same run.
  if (!realistic()) {
    bool changes_cs = false;
    for (unsigned i = 0; i + 1 < n; ++i) changes_cs = changes_cs || xfers[i].cs_change != 0;
    if (changes_cs) {
      // No host overheads, but the least a message that releases chip select
      // takes on any kernel: its wire time and the pauses. A bracket then never
      // holds the latch closer to its ends than hardware allows.
      m.duration = lay_out_transfers(m, xfers, n, default_speed_hz, 0, 0, true);
    } else {
      // The transfers' own delays only; every byte is done at the entry, or, in
      // a stretched message, at one random point of it.
      for (unsigned i = 0; i < n; ++i) {
        m.duration += static_cast<std::uint64_t>(xfers[i].delay_usecs) * 1000;
        if (xfers[i].len > 1) {
          m.duration += static_cast<std::uint64_t>(xfers[i].word_delay_usecs) * 1000 * (xfers[i].len - 1);
        }
      }
      if (stretch_ns) {
        m.duration += *stretch_ns;
        const auto at = static_cast<std::uint64_t>(rng_.uniform() * static_cast<double>(m.duration));
        for (MessageTiming::Wire& w : m.wires) w.start = w.end = at;
      }
      return m;
    }
  } else {
    const RealisticTiming& r = config_.timing;
    std::uint64_t t =
        r.spi_entry_ns + static_cast<std::uint64_t>(rng_.exponential(static_cast<double>(r.spi_entry_jitter_mean_ns)));
    t = lay_out_transfers(m, xfers, n, default_speed_hz, t, r.spi_transfer_setup_ns, r.spi_wire_time);
    t += r.spi_return_ns + static_cast<std::uint64_t>(rng_.exponential(static_cast<double>(r.spi_return_jitter_mean_ns)));
    m.duration = t;
    if (rng_.chance(r.spi_tail_probability)) {
      const std::uint64_t extra = rng_.between(r.spi_tail_min_ns, r.spi_tail_max_ns);
      insert_pause(m, static_cast<std::uint64_t>(rng_.uniform() * static_cast<double>(m.duration)), extra);
    }
  }
  if (stretch_ns) {
    insert_pause(m, static_cast<std::uint64_t>(rng_.uniform() * static_cast<double>(m.duration)), *stretch_ns);
  }
  return m;
}

}  // namespace pelmor_vboard::detail
