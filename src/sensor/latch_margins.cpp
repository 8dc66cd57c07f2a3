#include "sensor/latch_margins.hpp"

#include "sensor/tmst_snapshot_message.hpp"

namespace pelmor_lusk {

namespace {

std::uint64_t byte_ns(const spi_ioc_transfer& x) {
  return x.speed_hz == 0 ? 0 : 8ULL * 1000000000ULL / x.speed_hz;
}

std::uint64_t stride_ns(const spi_ioc_transfer& x) {
  return byte_ns(x) + std::uint64_t{x.word_delay_usecs} * 1000;
}

}  // namespace

LatchMargins latch_margins(std::span<const spi_ioc_transfer> transfers, std::size_t transfer, std::uint32_t byte) {
  LatchMargins m;
  if (transfer >= transfers.size() || byte >= transfers[transfer].len) return m;
  for (std::size_t i = 0; i < transfers.size(); ++i) {
    const spi_ioc_transfer& x = transfers[i];
    const bool last = i + 1 == transfers.size();
    const std::uint64_t after_transfer =
        std::uint64_t{x.delay_usecs} * 1000 + (x.cs_change != 0 && !last ? spi_cs_change_delay_ns : 0);
    const std::uint64_t whole = x.len == 0 ? 0 : (std::uint64_t{x.len} - 1) * stride_ns(x) + byte_ns(x);
    if (i < transfer) {
      m.before_ns += whole + after_transfer;
    } else if (i == transfer) {
      m.before_ns += std::uint64_t{byte} * stride_ns(x) + byte_ns(x);
      m.after_ns += std::uint64_t{x.len - 1 - byte} * stride_ns(x) + after_transfer;
    } else {
      m.after_ns += whole + after_transfer;
    }
  }
  return m;
}

LatchMargins snapshot_latch_margins() {
  TmstSnapshotMessage message;
  return latch_margins(message.transfers(), 0, 1);
}

}  // namespace pelmor_lusk
