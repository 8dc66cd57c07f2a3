// Host clocks and sleeps. Every host time of the library is CLOCK_MONOTONIC_RAW
// unless a name says otherwise.
#pragma once

#include <time.h>

#include <cstdint>

namespace pelmor_lusk {

// tv_sec * 1e9 + tv_nsec; throws "failed to read <clock_name>, errno=..." on failure.
std::int64_t read_clock_ns(clockid_t clock_id, const char* clock_name);

// CLOCK_MONOTONIC_RAW as an unsigned count; throws
// "failed to read CLOCK_MONOTONIC_RAW, errno=..." on failure.
std::uint64_t read_raw_ns();

// nanosleep that resumes with the remaining time after a signal; any other
// failure ends the sleep early without error. Zero or negative sleeps nothing.
void sleep_ns(std::int64_t ns);
void sleep_ms(std::int32_t ms);

}  // namespace pelmor_lusk
