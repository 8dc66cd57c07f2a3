// Held CLOCK_MONOTONIC reads, for the bridge-stretch fault: armed on the thread
// that took an INT1 event, served by the interposed clock_gettime on that thread
// only, so that nothing else in the process (the board, a test's clocks) slows.
#pragma once

#include <cstdint>

namespace pelmor_vboard::detail {

// The next two CLOCK_MONOTONIC reads of this thread each return, then wait ns.
void hold_next_monotonic_reads(std::uint64_t ns) noexcept;

}  // namespace pelmor_vboard::detail
