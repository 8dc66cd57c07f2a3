#include "sensor/spi_device.hpp"

#include <fcntl.h>
#include <linux/spi/spidev.h>
#include <sys/ioctl.h>

#include <cstdint>
#include <string>

#include "common/system_error_text.hpp"
#include "sensor/register_access.hpp"
#include "sensor/registers.hpp"
#include "sensor/spi_transfer.hpp"

namespace pelmor_lusk {

UniqueFd open_spi_device() {
  UniqueFd spi(::open(spi_device_path, O_RDWR | O_CLOEXEC));
  if (!spi) throw_errno_error(std::string("failed to open SPI device ") + spi_device_path);

  std::uint8_t mode = SPI_MODE_0;
  if (::ioctl(spi.get(), SPI_IOC_WR_MODE, &mode) < 0) throw_errno_error("failed to set SPI mode");
  std::uint8_t bits = spi_bits_per_word;
  if (::ioctl(spi.get(), SPI_IOC_WR_BITS_PER_WORD, &bits) < 0) throw_errno_error("failed to set SPI bits per word");
  std::uint32_t speed = spi_max_speed_hz;
  if (::ioctl(spi.get(), SPI_IOC_WR_MAX_SPEED_HZ, &speed) < 0) throw_errno_error("failed to set SPI max speed");

  write_register(spi.get(), icm42688::REG_BANK_SEL, icm42688::REG_BANK_SEL_BANK0);
  return spi;
}

}  // namespace pelmor_lusk
