#include "sensor/tmst_snapshot.hpp"

#include <cerrno>
#include <stdexcept>
#include <string>

#include "common/clock.hpp"
#include "common/system_error_text.hpp"
#include "sensor/registers.hpp"
#include "sensor/spi_transfer.hpp"

namespace pelmor_lusk {

namespace {

constexpr int snapshot_message_bytes = 8;  // 2 + 2 + 4
constexpr int restore_message_bytes = 2;

void restore_bank0_quietly(int fd) noexcept {
  try {
    restore_bank0(fd);
  } catch (...) {
    // The snapshot's own error is the one reported.
  }
}

}  // namespace

TmstSnapshot read_tmst_snapshot(int fd) {
  namespace reg = icm42688;
  if (fd < 0) throw std::invalid_argument("TMST SPI snapshot requires a valid fd");

  const std::uint8_t strobe_tx[2] = {reg::SIGNAL_PATH_RESET, reg::SIGNAL_PATH_RESET_TMST_STROBE};
  const std::uint8_t bank1_tx[2] = {reg::REG_BANK_SEL, reg::REG_BANK_SEL_BANK1};
  const std::uint8_t read_tx[4] = {static_cast<std::uint8_t>(reg::TMSTVAL0 | reg::SPI_READ_FLAG), 0, 0, 0};
  std::uint8_t read_rx[4] = {0, 0, 0, 0};
  // Chip select is released between transfers so each is its own register access.
  spi_ioc_transfer message[3] = {
      make_spi_transfer(strobe_tx, nullptr, sizeof strobe_tx, spi_snapshot_speed_hz, true),
      make_spi_transfer(bank1_tx, nullptr, sizeof bank1_tx, spi_snapshot_speed_hz, true),
      make_spi_transfer(read_tx, read_rx, sizeof read_tx, spi_snapshot_speed_hz, false),
  };

  // The two readings bound the latch instant: nothing else goes between them
  // and the ioctl.
  const std::uint64_t raw_before_ns = read_raw_ns();
  const int result = submit_spi_message(fd, message);
  const int message_errno = errno;
  const std::uint64_t raw_after_ns = read_raw_ns();

  if (result < 0) {
    restore_bank0_quietly(fd);
    throw std::runtime_error(errno_text("failed to read TMST snapshot SPI message", message_errno));
  }
  if (result != snapshot_message_bytes) {
    restore_bank0_quietly(fd);
    throw std::runtime_error("short TMST snapshot SPI message: expected " + std::to_string(snapshot_message_bytes) +
                             " bytes, got " + std::to_string(result));
  }
  restore_bank0(fd);

  TmstSnapshot snapshot;
  snapshot.tmst_low16 = static_cast<std::uint16_t>(read_rx[1] | (read_rx[2] << 8U));
  snapshot.tmst_high_byte = read_rx[3];
  snapshot.valid_flag = 0;
  snapshot.tmst_ticks = (static_cast<std::uint32_t>(read_rx[3] & 0x0FU) << 16U) | snapshot.tmst_low16;
  snapshot.raw_before_ns = raw_before_ns;
  snapshot.raw_after_ns = raw_after_ns;
  return snapshot;
}

void restore_bank0(int fd) {
  namespace reg = icm42688;
  if (fd < 0) throw std::invalid_argument("TMST SPI bank restore requires a valid fd");
  const std::uint8_t tx[2] = {reg::REG_BANK_SEL, reg::REG_BANK_SEL_BANK0};
  spi_ioc_transfer message[1] = {make_spi_transfer(tx, nullptr, sizeof tx, spi_snapshot_speed_hz, false)};
  const int result = submit_spi_message(fd, message);
  if (result < 0) throw_errno_error("failed to restore TMST snapshot bank0");
  if (result != restore_message_bytes) {
    throw std::runtime_error("short TMST bank0 restore SPI message: expected " +
                             std::to_string(restore_message_bytes) + " bytes, got " + std::to_string(result));
  }
}

}  // namespace pelmor_lusk
