#include "sample_queue.hpp"

#include <bit>

namespace pelmor_lusk::stream {

SampleQueue::SampleQueue(std::size_t capacity)
    : slots_(std::bit_ceil(capacity < 2 ? std::size_t{2} : capacity)), mask_(slots_.size() - 1) {}

bool SampleQueue::push(const pelmor_sample& sample) noexcept {
  const std::uint64_t head = head_.load(std::memory_order_relaxed);
  if (head - tail_.load(std::memory_order_acquire) >= slots_.size()) {
    overruns_.fetch_add(1, std::memory_order_relaxed);
    return false;
  }
  slots_[head & mask_] = sample;
  head_.store(head + 1, std::memory_order_release);
  wakeups_.fetch_add(1, std::memory_order_release);
  wakeups_.notify_one();
  return true;
}

std::size_t SampleQueue::wait_and_pop_all(std::vector<pelmor_sample>& out) {
  for (;;) {
    const std::uint32_t seen = wakeups_.load(std::memory_order_acquire);
    const std::uint64_t tail = tail_.load(std::memory_order_relaxed);
    const std::uint64_t head = head_.load(std::memory_order_acquire);
    if (head != tail) {
      for (std::uint64_t i = tail; i != head; ++i) out.push_back(slots_[i & mask_]);
      tail_.store(head, std::memory_order_release);
      return static_cast<std::size_t>(head - tail);
    }
    if (closed_.load(std::memory_order_acquire)) return 0;
    wakeups_.wait(seen, std::memory_order_acquire);
  }
}

void SampleQueue::close() noexcept {
  closed_.store(true, std::memory_order_release);
  wakeups_.fetch_add(1, std::memory_order_release);
  wakeups_.notify_all();
}

}  // namespace pelmor_lusk::stream
