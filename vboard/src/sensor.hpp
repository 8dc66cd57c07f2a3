// The ICM-42688 as seen over SPI: register banks with their power-on values,
// side effects of reads and writes, the FIFO with its packet formats, and the
// conversion of a physical sample into registers and FIFO bytes. Time and
// interrupts are the board's business; the sensor reports what a byte did.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "sensor/registers.hpp"

namespace pelmor_vboard::detail {

namespace reg = pelmor_lusk::icm42688;

inline constexpr int bank_count = reg::REG_BANK_COUNT;

// Output data rate in Hz of an ODR code; 0 for a reserved code.
double odr_hz(std::uint8_t code);

// One sample as the sensor measured it, in counts.
struct SampleCounts {
  std::array<std::int16_t, 3> accel{};
  std::array<std::int16_t, 3> gyro{};
  std::int8_t fifo_temperature = 0;
  std::int16_t register_temperature = 0;
  std::uint32_t tmst = 0;     // 20-bit counter value at the sample (as configured)
};

// What one byte of SPI traffic asked of the board.
struct ByteEffects {
  bool sampling_changed = false;  // PWR_MGMT0 / ODR changed
  bool soft_reset = false;
  bool strobe = false;            // TMST latch requested
  bool int_status_read = false;
};

class Sensor {
 public:
  void power_on(std::uint8_t who_am_i_value, std::size_t fifo_capacity);

  std::uint8_t bank() const { return static_cast<std::uint8_t>(banks_[0][reg::REG_BANK_SEL] & reg::REG_BANK_SEL_MASK); }
  std::uint8_t peek(int bank_index, std::uint8_t address) const;
  std::uint8_t& raw(int bank_index, std::uint8_t address) {
    return banks_[static_cast<std::size_t>(bank_index)][address & reg::SPI_ADDRESS_MASK];
  }
  const std::array<std::uint8_t, 128>& bank_array(int bank_index) const {
    return banks_[static_cast<std::size_t>(bank_index)];
  }

  // A register read with its side effects (FIFO pop, count latch, clear on read).
  std::uint8_t read(std::uint8_t address, ByteEffects& effects);
  // A register write; returns the content afterwards.
  std::uint8_t write(std::uint8_t address, std::uint8_t value, ByteEffects& effects);

  void set_tmstval(std::uint32_t value);
  // 20-bit counter value presented for a given unwrapped tick count.
  std::uint32_t counter_value(std::uint64_t ticks) const;
  bool tmst_enabled() const { return (banks_[0][reg::TMST_CONFIG] & reg::TMST_CONFIG_EN) != 0; }
  bool tmst_to_regs() const { return (banks_[0][reg::TMST_CONFIG] & reg::TMST_CONFIG_TO_REGS_EN) != 0; }

  // Sampling as PWR_MGMT0 and the ODR fields select it; period 0 when idle.
  double sample_period_ticks() const;
  bool gyro_on() const {
    return (banks_[0][reg::PWR_MGMT0] & reg::PWR_MGMT0_GYRO_MODE_MASK) == reg::PWR_MGMT0_GYRO_LOW_NOISE;
  }
  bool accel_on() const {
    return (banks_[0][reg::PWR_MGMT0] & reg::PWR_MGMT0_ACCEL_MODE_MASK) >= reg::PWR_MGMT0_ACCEL_LOW_POWER;
  }
  // Counts per g and per deg/s at the configured full scale.
  double accel_counts_per_g() const;
  double gyro_counts_per_dps() const;

  // Latest sample into the data registers and INT_STATUS; true when a FIFO
  // packet was appended (false in bypass, with no sensor in FIFO_CONFIG1, or when
  // the stop-on-full FIFO refused it). `lost` counts packets overflowed out.
  bool store_sample(const SampleCounts& sample, bool append_to_fifo, std::uint64_t& lost);
  void flush_fifo();
  std::size_t fifo_level() const { return fifo_size_; }
  bool data_ready_routed() const { return (banks_[0][reg::INT_SOURCE0] & reg::INT_SOURCE0_UI_DRDY_INT1_EN) != 0; }
  bool int1_active_high() const { return (banks_[0][reg::INT_CONFIG] & reg::INT_CONFIG_INT1_ACTIVE_HIGH) != 0; }
  bool int1_latched() const { return (banks_[0][reg::INT_CONFIG] & reg::INT_CONFIG_INT1_LATCHED) != 0; }
  std::uint64_t int1_pulse_ns() const {
    return (banks_[0][reg::INT_CONFIG1] & reg::INT_CONFIG1_TPULSE_8US) != 0 ? 8000 : 100000;
  }

 private:
  std::uint16_t fifo_count_value() const;
  std::uint8_t fifo_pop();
  void fifo_push(const std::uint8_t* bytes, std::size_t n, std::uint64_t& lost);

  std::array<std::array<std::uint8_t, 128>, bank_count> banks_{};
  std::vector<std::uint8_t> fifo_;        // ring
  std::vector<std::uint16_t> packet_sizes_;  // ring of packet lengths, oldest first
  std::size_t packet_head_ = 0;
  std::size_t packet_count_ = 0;
  std::size_t fifo_head_ = 0;
  std::size_t fifo_size_ = 0;
  std::size_t head_consumed_ = 0;          // bytes of the oldest packet already read
  std::uint32_t lost_packets_ = 0;
  bool count_latched_ = false;
  std::uint16_t latched_count_ = 0;
  std::uint32_t previous_fifo_tmst_ = 0;
  bool have_previous_fifo_tmst_ = false;
};

}  // namespace pelmor_vboard::detail
