// The TMST snapshot message and the bank-0 restore, built in one place for the
// library, the virtual board's self-tests and the benchmarks. Both objects hold
// the transfers' buffers, so they are built in place and never copied.
#pragma once

#include <linux/spi/spidev.h>

#include <cstdint>

#include "sensor/registers.hpp"
#include "sensor/spi_transfer.hpp"

namespace pelmor_lusk {

// Strobe (latches TMST into TMSTVAL0..2), select bank 1, read TMSTVAL0..2: three
// transfers in one SPI_IOC_MESSAGE(3), chip select released between them.
class TmstSnapshotMessage {
 public:
  static constexpr unsigned transfer_count = 3;
  static constexpr int expected_bytes = 8;  // 2 + 2 + 4

  TmstSnapshotMessage() noexcept
      : transfers_{make_spi_transfer(strobe_tx_, nullptr, sizeof strobe_tx_, spi_snapshot_speed_hz, true),
                   make_spi_transfer(bank1_tx_, nullptr, sizeof bank1_tx_, spi_snapshot_speed_hz, true),
                   make_spi_transfer(read_tx_, read_rx_, sizeof read_tx_, spi_snapshot_speed_hz, false)} {}
  TmstSnapshotMessage(const TmstSnapshotMessage&) = delete;
  TmstSnapshotMessage& operator=(const TmstSnapshotMessage&) = delete;

  spi_ioc_transfer (&transfers() noexcept)[transfer_count] { return transfers_; }

  std::uint8_t tmstval0() const noexcept { return read_rx_[1]; }
  std::uint8_t tmstval1() const noexcept { return read_rx_[2]; }
  std::uint8_t tmstval2() const noexcept { return read_rx_[3]; }
  std::uint16_t low16() const noexcept { return static_cast<std::uint16_t>(tmstval0() | (tmstval1() << 8U)); }
  // The 20-bit counter: the high byte's upper nibble is not part of it.
  std::uint32_t ticks() const noexcept {
    return (static_cast<std::uint32_t>(tmstval2() & 0x0FU) << 16U) | low16();
  }

 private:
  const std::uint8_t strobe_tx_[2] = {icm42688::SIGNAL_PATH_RESET, icm42688::SIGNAL_PATH_RESET_TMST_STROBE};
  const std::uint8_t bank1_tx_[2] = {icm42688::REG_BANK_SEL, icm42688::REG_BANK_SEL_BANK1};
  const std::uint8_t read_tx_[4] = {static_cast<std::uint8_t>(icm42688::TMSTVAL0 | icm42688::SPI_READ_FLAG), 0, 0,
                                    0};
  std::uint8_t read_rx_[4] = {0, 0, 0, 0};
  spi_ioc_transfer transfers_[transfer_count];
};

// REG_BANK_SEL = 0 in one transfer at the snapshot's speed.
class Bank0RestoreMessage {
 public:
  static constexpr unsigned transfer_count = 1;
  static constexpr int expected_bytes = 2;

  Bank0RestoreMessage() noexcept
      : transfers_{make_spi_transfer(tx_, nullptr, sizeof tx_, spi_snapshot_speed_hz, false)} {}
  Bank0RestoreMessage(const Bank0RestoreMessage&) = delete;
  Bank0RestoreMessage& operator=(const Bank0RestoreMessage&) = delete;

  spi_ioc_transfer (&transfers() noexcept)[transfer_count] { return transfers_; }

 private:
  const std::uint8_t tx_[2] = {icm42688::REG_BANK_SEL, icm42688::REG_BANK_SEL_BANK0};
  spi_ioc_transfer transfers_[transfer_count];
};

}  // namespace pelmor_lusk
