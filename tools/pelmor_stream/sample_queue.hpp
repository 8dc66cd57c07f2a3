// Hands samples from the driver's worker thread (the callback) to the writer
// thread without blocking the worker: a single-producer single-consumer ring.
// A full ring loses the sample and counts it instead of waiting.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

#include <pelmor.h>

namespace pelmor_lusk::stream {

class SampleQueue {
 public:
  // capacity is rounded up to a power of two.
  explicit SampleQueue(std::size_t capacity);

  // Producer side; never blocks, never allocates.
  bool push(const pelmor_sample& sample) noexcept;

  // Consumer side: moves every queued sample to `out` (appended) and returns how
  // many. Blocks until at least one sample is queued or close() was called.
  std::size_t wait_and_pop_all(std::vector<pelmor_sample>& out);

  // Wakes the consumer for good; samples still queued can be popped.
  void close() noexcept;
  bool closed() const noexcept { return closed_.load(std::memory_order_acquire); }

  std::uint64_t overruns() const noexcept { return overruns_.load(std::memory_order_relaxed); }

 private:
  std::vector<pelmor_sample> slots_;
  std::uint64_t mask_;
  alignas(64) std::atomic<std::uint64_t> head_{0};  // next slot to write
  alignas(64) std::atomic<std::uint64_t> tail_{0};  // next slot to read
  alignas(64) std::atomic<std::uint32_t> wakeups_{0};
  std::atomic<bool> closed_{false};
  std::atomic<std::uint64_t> overruns_{0};
};

}  // namespace pelmor_lusk::stream
