// Small formatting helpers shared by every diagnostic of the library.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace pelmor_lusk {

// "0x" followed by lower-case hex digits without leading zeros ("0x0", "0xf").
std::string hex(std::uint64_t value);

// Writes one whole diagnostic line (the newline is added here) to the standard
// error stream in a single insertion and flushes it, so that lines from different
// threads never interleave mid-line.
void write_diagnostic_line(std::string_view line);

}  // namespace pelmor_lusk
