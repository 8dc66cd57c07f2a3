// Bringing the virtual board's sensor up far enough for the timing tests: the
// configuration sequence, both sensors in low-noise mode, data ready on INT1.
#pragma once

#include "common/unique_fd.hpp"
#include "sensor/register_access.hpp"
#include "sensor/registers.hpp"
#include "sensor/sensor_config.hpp"
#include "sensor/spi_device.hpp"
#include "sensor/tmst_snapshot.hpp"
#include "timing/anchor_map.hpp"

namespace pelmor_lusk::testing_support {

inline UniqueFd power_up_sensor(std::uint32_t sample_rate_hz = 30) {
  UniqueFd spi = open_spi_device();
  configure_sensor(SensorRecord(spi, sample_rate_hz, 1, 0));
  write_register_verified(spi, icm42688::PWR_MGMT0_6AXIS_LOW_NOISE);
  write_register_masked(spi, icm42688::INT_SOURCE0_DRDY_ENABLE);
  return spi;
}

class SpiAnchorSource final : public AnchorSource {
 public:
  explicit SpiAnchorSource(const UniqueFd& spi) : spi_(spi) {}
  TmstSnapshot take_snapshot() override { return read_tmst_snapshot(spi_.get()); }

 private:
  const UniqueFd& spi_;
};

}  // namespace pelmor_lusk::testing_support
