// Every check in order, each skipped (with the reason) when what it needs failed.
#pragma once

#include <cstdint>
#include <vector>

#include "check_result.hpp"

namespace pelmor_lusk::check {

struct CheckOptions {
  std::uint32_t rate_hz = 25;               // selects the sensor's data rate, as the driver's config does
  std::uint64_t stream_ns = 1'000'000'000;  // how long INT1 and the snapshots are watched
};

std::vector<CheckResult> run_checks(const CheckOptions& options);

}  // namespace pelmor_lusk::check
