// The internal per-sample record the worker hands to the callback slot.
#pragma once

#include <cstdint>

namespace pelmor_lusk {

struct ImuSample {
  std::uint64_t event_time_raw_ns = 0;   // matched INT1 event
  std::uint64_t mapped_time_raw_ns = 0;  // sensor timestamp mapped onto RAW
  std::uint64_t sample_index = 0;
  std::uint32_t phase_uncertainty_us = 0;
  std::uint32_t boundary_resyncs = 0;
  std::uint32_t batch_failures = 0;
  std::uint32_t total_drops = 0;
  std::uint32_t tmst_wrap_count = 0;     // saturated
  std::uint16_t fifo_timestamp_low16 = 0;
  double temperature_c = 0.0;
  double accel_mps2[3] = {0.0, 0.0, 0.0};
  double gyro_radps[3] = {0.0, 0.0, 0.0};
  std::int16_t raw_words[7] = {0, 0, 0, 0, 0, 0, 0};  // temperature, accel xyz, gyro xyz
};

}  // namespace pelmor_lusk
