// Heap allocations counted per thread by interposing malloc and its relatives in
// the benchmark executable (the library's operator new reaches them through
// libstdc++). Calls made while the thread is inside the virtual board's device
// emulation (ioctl, poll, read on an emulated descriptor) are counted apart: they
// are the board's bookkeeping, not the library's.
#pragma once

#include <cstdint>

namespace pelmor_lusk::bench {

struct ThreadAllocations {
  std::uint64_t outside_device = 0;  // the library's own (and the caller's)
  std::uint64_t inside_device = 0;   // made by the board while emulating a device call
};

// False when built with a sanitizer, whose allocator must not be replaced.
bool allocation_counting_available() noexcept;

// The calling thread's counts since it started. Never allocates.
ThreadAllocations thread_allocations() noexcept;

}  // namespace pelmor_lusk::bench
