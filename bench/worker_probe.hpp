// What the benchmark sees of the library's calls from inside its own process, by
// interposing in the executable (ahead of the virtual board and libc):
// - heap allocations per thread (malloc and its relatives; the library's
//   operator new reaches them through libstdc++), with the calls made while the
//   thread is inside the board's device emulation (ioctl, poll, read) counted
//   apart: those are the board's bookkeeping, not the library's;
// - the RAW instants around each three-transfer SPI message (the TMST snapshot)
//   as the library's caller sees them, to compare with the board's own bounds.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace pelmor_lusk::bench {

struct ThreadAllocations {
  std::uint64_t outside_device = 0;  // the library's own (and the caller's)
  std::uint64_t inside_device = 0;   // made by the board while emulating a device call
};

// False when built with a sanitizer, whose allocator and interceptors must stay.
bool probe_available() noexcept;

// The calling thread's counts since it started. Never allocates.
ThreadAllocations thread_allocations() noexcept;

struct CallSpan {
  std::uint64_t raw_before_ns = 0;
  std::uint64_t raw_after_ns = 0;
};

// The snapshot messages seen since the last call, oldest first (at most 65536
// are kept between two calls), and forgets them.
std::vector<CallSpan> take_snapshot_spans();

}  // namespace pelmor_lusk::bench
