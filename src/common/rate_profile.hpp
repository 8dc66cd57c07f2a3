// The two supported output rates and everything that depends on them.
#pragma once

#include <cstdint>

namespace pelmor_lusk {

struct RateProfile {
  std::uint32_t rate_hz;              // delivered sample rate
  std::uint32_t odr_hz;               // sensor output data rate (FIFO samples per second)
  std::uint32_t odr_code;             // GYRO_CONFIG0 / ACCEL_CONFIG0 ODR field
  std::uint64_t nominal_step_ticks;   // sensor sample period in 1 us TMST ticks
  std::uint64_t min_step_ticks;       // step gate: half a period
  std::uint64_t max_step_ticks;       // step gate: one and a half periods
  std::uint64_t phase_calibrated;     // non-zero enables the phase error check
  std::uint64_t reserved_u64[2];
  std::uint32_t pairing_timeout_ms;   // wait for a missing INT1 event while pairing
  std::uint32_t sample_off_settle_ms;
  std::uint32_t low_noise_settle_ms;
  std::uint32_t reserved_u32;
};

// 25 Hz is taken one to one from a 25 Hz sensor stream; 30 Hz is decimated from
// 200 Hz. Neither ships a phase calibration.
inline constexpr RateProfile rate_profile_25hz{25, 25, 0x0A, 40000, 20000, 60000, 0, {0, 0}, 45, 41, 41, 0};
inline constexpr RateProfile rate_profile_30hz{30, 200, 0x07, 5000, 2500, 7500, 0, {0, 0}, 10, 6, 20, 0};

// Throws std::invalid_argument "unsupported sample_rate_hz; expected 25 or 30".
const RateProfile& rate_profile_for(std::uint32_t sample_rate_hz);

}  // namespace pelmor_lusk
