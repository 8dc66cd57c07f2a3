// One line per check: what was found and, when it is not a pass, what to do.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace pelmor_lusk::check {

enum class Status : std::uint8_t { pass, warn, fail };

// "PASS", "WARN", "FAIL".
const char* status_name(Status status) noexcept;

struct CheckResult {
  std::string name;    // short key, e.g. "spidev"
  Status status = Status::pass;
  std::string detail;  // what was found
  std::string remedy;  // set for every warn and fail
};

// "FAIL spidev: /dev/spidev2.0 is absent; remedy: ..." (no remedy part on a pass).
std::string format_line(const CheckResult& result);

// One JSON object: {"checks":[...],"warnings":W,"failures":F}.
std::string format_json(const std::vector<CheckResult>& results);

// 0 when nothing failed, 1 otherwise.
int exit_status(const std::vector<CheckResult>& results) noexcept;

// The p50 and p99 of a sample (nearest rank); zero when it is empty.
struct Spread {
  std::uint64_t p50 = 0;
  std::uint64_t p99 = 0;
  std::uint64_t max = 0;
  std::size_t count = 0;
};
Spread spread_of(std::vector<std::uint64_t> values);

}  // namespace pelmor_lusk::check
