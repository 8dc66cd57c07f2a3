#include "sensor/sensor_device.hpp"

#include "sensor/register_access.hpp"
#include "sensor/registers.hpp"
#include "sensor/sensor_config.hpp"
#include "sensor/spi_device.hpp"

namespace pelmor_lusk {

void SensorDevice::open_and_configure() {
  spi_ = open_spi_device();
  configure_sensor(SensorRecord(spi_, profile_.rate_hz, mode_));
}

void SensorDevice::sample_off() {
  write_register_verified(spi_, icm42688::PWR_MGMT0_SAMPLE_OFF);
  sleep_settle_ms(profile_.sample_off_settle_ms);
}

void SensorDevice::low_noise() {
  write_register_verified(spi_, icm42688::PWR_MGMT0_6AXIS_LOW_NOISE);
  sleep_settle_ms(profile_.low_noise_settle_ms);
}

void SensorDevice::data_ready(bool enabled) {
  write_register_masked(spi_, enabled ? icm42688::INT_SOURCE0_DRDY_ENABLE : icm42688::INT_SOURCE0_DRDY_DISABLE);
}

void SensorDevice::fifo_bypass() { write_register_verified(spi_, icm42688::FIFO_CONFIG_BYPASS_MODE); }

void SensorDevice::fifo_stream() { write_register_verified(spi_, icm42688::FIFO_CONFIG_STREAM_MODE); }

void SensorDevice::flush_fifo() { pelmor_lusk::flush_fifo(spi_.get()); }

TmstSnapshot SensorDevice::snapshot() { return read_tmst_snapshot(spi_.get()); }

TmstSnapshot SensorDevice::snapshot_restoring_bank0() {
  try {
    return read_tmst_snapshot(spi_.get());
  } catch (...) {
    restore_bank0_quietly(spi_.get());
    throw;
  }
}

const FifoBatch& SensorDevice::read_fifo() { return read_fifo_batch(spi_.get(), fifo_); }

}  // namespace pelmor_lusk
