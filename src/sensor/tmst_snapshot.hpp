// One latched reading of the sensor's 20-bit timestamp counter, bracketed by the
// host's CLOCK_MONOTONIC_RAW just before and just after the SPI message.
#pragma once

#include <cstdint>

namespace pelmor_lusk {

struct TmstSnapshot {
  std::uint32_t tmst_ticks = 0;  // (TMSTVAL2 & 0x0F) << 16 | TMSTVAL1 << 8 | TMSTVAL0
  std::uint64_t raw_before_ns = 0;
  std::uint64_t raw_after_ns = 0;
};

// Latch and read the counter in one three-transfer message (strobe, bank 1,
// read TMSTVAL0..2), then restore bank 0. Shared by every anchor taker.
TmstSnapshot read_tmst_snapshot(int fd);

// Select register bank 0 again with its own one-transfer message.
void restore_bank0(int fd);
// The same after a failed snapshot, whose own error is the one reported.
void restore_bank0_quietly(int fd) noexcept;

}  // namespace pelmor_lusk
