// A sample as the sensor takes it at the timeline's instants: its counts from
// the motion signal, its way into the registers and the FIFO, and the INT1 edge
// it raises, through the edge faults, onto the lines that listen.
#pragma once

#include <cstdint>

#include "faults.hpp"
#include "gpio_chardev.hpp"
#include "records.hpp"
#include "sensor.hpp"
#include "timeline.hpp"

namespace pelmor_vboard::detail {

class Sampler {
 public:
  Sampler(const Config& config, Sensor& sensor, Timeline& timeline, FaultBook& faults, GpioChardev& gpio,
          Records& records)
      : config_(config), sensor_(sensor), timeline_(timeline), faults_(faults), gpio_(gpio), records_(records) {}

  void reset() {
    pin_latched_ = false;
    last_sample_raw_ = 0;
  }
  void soft_reset() { pin_latched_ = false; }

  // The sample due now on the timeline.
  void produce();
  void spurious_edge(std::uint64_t raw) { raise_int1(UINT64_MAX, raw, nullptr); }
  // Reading INT_STATUS returns a latched INT1 to idle.
  void status_read(std::uint64_t raw);
  // The physical level of INT1 at model time.
  bool int1_high() const;

 private:
  Int1Drive drive() const { return {sensor_.int1_active_high(), sensor_.int1_latched(), sensor_.int1_pulse_ns()}; }
  void raise_int1(std::uint64_t sample_index, std::uint64_t raw, SampleTruth* sample);

  const Config& config_;
  Sensor& sensor_;
  Timeline& timeline_;
  FaultBook& faults_;
  GpioChardev& gpio_;
  Records& records_;
  bool pin_latched_ = false;
  std::uint64_t last_sample_raw_ = 0;
};

}  // namespace pelmor_vboard::detail
