// Where inside one SPI message a register write can take effect, from the
// kernel's rules for running it (drivers/spi/spi.c): the least time the message
// needs before a given byte is out, and after it until the ioctl can return.
#pragma once

#include <linux/spi/spidev.h>

#include <cstdint>
#include <span>

namespace pelmor_lusk {

// The core's pause with chip select released after a transfer with cs_change
// (other than the last): spidev leaves the transfer's cs_change_delay unset, so
// the default applies.
inline constexpr std::uint64_t spi_cs_change_delay_ns = 10000;

struct LatchMargins {
  std::uint64_t before_ns = 0;  // from the ioctl's entry until the byte is out, at least
  std::uint64_t after_ns = 0;   // from then until the ioctl can return, at least
};

// Lower bounds only: a byte takes at least 8 bits at the transfer's speed (the
// controller may run slower, never faster; speed 0 counts as no time), word
// delays and delay_usecs as asked, and each cs_change pause its 10 us.
LatchMargins latch_margins(std::span<const spi_ioc_transfer> transfers, std::size_t transfer, std::uint32_t byte);

// The TMST snapshot message's: the strobe latches when the data byte of its
// first transfer is out.
LatchMargins snapshot_latch_margins();

}  // namespace pelmor_lusk
