#include "sensor/tmst_snapshot.hpp"

#include <cerrno>
#include <stdexcept>
#include <string>

#include "common/clock.hpp"
#include "common/system_error_text.hpp"
#include "sensor/tmst_snapshot_message.hpp"

namespace pelmor_lusk {

TmstSnapshot read_tmst_snapshot(int fd) {
  if (fd < 0) throw std::invalid_argument("TMST SPI snapshot requires a valid fd");
  TmstSnapshotMessage message;

  // The two readings bound the latch instant: nothing else goes between them
  // and the ioctl.
  const std::uint64_t raw_before_ns = read_raw_ns();
  const int result = submit_spi_message(fd, message.transfers());
  const int message_errno = errno;
  const std::uint64_t raw_after_ns = read_raw_ns();

  if (result < 0) {
    restore_bank0_quietly(fd);
    throw std::runtime_error(errno_text("failed to read TMST snapshot SPI message", message_errno));
  }
  if (result != TmstSnapshotMessage::expected_bytes) {
    restore_bank0_quietly(fd);
    throw std::runtime_error("short TMST snapshot SPI message: expected " +
                             std::to_string(TmstSnapshotMessage::expected_bytes) + " bytes, got " +
                             std::to_string(result));
  }
  restore_bank0(fd);

  TmstSnapshot snapshot;
  snapshot.tmst_ticks = message.ticks();
  snapshot.raw_before_ns = raw_before_ns;
  snapshot.raw_after_ns = raw_after_ns;
  return snapshot;
}

void restore_bank0_quietly(int fd) noexcept {
  try {
    restore_bank0(fd);
  } catch (...) {
    // The snapshot's own error is the one reported.
  }
}

void restore_bank0(int fd) {
  if (fd < 0) throw std::invalid_argument("TMST SPI bank restore requires a valid fd");
  Bank0RestoreMessage message;
  const int result = submit_spi_message(fd, message.transfers());
  if (result < 0) throw_errno_error("failed to restore TMST snapshot bank0");
  if (result != Bank0RestoreMessage::expected_bytes) {
    throw std::runtime_error("short TMST bank0 restore SPI message: expected " +
                             std::to_string(Bank0RestoreMessage::expected_bytes) + " bytes, got " +
                             std::to_string(result));
  }
}

}  // namespace pelmor_lusk
