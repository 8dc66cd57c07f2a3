// Reading the board: GPIO chips and the INT1 line, the sensor's spidev node, and
// a short stream of data-ready edges and TMST snapshots.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "common/rate_profile.hpp"
#include "judgements.hpp"

namespace pelmor_lusk::check {

// Every /dev/gpiochip* entry, in directory order (the order the driver searches).
std::vector<ChipFacts> probe_chips();

// Line info of `offset` on the chip named `chip` (gpiochipN).
LineFacts probe_line(const ChipFacts& chip, std::uint32_t offset);

SpidevFacts probe_spidev(const std::string& path);

// Reads WHO_AM_I through the driver's own SPI setup; throws with the driver's text.
std::uint8_t read_who_am_i();

// Configures the sensor as a start does, counts data-ready edges and takes TMST
// snapshots for `duration_ns`, then turns data-ready off and empties the FIFO.
StreamFacts stream_edges(const RateProfile& profile, std::uint64_t duration_ns);

}  // namespace pelmor_lusk::check
