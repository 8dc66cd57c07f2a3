// One bounded FIFO drain: byte count, data burst bracketed by RAW readings,
// strict parse.
#pragma once

#include <cstdint>

#include "common/unique_fd.hpp"
#include "sensor/fifo_batch.hpp"

namespace pelmor_lusk {

inline constexpr std::uint16_t max_fifo_read_bytes = 2080;  // 130 packets

// Throws on SPI, clock or format failures; a count above max_fifo_read_bytes
// throws before any data is read.
FifoBatch read_fifo_batch(const UniqueFd& spi);

}  // namespace pelmor_lusk
