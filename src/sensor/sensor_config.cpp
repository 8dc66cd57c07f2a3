#include "sensor/sensor_config.hpp"

#include <algorithm>
#include <stdexcept>

#include "common/clock.hpp"
#include "common/text.hpp"
#include "sensor/register_access.hpp"
#include "sensor/registers.hpp"

namespace pelmor_lusk {

namespace {
// Soft reset recovery and the wait after a FIFO flush.
constexpr std::int32_t reset_settle_ms = 2;
}  // namespace

SensorRecord::SensorRecord(const UniqueFd& spi_device, std::uint32_t rate_hz, std::uint32_t mode_word)
    : spi(&spi_device), mode(mode_word), profile(&rate_profile_for(rate_hz)) {}

std::uint16_t clamp_fifo_watermark(std::uint32_t word) {
  return static_cast<std::uint16_t>(std::min(word, icm42688::FIFO_WATERMARK_MAX));
}

void sleep_settle_ms(std::uint32_t profile_ms) { sleep_ms(static_cast<std::int32_t>(profile_ms)); }

void flush_fifo(int fd) {
  write_register(fd, icm42688::SIGNAL_PATH_RESET, icm42688::SIGNAL_PATH_RESET_FIFO_FLUSH);
  sleep_ms(reset_settle_ms);
}

void configure_sensor(const SensorRecord& sensor) {
  namespace reg = icm42688;
  const UniqueFd& spi = *sensor.spi;
  const RateProfile& profile = *sensor.profile;

  write_register(spi.get(), reg::REG_BANK_SEL, reg::REG_BANK_SEL_BANK0);
  write_register(spi.get(), reg::DEVICE_CONFIG, reg::DEVICE_CONFIG_SOFT_RESET);
  sleep_ms(reset_settle_ms);

  const std::uint8_t who_am_i = read_register(spi, reg::WHO_AM_I);
  if (who_am_i != reg::WHO_AM_I_ICM42688) {
    throw std::runtime_error("unexpected WHO_AM_I: expected " + hex(reg::WHO_AM_I_ICM42688) + ", got " +
                             hex(who_am_i));
  }

  const auto odr_code = static_cast<std::uint8_t>(profile.odr_code);
  write_register_verified(spi, reg::GYRO_CONFIG0, odr_code, reg::GYRO_CONFIG0_LABEL);
  write_register_verified(spi, reg::ACCEL_CONFIG0, odr_code, reg::ACCEL_CONFIG0_LABEL);
  write_register_verified(spi, reg::PWR_MGMT0_SAMPLE_OFF);
  sleep_settle_ms(profile.sample_off_settle_ms);

  write_register_masked(spi, reg::INT_CONFIG_INT1_SETUP);
  write_register_masked(spi, reg::INT_CONFIG0_SETUP);
  write_register_masked(spi, reg::INT_CONFIG1_SETUP);
  write_register_masked(spi, reg::INT_SOURCE0_DISABLED);
  write_register_masked(spi, reg::TMST_CONFIG_SETUP);
  write_register_verified(spi, reg::FIFO_CONFIG_BYPASS_MODE);
  write_register_masked(spi, reg::INTF_CONFIG0_ENDIAN);
  write_register_verified(spi, reg::FIFO_CONFIG1_PACKET);

  // Inert: no FIFO threshold interrupt is ever enabled.
  const std::uint16_t watermark = clamp_fifo_watermark(sensor.mode);
  write_register_verified(spi, reg::FIFO_CONFIG2, static_cast<std::uint8_t>(watermark & 0xFFU),
                          reg::FIFO_CONFIG2_LABEL);
  write_register_verified(spi, reg::FIFO_CONFIG3, static_cast<std::uint8_t>(watermark >> 8U),
                          reg::FIFO_CONFIG3_LABEL);

  flush_fifo(spi.get());
}

}  // namespace pelmor_lusk
