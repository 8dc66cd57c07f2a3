// Strict parser of FIFO bytes into 16-byte accel + gyro + temperature +
// timestamp packets. Pure: no device access, no clock.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "sensor/fifo_batch.hpp"

namespace pelmor_lusk {

enum class FifoHeaderVerdict {
  accepted,           // a 16-byte AGT packet with timestamp that fits in the bytes left
  message_packet,     // "FIFO message packet observed"
  contract_mismatch,  // "FIFO packet does not match AGT timestamp contract"
  truncated,          // "malformed or truncated FIFO packet"
};

// Judges the packet starting with header, with remaining bytes left from it
// (header included). A rejected shape whose own packet would fit is a contract
// mismatch; one whose packet would not fit is a truncation.
FifoHeaderVerdict classify_fifo_header(std::uint8_t header, std::size_t remaining);

const char* fifo_verdict_text(FifoHeaderVerdict verdict);

// Decodes the 16 big-endian packet bytes at packet (header at packet[0]).
FifoPacket decode_fifo_packet(std::span<const std::uint8_t, 16> packet);

// Parses every packet of bytes into batch (whose count and RAW instants the
// caller has set). On the first rejected packet throws std::runtime_error
// "<reason>: <diagnostic>" and leaves batch in its state at the failure.
void parse_fifo_packets(std::span<const std::uint8_t> bytes, FifoBatch& batch);

// "fifo_byte_count=.., accepted_packet_count=.., ..., spi_read_end_raw_ns=..".
std::string format_fifo_batch_diagnostic(const FifoBatch& batch);

}  // namespace pelmor_lusk
