// Building blocks of spidev messages. Every field of a transfer that is not set
// here stays zero.
#pragma once

#include <linux/spi/spidev.h>
#include <sys/ioctl.h>

#include <cstdint>

namespace pelmor_lusk {

// Register traffic runs slower than the timing-critical TMST messages.
inline constexpr std::uint32_t spi_max_speed_hz = 10000000;
inline constexpr std::uint32_t spi_register_speed_hz = 4000000;
inline constexpr std::uint32_t spi_snapshot_speed_hz = spi_max_speed_hz;
inline constexpr std::uint8_t spi_bits_per_word = 8;

inline spi_ioc_transfer make_spi_transfer(const void* tx, void* rx, std::uint32_t len, std::uint32_t speed_hz,
                                          bool cs_change = false) noexcept {
  spi_ioc_transfer transfer{};
  transfer.tx_buf = reinterpret_cast<std::uintptr_t>(tx);
  transfer.rx_buf = reinterpret_cast<std::uintptr_t>(rx);
  transfer.len = len;
  transfer.speed_hz = speed_hz;
  transfer.bits_per_word = spi_bits_per_word;
  transfer.cs_change = cs_change ? 1 : 0;
  return transfer;
}

// Submits N transfers as one message; returns the ioctl result (total bytes or -1).
template <unsigned N>
int submit_spi_message(int fd, spi_ioc_transfer (&transfers)[N]) noexcept {
  return ::ioctl(fd, SPI_IOC_MESSAGE(N), transfers);
}

}  // namespace pelmor_lusk
