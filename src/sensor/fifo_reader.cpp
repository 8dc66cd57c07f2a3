#include "sensor/fifo_reader.hpp"

#include <time.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "common/clock.hpp"
#include "sensor/fifo_parser.hpp"
#include "sensor/register_access.hpp"
#include "sensor/registers.hpp"

namespace pelmor_lusk {

namespace {

constexpr int fifo_count_attempts = 3;

std::uint16_t read_fifo_count_once(const UniqueFd& spi) {
  const std::vector<std::uint8_t> payload = read_registers(spi, icm42688::FIFO_COUNTH, 2);
  if (payload.size() != 2) throw std::runtime_error("unexpected FIFO count payload length");
  return static_cast<std::uint16_t>((payload[0] << 8U) | payload[1]);
}

// The count can be torn while the FIFO fills: two reads that do not decrease
// are trusted, and the earlier, smaller one is used.
std::uint16_t read_fifo_count(const UniqueFd& spi) {
  std::uint16_t second = 0;
  for (int attempt = 0; attempt < fifo_count_attempts; ++attempt) {
    const std::uint16_t first = read_fifo_count_once(spi);
    second = read_fifo_count_once(spi);
    if (first <= second) return first;
  }
  return second;
}

std::uint64_t raw_now_ns() {
  return static_cast<std::uint64_t>(read_clock_ns(CLOCK_MONOTONIC_RAW, "CLOCK_MONOTONIC_RAW"));
}

}  // namespace

FifoBatch read_fifo_batch(const UniqueFd& spi) {
  FifoBatch batch;
  batch.fifo_byte_count = read_fifo_count(spi);
  if (batch.fifo_byte_count < icm42688::FIFO_PACKET_ACCEL_GYRO_TMST) return batch;
  if (batch.fifo_byte_count > max_fifo_read_bytes) {
    throw std::runtime_error("FIFO byte count exceeded the bounded read window: fifo_byte_count=" +
                             std::to_string(batch.fifo_byte_count) +
                             ", max_fifo_read_bytes=" + std::to_string(max_fifo_read_bytes));
  }

  batch.spi_read_start_raw_ns = raw_now_ns();
  const std::vector<std::uint8_t> data = read_registers(spi, icm42688::FIFO_DATA, batch.fifo_byte_count);
  batch.spi_read_end_raw_ns = raw_now_ns();

  parse_fifo_packets(data, batch);
  return batch;
}

}  // namespace pelmor_lusk
