// The virtual board's ground truth for a delivered sample.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "pelmor.h"
#include "pelmor_vboard.hpp"

namespace pelmor_test {

// The truth sample a delivered sample stands for: same FIFO timestamp, nearest instant.
inline std::optional<pelmor_vboard::SampleTruth> truth_for(const std::vector<pelmor_vboard::SampleTruth>& truth,
                                                           const pelmor_sample& s) {
  std::optional<pelmor_vboard::SampleTruth> best;
  std::uint64_t best_distance = UINT64_MAX;
  for (const auto& t : truth) {
    if (!t.in_fifo || t.tmst_low16 != s.fifo_timestamp_low16) continue;
    const std::uint64_t d = t.raw_ns > s.mapped_timestamp_raw_ns ? t.raw_ns - s.mapped_timestamp_raw_ns
                                                                  : s.mapped_timestamp_raw_ns - t.raw_ns;
    if (d < best_distance) {
      best_distance = d;
      best = t;
    }
  }
  return best;
}

}  // namespace pelmor_test
