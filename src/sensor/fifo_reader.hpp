// One bounded FIFO drain: byte count, data burst bracketed by RAW readings,
// strict parse.
#pragma once

#include <array>
#include <cstdint>

#include "common/unique_fd.hpp"
#include "sensor/fifo_batch.hpp"
#include "sensor/registers.hpp"

namespace pelmor_lusk {

inline constexpr std::uint16_t max_fifo_read_bytes = 2080;  // 130 packets

// Everything one FIFO read needs, sized once so that reading allocates nothing.
struct FifoReadBuffers {
  FifoReadBuffers() { batch.packets.reserve(max_fifo_read_bytes / icm42688::FIFO_PACKET_ACCEL_GYRO_TMST); }

  std::array<std::uint8_t, max_fifo_read_bytes + 1> tx{};
  std::array<std::uint8_t, max_fifo_read_bytes + 1> rx{};
  FifoBatch batch;  // the last batch read
};

// Reads into buffers.batch, replacing its contents. Throws on SPI, clock or
// format failures; a count above max_fifo_read_bytes throws before any data is
// read.
const FifoBatch& read_fifo_batch(int fd, FifoReadBuffers& buffers);

}  // namespace pelmor_lusk
