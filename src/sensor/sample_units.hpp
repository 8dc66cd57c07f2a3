// A FIFO packet's raw counts in SI units, at the sensor's configured full
// scales (±16 g, ±2000 dps).
#pragma once

#include <cstdint>

#include "sensor/fifo_batch.hpp"

namespace pelmor_lusk {

inline constexpr double accel_mps2_per_count = 0.00048828125 * 9.80665;  // 2048 counts per g
inline constexpr double gyro_counts_per_dps = 16.4;
inline constexpr double rad_per_degree = 0.017453292519943295;

// The value an axis reads while the sensor has no valid data yet.
inline constexpr std::int16_t axis_sentinel = -32768;

struct SiReading {
  double temperature_c = 0.0;
  double accel_mps2[3] = {0.0, 0.0, 0.0};
  double gyro_radps[3] = {0.0, 0.0, 0.0};
};

inline SiReading to_si_units(const FifoPacket& p) noexcept {
  SiReading r;
  r.temperature_c = static_cast<double>(p.temperature_raw) / 2.07 + 25.0;
  r.accel_mps2[0] = p.accel_x * accel_mps2_per_count;
  r.accel_mps2[1] = p.accel_y * accel_mps2_per_count;
  r.accel_mps2[2] = p.accel_z * accel_mps2_per_count;
  r.gyro_radps[0] = p.gyro_x / gyro_counts_per_dps * rad_per_degree;
  r.gyro_radps[1] = p.gyro_y / gyro_counts_per_dps * rad_per_degree;
  r.gyro_radps[2] = p.gyro_z / gyro_counts_per_dps * rad_per_degree;
  return r;
}

inline bool has_axis_sentinel(const FifoPacket& p) noexcept {
  return p.accel_x == axis_sentinel || p.accel_y == axis_sentinel || p.accel_z == axis_sentinel ||
         p.gyro_x == axis_sentinel || p.gyro_y == axis_sentinel || p.gyro_z == axis_sentinel;
}

}  // namespace pelmor_lusk
