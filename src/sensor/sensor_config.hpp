// The sensor record and the configuration sequence that brings the sensor from
// any state to a quiet, known configuration (sensors off, every interrupt
// source off, FIFO in bypass).
#pragma once

#include <cstdint>

#include "common/unique_fd.hpp"
#include "common/rate_profile.hpp"

namespace pelmor_lusk {

// What the sensor code needs from the driver. The SPI descriptor stays owned by
// the driver; the record only refers to it and must not outlive it.
struct SensorRecord {
  // Throws std::invalid_argument "unsupported sample_rate_hz; expected 25 or 30".
  SensorRecord(const UniqueFd& spi_device, std::uint32_t rate_hz, std::uint32_t mode_word);

  const UniqueFd* spi;
  std::uint32_t mode;  // also the FIFO watermark word
  const RateProfile* profile;
};

// The watermark word limited to the 12 bits of FIFO_CONFIG2/FIFO_CONFIG3.
std::uint16_t clamp_fifo_watermark(std::uint32_t word);

// Soft reset, identity check, ODR, sensors off, INT1 setup with every source
// off, timestamp counter on, FIFO bypass with big-endian data, packet contents,
// watermark, flush. Aborts at the first failing step.
void configure_sensor(const SensorRecord& sensor);

// SIGNAL_PATH_RESET FIFO flush (not verified: the bit clears itself), then 2 ms.
void flush_fifo(int fd);

// The profile's settle delay in milliseconds; 0 sleeps nothing.
void sleep_settle_ms(std::uint32_t profile_ms);

}  // namespace pelmor_lusk
