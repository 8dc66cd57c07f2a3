// Fuzzes the FIFO packet parser with arbitrary byte strings. Out-of-bounds reads
// are caught by AddressSanitizer (libFuzzer hands over an exact-size heap copy);
// the checks below hold on every input.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>

#include "sensor/fifo_parser.hpp"

namespace {

using pelmor_lusk::FifoBatch;
using pelmor_lusk::FifoHeaderVerdict;

constexpr std::size_t packet_size = 16;

void check(bool condition, const char* what) {
  if (!condition) {
    std::fprintf(stderr, "fifo parser invariant violated: %s\n", what);
    std::abort();
  }
}

std::uint16_t be16(const std::uint8_t* p) { return static_cast<std::uint16_t>((p[0] << 8U) | p[1]); }

bool starts_with_reason(std::string_view text) {
  for (const char* reason : {"FIFO message packet observed: ", "malformed or truncated FIFO packet: ",
                             "FIFO packet does not match AGT timestamp contract: "}) {
    if (text.starts_with(reason)) return true;
  }
  return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::span<const std::uint8_t> bytes(data, size);
  FifoBatch batch;
  batch.fifo_byte_count = static_cast<std::uint16_t>(size > 0xFFFF ? 0xFFFF : size);
  batch.spi_read_start_raw_ns = 17;
  batch.spi_read_end_raw_ns = 42;

  bool failed = false;
  std::string message;
  try {
    pelmor_lusk::parse_fifo_packets(bytes, batch);
  } catch (const std::runtime_error& error) {
    failed = true;
    message = error.what();
  }

  const std::size_t accepted = batch.packets.size();
  check(batch.accepted_packet_count == accepted, "accepted_packet_count equals the packets parsed");
  check(accepted * packet_size <= size, "accepted packets lie inside the input");
  check(batch.packet_header_valid == (size > 0), "a header is recorded exactly when a byte was examined");
  check(batch.fifo_tmst_valid == (accepted > 0), "a timestamp is recorded exactly when a packet was accepted");
  if (accepted > 0) {
    check(batch.first_packet_header == data[0], "first header is the first byte");
    check(batch.first_fifo_tmst == be16(data + 14), "first timestamp is the first packet's");
    check(batch.last_fifo_tmst == be16(data + accepted * packet_size - 2), "last timestamp is the last accepted");
    check(batch.packets.back().fifo_tmst == batch.last_fifo_tmst, "last timestamp matches the last packet");
  }

  if (!failed) {
    check(size % packet_size == 0, "success only on whole packets");
    check(accepted == size / packet_size, "success parses every packet");
    if (accepted > 0) check(batch.last_packet_header == data[size - packet_size], "last header on success");
    return 0;
  }

  const std::size_t offset = accepted * packet_size;
  check(offset < size, "a failure points at a packet inside the input");
  check(batch.last_packet_header == data[offset], "the rejected header is the last header");
  check(pelmor_lusk::classify_fifo_header(data[offset], size - offset) != FifoHeaderVerdict::accepted,
        "the rejected header is not acceptable");
  check(starts_with_reason(message), "the failure names its reason");
  const std::string suffix = ": " + pelmor_lusk::format_fifo_batch_diagnostic(batch);
  check(message.size() > suffix.size() && message.ends_with(suffix), "the failure carries the batch diagnostic");
  return 0;
}
