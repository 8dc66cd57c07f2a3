#include "sensor/fifo_parser.hpp"

#include <exception>
#include <stdexcept>

#include "common/text.hpp"
#include "sensor/registers.hpp"

namespace pelmor_lusk {

namespace {

std::int16_t be_i16(std::uint8_t high, std::uint8_t low) {
  return static_cast<std::int16_t>(static_cast<std::uint16_t>((high << 8U) | low));
}

FifoHeaderVerdict fits_or_truncated(std::size_t remaining, std::size_t own_length) {
  return remaining >= own_length ? FifoHeaderVerdict::contract_mismatch : FifoHeaderVerdict::truncated;
}

}  // namespace

FifoHeaderVerdict classify_fifo_header(std::uint8_t header, std::size_t remaining) {
  namespace reg = icm42688;
  const bool accel = (header & reg::FIFO_HEADER_ACCEL) != 0;
  const bool gyro = (header & reg::FIFO_HEADER_GYRO) != 0;
  const bool timestamp = (header & reg::FIFO_HEADER_TIMESTAMP) != 0;

  if ((header & reg::FIFO_HEADER_MSG) != 0) return FifoHeaderVerdict::message_packet;
  if ((header & reg::FIFO_HEADER_20BIT) != 0) {
    if (!timestamp || !accel || !gyro) return FifoHeaderVerdict::truncated;
    return fits_or_truncated(remaining, reg::FIFO_PACKET_EXTENDED);
  }
  if (accel != gyro) return fits_or_truncated(remaining, reg::FIFO_PACKET_SINGLE_SENSOR);
  if (!accel) return FifoHeaderVerdict::truncated;
  if (!timestamp) return fits_or_truncated(remaining, reg::FIFO_PACKET_NO_TIMESTAMP);
  if (remaining < reg::FIFO_PACKET_ACCEL_GYRO_TMST) return FifoHeaderVerdict::truncated;
  return FifoHeaderVerdict::accepted;
}

const char* fifo_verdict_text(FifoHeaderVerdict verdict) {
  switch (verdict) {
    case FifoHeaderVerdict::accepted:
      return "FIFO packet accepted";
    case FifoHeaderVerdict::message_packet:
      return "FIFO message packet observed";
    case FifoHeaderVerdict::contract_mismatch:
      return "FIFO packet does not match AGT timestamp contract";
    case FifoHeaderVerdict::truncated:
      break;
  }
  return "malformed or truncated FIFO packet";
}

FifoPacket decode_fifo_packet(std::span<const std::uint8_t, 16> p) {
  FifoPacket packet;
  packet.accel_x = be_i16(p[1], p[2]);
  packet.accel_y = be_i16(p[3], p[4]);
  packet.accel_z = be_i16(p[5], p[6]);
  packet.gyro_x = be_i16(p[7], p[8]);
  packet.gyro_y = be_i16(p[9], p[10]);
  packet.gyro_z = be_i16(p[11], p[12]);
  packet.temperature_raw = static_cast<std::int8_t>(p[13]);
  packet.temperature = packet.temperature_raw;
  packet.reserved = 0;
  packet.fifo_tmst = static_cast<std::uint16_t>((p[14] << 8U) | p[15]);
  return packet;
}

void parse_fifo_packets(std::span<const std::uint8_t> bytes, FifoBatch& batch) {
  constexpr std::size_t packet_size = icm42688::FIFO_PACKET_ACCEL_GYRO_TMST;
  try {
    std::size_t offset = 0;
    while (offset < bytes.size()) {
      const std::uint8_t header = bytes[offset];
      if (!batch.packet_header_valid) {
        batch.first_packet_header = header;
        batch.packet_header_valid = true;
      }
      batch.last_packet_header = header;

      const FifoHeaderVerdict verdict = classify_fifo_header(header, bytes.size() - offset);
      if (verdict != FifoHeaderVerdict::accepted) throw std::runtime_error(fifo_verdict_text(verdict));

      const FifoPacket packet = decode_fifo_packet(bytes.subspan(offset).first<packet_size>());
      if (!batch.fifo_tmst_valid) {
        batch.first_fifo_tmst = packet.fifo_tmst;
        batch.fifo_tmst_valid = true;
      }
      batch.last_fifo_tmst = packet.fifo_tmst;
      batch.packets.push_back(packet);
      batch.accepted_packet_count = static_cast<std::uint32_t>(batch.packets.size());
      offset += packet_size;
    }
  } catch (const std::exception& error) {
    throw std::runtime_error(std::string(error.what()) + ": " + format_fifo_batch_diagnostic(batch));
  }
}

std::string format_fifo_batch_diagnostic(const FifoBatch& batch) {
  std::string text;
  text += "fifo_byte_count=" + std::to_string(batch.fifo_byte_count);
  text += ", accepted_packet_count=" + std::to_string(batch.accepted_packet_count);
  text += ", first_packet_header=" + hex(batch.first_packet_header);
  text += ", last_packet_header=" + hex(batch.last_packet_header);
  text += ", packet_header_valid=" + std::to_string(batch.packet_header_valid ? 1 : 0);
  text += ", first_fifo_tmst=" + std::to_string(batch.first_fifo_tmst);
  text += ", last_fifo_tmst=" + std::to_string(batch.last_fifo_tmst);
  text += ", fifo_tmst_valid=" + std::to_string(batch.fifo_tmst_valid ? 1 : 0);
  text += ", spi_read_start_raw_ns=" + std::to_string(batch.spi_read_start_raw_ns);
  text += ", spi_read_end_raw_ns=" + std::to_string(batch.spi_read_end_raw_ns);
  return text;
}

}  // namespace pelmor_lusk
