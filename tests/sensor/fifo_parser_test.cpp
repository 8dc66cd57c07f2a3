#include <gtest/gtest.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "sensor/fifo_parser.hpp"

namespace pelmor_lusk {
namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes packet(std::uint8_t header, std::uint16_t tmst, std::uint8_t fill = 0) {
  Bytes p(16, fill);
  p[0] = header;
  p[14] = static_cast<std::uint8_t>(tmst >> 8U);
  p[15] = static_cast<std::uint8_t>(tmst & 0xFFU);
  return p;
}

Bytes concat(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const Bytes& part : parts) out.insert(out.end(), part.begin(), part.end());
  return out;
}

std::string parse_error(const Bytes& bytes, FifoBatch& batch) {
  try {
    parse_fifo_packets(bytes, batch);
  } catch (const std::runtime_error& error) {
    return error.what();
  }
  ADD_FAILURE() << "parse succeeded";
  return {};
}

TEST(FifoParser, DecodesBigEndianSignedFieldsAndTracksBatchBounds) {
  Bytes first = {0x68, 0x80, 0x00, 0x7F, 0xFF, 0xFF, 0xFE, 0x12, 0x34, 0xED, 0xCC, 0x00, 0x01, 0xE7, 0xAB, 0xCD};
  FifoBatch batch;
  parse_fifo_packets(concat({first, packet(0x64, 0x0102), packet(0x6F, 0xFFFF)}), batch);

  ASSERT_EQ(batch.packets.size(), 3U);
  EXPECT_EQ(batch.accepted_packet_count, 3U);
  const FifoPacket& p = batch.packets[0];
  EXPECT_EQ(p.accel_x, -32768);
  EXPECT_EQ(p.accel_y, 32767);
  EXPECT_EQ(p.accel_z, -2);
  EXPECT_EQ(p.gyro_x, 0x1234);
  EXPECT_EQ(p.gyro_y, -0x1234);
  EXPECT_EQ(p.gyro_z, 1);
  EXPECT_EQ(p.temperature_raw, -25);
  EXPECT_EQ(p.temperature, -25);
  EXPECT_EQ(p.reserved, 0);
  EXPECT_EQ(p.fifo_tmst, 0xABCD);

  EXPECT_TRUE(batch.packet_header_valid);
  EXPECT_EQ(batch.first_packet_header, 0x68);
  EXPECT_EQ(batch.last_packet_header, 0x6F);
  EXPECT_TRUE(batch.fifo_tmst_valid);
  EXPECT_EQ(batch.first_fifo_tmst, 0xABCD);
  EXPECT_EQ(batch.last_fifo_tmst, 0xFFFF);
}

TEST(FifoParser, ClassifiesEveryHeaderShapeByWhetherItsOwnPacketWouldFit) {
  using V = FifoHeaderVerdict;
  struct Case {
    std::uint8_t header;
    std::size_t remaining;
    V verdict;
  };
  const Case cases[] = {
      // Accepted: accel + gyro + some timestamp code, bits 1:0 ignored.
      {0x68, 16, V::accepted}, {0x64, 16, V::accepted}, {0x6C, 200, V::accepted}, {0x6B, 16, V::accepted},
      {0x68, 15, V::truncated},
      // Message packet wins over everything, even with nothing behind it.
      {0x80, 1, V::message_packet}, {0xE8, 16, V::message_packet},
      // Extended 20-byte packet.
      {0x78, 20, V::contract_mismatch}, {0x78, 19, V::truncated}, {0x70, 64, V::truncated},
      {0x58, 64, V::truncated}, {0x38, 64, V::truncated},
      // Single sensor, 8 bytes.
      {0x48, 8, V::contract_mismatch}, {0x28, 8, V::contract_mismatch}, {0x40, 7, V::truncated},
      // Neither sensor.
      {0x08, 64, V::truncated}, {0x00, 64, V::truncated},
      // Both sensors, no timestamp, 14 bytes.
      {0x60, 14, V::contract_mismatch}, {0x63, 13, V::truncated},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(classify_fifo_header(c.header, c.remaining), c.verdict)
        << "header " << int{c.header} << " remaining " << c.remaining;
  }
}

TEST(FifoParser, FailureCarriesTheBatchStateAtTheRejectedPacket) {
  FifoBatch batch;
  batch.fifo_byte_count = 32;
  batch.spi_read_start_raw_ns = 1000;
  batch.spi_read_end_raw_ns = 2500;
  EXPECT_EQ(parse_error(concat({packet(0x68, 513), packet(0x80, 7)}), batch),
            "FIFO message packet observed: fifo_byte_count=32, accepted_packet_count=1, first_packet_header=0x68, "
            "last_packet_header=0x80, packet_header_valid=1, first_fifo_tmst=513, last_fifo_tmst=513, "
            "fifo_tmst_valid=1, spi_read_start_raw_ns=1000, spi_read_end_raw_ns=2500");
  EXPECT_EQ(batch.packets.size(), 1U);
}

TEST(FifoParser, TruncatedTailAndContractMismatchAreDistinguished) {
  FifoBatch tail;
  tail.fifo_byte_count = 24;
  const Bytes short_second = concat({packet(0x68, 1), Bytes{0x68, 0, 0, 0, 0, 0, 0, 0}});
  EXPECT_EQ(parse_error(short_second, tail).rfind("malformed or truncated FIFO packet: fifo_byte_count=24, "
                                                  "accepted_packet_count=1,",
                                                  0),
            0U);

  FifoBatch mismatch;
  mismatch.fifo_byte_count = 16;
  EXPECT_EQ(parse_error(packet(0x60, 9), mismatch),
            "FIFO packet does not match AGT timestamp contract: fifo_byte_count=16, accepted_packet_count=0, "
            "first_packet_header=0x60, last_packet_header=0x60, packet_header_valid=1, first_fifo_tmst=0, "
            "last_fifo_tmst=0, fifo_tmst_valid=0, spi_read_start_raw_ns=0, spi_read_end_raw_ns=0");
}

}  // namespace
}  // namespace pelmor_lusk
