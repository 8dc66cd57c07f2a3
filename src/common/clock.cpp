#include "common/clock.hpp"

#include <cerrno>

#include "common/system_error_text.hpp"

namespace pelmor_lusk {

std::int64_t read_clock_ns(clockid_t clock_id, const char* clock_name) {
  timespec ts{};
  if (::clock_gettime(clock_id, &ts) != 0) {
    throw_errno_error(std::string("failed to read ") + clock_name);
  }
  return static_cast<std::int64_t>(ts.tv_sec) * 1000000000LL + static_cast<std::int64_t>(ts.tv_nsec);
}

std::uint64_t read_raw_ns() {
  return static_cast<std::uint64_t>(read_clock_ns(CLOCK_MONOTONIC_RAW, "CLOCK_MONOTONIC_RAW"));
}

void sleep_ns(std::int64_t ns) {
  if (ns <= 0) return;
  timespec request{static_cast<time_t>(ns / 1000000000LL), static_cast<long>(ns % 1000000000LL)};
  timespec remaining{};
  while (::nanosleep(&request, &remaining) != 0) {
    if (errno != EINTR) return;
    request = remaining;
  }
}

void sleep_ms(std::int32_t ms) { sleep_ns(static_cast<std::int64_t>(ms) * 1000000LL); }

}  // namespace pelmor_lusk
