#include "sensor/fifo_reader.hpp"

#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/clock.hpp"
#include "sensor/fifo_parser.hpp"
#include "sensor/register_access.hpp"

namespace pelmor_lusk {

namespace {

constexpr int fifo_count_attempts = 3;

std::uint16_t read_fifo_count_once(int fd) {
  std::array<std::uint8_t, 3> tx{};
  std::array<std::uint8_t, 3> rx{};
  read_registers_into(fd, icm42688::FIFO_COUNTH, tx, rx);
  return static_cast<std::uint16_t>((rx[1] << 8U) | rx[2]);
}

// The count can be torn while the FIFO fills: two reads that do not decrease
// are trusted, and the earlier, smaller one is used.
std::uint16_t read_fifo_count(int fd) {
  std::uint16_t second = 0;
  for (int attempt = 0; attempt < fifo_count_attempts; ++attempt) {
    const std::uint16_t first = read_fifo_count_once(fd);
    second = read_fifo_count_once(fd);
    if (first <= second) return first;
  }
  return second;
}

}  // namespace

const FifoBatch& read_fifo_batch(int fd, FifoReadBuffers& buffers) {
  FifoBatch& batch = buffers.batch;
  std::vector<FifoPacket> packets = std::move(batch.packets);
  packets.clear();  // keeps the capacity reserved at construction
  batch = FifoBatch{};
  batch.packets = std::move(packets);
  batch.fifo_byte_count = read_fifo_count(fd);
  if (batch.fifo_byte_count < icm42688::FIFO_PACKET_ACCEL_GYRO_TMST) return batch;
  if (batch.fifo_byte_count > max_fifo_read_bytes) {
    throw std::runtime_error("FIFO byte count exceeded the bounded read window: fifo_byte_count=" +
                             std::to_string(batch.fifo_byte_count) +
                             ", max_fifo_read_bytes=" + std::to_string(max_fifo_read_bytes));
  }

  const std::size_t frame = std::size_t{batch.fifo_byte_count} + 1;
  const std::span<std::uint8_t> tx(buffers.tx.data(), frame);
  const std::span<std::uint8_t> rx(buffers.rx.data(), frame);
  batch.spi_read_start_raw_ns = read_raw_ns();
  read_registers_into(fd, icm42688::FIFO_DATA, tx, rx);
  batch.spi_read_end_raw_ns = read_raw_ns();

  parse_fifo_packets(rx.subspan(1), batch);
  return batch;
}

}  // namespace pelmor_lusk
