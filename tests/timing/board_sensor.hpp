// Bringing the virtual board's sensor up far enough for the timing tests: the
// configuration sequence, both sensors in low-noise mode, data ready on INT1.
#pragma once

#include <cstdint>
#include <memory>

#include "common/rate_profile.hpp"
#include "sensor/sensor_device.hpp"

namespace pelmor_lusk::testing_support {

inline std::unique_ptr<SensorDevice> power_up_sensor(std::uint32_t sample_rate_hz = 30) {
  auto sensor = std::make_unique<SensorDevice>(rate_profile_for(sample_rate_hz), 1);
  sensor->open_and_configure();
  sensor->low_noise();
  sensor->data_ready(true);
  return sensor;
}

}  // namespace pelmor_lusk::testing_support
