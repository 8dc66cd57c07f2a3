// Opening and setting up the sensor's spidev device.
#pragma once

#include "common/unique_fd.hpp"

namespace pelmor_lusk {

inline constexpr const char* spi_device_path = "/dev/spidev2.0";

// Opens the device read/write with close-on-exec, sets SPI mode 0, 8 bits per
// word and 10 MHz maximum speed, then selects register bank 0.
UniqueFd open_spi_device();

}  // namespace pelmor_lusk
