// One bounded read of the sensor FIFO and its parsed 16-byte packets.
#pragma once

#include <cstdint>
#include <vector>

namespace pelmor_lusk {

struct FifoPacket {
  std::int16_t temperature = 0;  // temperature byte widened with sign
  std::int16_t accel_x = 0;
  std::int16_t accel_y = 0;
  std::int16_t accel_z = 0;
  std::int16_t gyro_x = 0;
  std::int16_t gyro_y = 0;
  std::int16_t gyro_z = 0;
  std::int8_t temperature_raw = 0;
  std::uint8_t reserved = 0;
  std::uint16_t fifo_tmst = 0;   // low 16 bits of the 1 us counter
};

struct FifoBatch {
  std::vector<FifoPacket> packets;
  std::uint16_t fifo_byte_count = 0;
  std::uint32_t accepted_packet_count = 0;
  std::uint8_t first_packet_header = 0;
  std::uint8_t last_packet_header = 0;
  std::uint16_t first_fifo_tmst = 0;
  std::uint16_t last_fifo_tmst = 0;
  std::uint64_t spi_read_start_raw_ns = 0;
  std::uint64_t spi_read_end_raw_ns = 0;
  bool packet_header_valid = false;
  bool fifo_tmst_valid = false;
};

}  // namespace pelmor_lusk
