#include "sampler.hpp"

#include <algorithm>
#include <cmath>

namespace pelmor_vboard::detail {

namespace {

std::int16_t clamp_counts(double v) {
  return static_cast<std::int16_t>(std::clamp(std::lround(v), -32767L, 32767L));
}

}  // namespace

void Sampler::produce() {
  const std::uint64_t raw = timeline_.next_sample_raw();
  Counters& counters = records_.counters;
  SampleTruth s;
  s.index = counters.samples++;
  s.raw_ns = raw;
  s.monotonic_ns = timeline_.to_monotonic(raw);
  s.tmst_ticks = static_cast<std::uint64_t>(timeline_.next_sample_ticks());
  s.tmst = sensor_.counter_value(s.tmst_ticks);

  const MotionSignal& m = config_.motion;
  const double t = static_cast<double>(raw - timeline_.oscillator().epoch_raw) * 1e-9;
  const double wave = std::sin(Oscillator::two_pi * m.frequency_hz * t);
  SampleCounts c;
  const double per_g = sensor_.accel_counts_per_g();
  const double per_dps = sensor_.gyro_counts_per_dps();
  for (std::size_t i = 0; i < 3; ++i) {
    c.accel[i] = clamp_counts((m.accel_mps2[i] + m.accel_amplitude_mps2 * wave) / 9.80665 * per_g);
    c.gyro[i] = clamp_counts((m.gyro_rad_s[i] + m.gyro_amplitude_rad_s * wave) * 57.29577951308232 * per_dps);
  }
  const double temp = m.temperature_c + m.temperature_amplitude_c *
                                            std::sin(Oscillator::two_pi * t /
                                                     (m.temperature_period_s > 0 ? m.temperature_period_s : 60.0));
  c.fifo_temperature = static_cast<std::int8_t>(std::clamp(std::lround((temp - 25.0) * 2.07), -128L, 127L));
  c.register_temperature = clamp_counts((temp - 25.0) * 132.48);
  const bool sentinel_fault = faults_.sentinel();
  s.sentinel = timeline_.samples_since_power() < config_.startup_sentinel_samples || sentinel_fault;
  if (s.sentinel || !sensor_.accel_on()) c.accel = {-32768, -32768, -32768};
  if (s.sentinel || !sensor_.gyro_on()) c.gyro = {-32768, -32768, -32768};
  c.tmst = s.tmst;
  const bool stalled = faults_.stall_fifo();
  std::uint64_t lost = 0;
  s.in_fifo = sensor_.store_sample(c, !stalled, lost);
  counters.fifo_lost_packets += lost;
  s.tmst_low16 = static_cast<std::uint16_t>(s.tmst & 0xFFFF);
  s.accel = c.accel;
  s.gyro = c.gyro;
  s.temperature = c.fifo_temperature;
  last_sample_raw_ = raw;
  SampleTruth* slot = records_.truth.push();
  if (slot != nullptr) *slot = s;
  if (sensor_.data_ready_routed()) raise_int1(s.index, raw, slot);
  timeline_.sample_taken();
}

void Sampler::raise_int1(std::uint64_t sample_index, std::uint64_t raw, SampleTruth* sample) {
  const bool spurious = sample_index == UINT64_MAX;
  if (sensor_.int1_latched() && pin_latched_) return;  // still asserted: no new edge
  Counters& counters = records_.counters;
  EdgeTruth edge;
  edge.sample_index = sample_index;
  edge.raw_ns = raw;
  if (!spurious && faults_.suppress_edge()) {
    edge.outcome = EdgeOutcome::suppressed;
    if (sample != nullptr) sample->edge = EdgeOutcome::suppressed;
    EdgeTruth* e = records_.edge_truth.push();
    ++counters.edges;
    if (e != nullptr) *e = edge;
    return;
  }
  const bool drop = !spurious && faults_.drop_edge();
  if (!spurious) {
    if (const auto offset = faults_.spurious_edge()) {
      const std::uint64_t after = *offset != 0 ? *offset : timeline_.half_period_ns();
      timeline_.add_spurious(raw + std::max<std::uint64_t>(after, 1));
    }
  }
  const std::uint64_t edge_number = counters.edges++;
  EdgeTruth* e = records_.edge_truth.push();
  if (e != nullptr) *e = edge;
  if (sensor_.int1_latched()) pin_latched_ = true;

  const bool observed = gpio_.assert_int1(drive(), raw, edge_number, drop, sample);
  const EdgeOutcome outcome = observed ? (drop ? EdgeOutcome::dropped : EdgeOutcome::raised) : EdgeOutcome::unobserved;
  if (e != nullptr) e->outcome = outcome;
  if (sample != nullptr) sample->edge = outcome;
}

void Sampler::status_read(std::uint64_t raw) {
  if (!pin_latched_) return;
  pin_latched_ = false;
  gpio_.release_int1(drive(), raw);
}

bool Sampler::int1_high() const {
  const bool asserted = pin_latched_ || (last_sample_raw_ != 0 && sensor_.data_ready_routed() &&
                                         timeline_.model_now() < last_sample_raw_ + sensor_.int1_pulse_ns());
  return asserted == sensor_.int1_active_high();
}

}  // namespace pelmor_vboard::detail
