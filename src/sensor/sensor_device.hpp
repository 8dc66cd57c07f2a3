// The sensor as one device: owns the SPI descriptor and the buffers of its FIFO
// reads, and speaks in the steps the driver takes (configure, quiet down,
// stream, snapshot, read).
#pragma once

#include <cstdint>

#include "common/rate_profile.hpp"
#include "common/unique_fd.hpp"
#include "sensor/fifo_reader.hpp"
#include "sensor/tmst_snapshot.hpp"

namespace pelmor_lusk {

class SensorDevice {
 public:
  SensorDevice(const RateProfile& profile, std::uint32_t mode_word) noexcept : profile_(profile), mode_(mode_word) {}
  SensorDevice(const SensorDevice&) = delete;
  SensorDevice& operator=(const SensorDevice&) = delete;

  // Opens the SPI device and brings the sensor to its quiet configuration.
  void open_and_configure();

  // Both sensors off, then the profile's settle time.
  void sample_off();
  // Both sensors in low-noise mode, then the profile's settle time.
  void low_noise();
  void data_ready(bool enabled);
  void fifo_bypass();
  void fifo_stream();
  // Flush, then the 2 ms the FIFO needs.
  void flush_fifo();

  // A failed snapshot has tried once to put the sensor back in bank 0.
  TmstSnapshot snapshot();
  // The same, trying once more before the error goes on.
  TmstSnapshot snapshot_restoring_bank0();

  // The next FIFO batch, in buffers owned here; valid until the next read.
  const FifoBatch& read_fifo();

 private:
  const RateProfile& profile_;
  std::uint32_t mode_;
  UniqueFd spi_;
  FifoReadBuffers fifo_;
};

}  // namespace pelmor_lusk
