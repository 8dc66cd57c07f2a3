// What the board keeps for the control API: counters, the SPI log, line
// requests and the ground truth of samples and edges. The parts write here; the
// control API reads it straight off the board, under the board's lock.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "pelmor_vboard.hpp"

namespace pelmor_vboard::detail {

template <typename T>
class Ring {
 public:
  void reset(std::size_t capacity) {
    items_.assign(capacity, T{});
    total_ = 0;
    floor_ = 0;
  }
  void forget() { floor_ = total_; }  // keep numbering, drop what is kept
  T* push() {
    if (items_.empty()) {
      ++total_;
      return nullptr;
    }
    T* slot = &items_[total_ % items_.size()];
    ++total_;
    return slot;
  }
  T* find(std::uint64_t index) {
    if (index >= total_ || index < floor_ || items_.empty() || total_ - index > items_.size()) return nullptr;
    return &items_[index % items_.size()];
  }
  std::uint64_t total() const { return total_; }
  std::uint64_t first_kept() const {
    const std::uint64_t ring = total_ > items_.size() ? total_ - items_.size() : 0;
    return ring > floor_ ? ring : floor_;
  }

 private:
  std::vector<T> items_;
  std::uint64_t total_ = 0;
  std::uint64_t floor_ = 0;
};

// A record's vectors keep their capacity from one lap of the ring to the next;
// the counts say how much of them belongs to this message.
struct LogSlot {
  SpiMessageRecord record;
  std::size_t transfers = 0;
  std::size_t writes = 0;
};

struct Records {
  Counters counters{};
  Ring<LogSlot> spi_log;
  Ring<SampleTruth> truth;
  Ring<EdgeTruth> edge_truth;
  Ring<std::int64_t> lateness;
  std::vector<LineRequestRecord> line_records;

  void reset_records(const Config& config) {
    counters = Counters{};
    spi_log.reset(config.spi_log_capacity);
    truth.reset(config.truth_capacity);
    edge_truth.reset(config.truth_capacity);
    lateness.reset(8192);
    line_records.clear();
  }
};

}  // namespace pelmor_vboard::detail
