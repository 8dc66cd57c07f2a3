#include "sensor.hpp"

#include <algorithm>

namespace pelmor_vboard::detail {

namespace {

// Bank 0 registers that hold something other than zero after power-on.
constexpr std::pair<std::uint8_t, std::uint8_t> bank0_reset_values[] = {
    {reg::DRIVE_CONFIG, 0x05},
    {reg::INT_STATUS, 0x10},          // RESET_DONE
    {reg::INTF_CONFIG0, 0x30},        // big-endian count and data, count in bytes
    {reg::INTF_CONFIG1, 0x91},
    {reg::GYRO_CONFIG0, 0x06},        // 2000 dps, 1 kHz
    {reg::ACCEL_CONFIG0, 0x06},       // 16 g, 1 kHz
    {reg::GYRO_CONFIG1, 0x16},
    {reg::GYRO_ACCEL_CONFIG0, 0x11},
    {reg::ACCEL_CONFIG1, 0x0D},
    {reg::TMST_CONFIG, 0x23},         // counter on, FSYNC bit, bit 5 reserved set
    {reg::APEX_CONFIG0, 0x82},
    {reg::FSYNC_CONFIG, 0x10},
    {reg::INT_CONFIG1, 0x10},         // asynchronous reset
    {reg::INT_SOURCE0, 0x10},         // reset done to INT1
};

bool bank0_read_only(std::uint8_t address) {
  return (address >= reg::TEMP_DATA1 && address <= reg::INT_STATUS3) || address == reg::FIFO_LOST_PKT0 ||
         address == reg::FIFO_LOST_PKT1 || address == reg::WHO_AM_I;
}

constexpr std::uint8_t self_clearing_path_resets = reg::SIGNAL_PATH_RESET_FIFO_FLUSH |
                                                   reg::SIGNAL_PATH_RESET_TMST_STROBE |
                                                   reg::SIGNAL_PATH_RESET_ABORT_AND_RESET;

void put16(std::uint8_t* out, std::int32_t value, bool big_endian) {
  const auto v = static_cast<std::uint16_t>(value);
  out[big_endian ? 0 : 1] = static_cast<std::uint8_t>(v >> 8);
  out[big_endian ? 1 : 0] = static_cast<std::uint8_t>(v & 0xFF);
}

}  // namespace

double odr_hz(std::uint8_t code) {
  switch (code & reg::CONFIG0_ODR_MASK) {
    case 1: return 32000.0;
    case 2: return 16000.0;
    case 3: return 8000.0;
    case 4: return 4000.0;
    case 5: return 2000.0;
    case 6: return 1000.0;
    case 7: return 200.0;
    case 8: return 100.0;
    case 9: return 50.0;
    case 10: return 25.0;
    case 11: return 12.5;
    case 12: return 6.25;
    case 13: return 3.125;
    case 14: return 1.5625;
    case 15: return 500.0;
    default: return 0.0;
  }
}

void Sensor::power_on(std::uint8_t who_am_i_value, std::size_t fifo_capacity) {
  for (auto& b : banks_) b.fill(0);
  for (const auto& [address, value] : bank0_reset_values) banks_[0][address] = value;
  banks_[0][reg::WHO_AM_I] = who_am_i_value;
  fifo_.assign(std::max<std::size_t>(fifo_capacity, 1), 0);
  packet_sizes_.assign(fifo_.size(), 0);
  packet_head_ = packet_count_ = 0;
  fifo_head_ = fifo_size_ = head_consumed_ = 0;
  lost_packets_ = 0;
  count_latched_ = false;
  latched_count_ = 0;
  have_previous_fifo_tmst_ = false;
  previous_fifo_tmst_ = 0;
}

std::uint8_t Sensor::peek(int bank_index, std::uint8_t address) const {
  if (bank_index < 0 || bank_index >= bank_count) return 0;
  if (address == reg::REG_BANK_SEL) return banks_[0][reg::REG_BANK_SEL];
  return banks_[static_cast<std::size_t>(bank_index)][address & reg::SPI_ADDRESS_MASK];
}

std::uint16_t Sensor::fifo_count_value() const {
  const bool in_records = (banks_[0][reg::INTF_CONFIG0] & reg::INTF_CONFIG0_FIFO_COUNT_RECORDS) != 0;
  const std::size_t value = in_records ? packet_count_ : fifo_size_;
  return static_cast<std::uint16_t>(std::min<std::size_t>(value, 0xFFFF));
}

std::uint8_t Sensor::fifo_pop() {
  if (fifo_size_ == 0) return reg::FIFO_HEADER_MSG;  // empty marker
  const std::uint8_t byte = fifo_[fifo_head_];
  fifo_head_ = (fifo_head_ + 1) % fifo_.size();
  --fifo_size_;
  if (++head_consumed_ >= packet_sizes_[packet_head_]) {
    packet_head_ = (packet_head_ + 1) % packet_sizes_.size();
    --packet_count_;
    head_consumed_ = 0;
  }
  return byte;
}

void Sensor::fifo_push(const std::uint8_t* bytes, std::size_t n, std::uint64_t& lost) {
  if (n > fifo_.size()) {
    ++lost;
    ++lost_packets_;
    return;
  }
  const std::uint8_t mode = banks_[0][reg::FIFO_CONFIG] & reg::FIFO_CONFIG_MODE_MASK;
  if (fifo_size_ + n > fifo_.size()) {
    banks_[0][reg::INT_STATUS] |= reg::INT_STATUS_FIFO_FULL;
    if (mode >= reg::FIFO_CONFIG_STOP_ON_FULL) {  // keeps the old data
      ++lost;
      ++lost_packets_;
      return;
    }
    while (fifo_size_ + n > fifo_.size() && packet_count_ > 0) {
      const std::size_t rest = packet_sizes_[packet_head_] - head_consumed_;
      fifo_head_ = (fifo_head_ + rest) % fifo_.size();
      fifo_size_ -= rest;
      packet_head_ = (packet_head_ + 1) % packet_sizes_.size();
      --packet_count_;
      head_consumed_ = 0;
      ++lost;
      ++lost_packets_;
    }
  }
  std::size_t tail = (fifo_head_ + fifo_size_) % fifo_.size();
  for (std::size_t i = 0; i < n; ++i) {
    fifo_[tail] = bytes[i];
    tail = (tail + 1) % fifo_.size();
  }
  fifo_size_ += n;
  packet_sizes_[(packet_head_ + packet_count_) % packet_sizes_.size()] = static_cast<std::uint16_t>(n);
  ++packet_count_;
}

void Sensor::flush_fifo() {
  fifo_head_ = fifo_size_ = head_consumed_ = 0;
  packet_head_ = packet_count_ = 0;
  lost_packets_ = 0;
  count_latched_ = false;
  have_previous_fifo_tmst_ = false;
}

std::uint8_t Sensor::read(std::uint8_t address, ByteEffects& effects) {
  address &= reg::SPI_ADDRESS_MASK;
  const std::uint8_t b = bank();
  if (address == reg::REG_BANK_SEL) return banks_[0][reg::REG_BANK_SEL];
  if (b >= bank_count) return 0;
  if (b != 0) return banks_[b][address];
  const bool count_big_endian = (banks_[0][reg::INTF_CONFIG0] & reg::INTF_CONFIG0_COUNT_BIG_ENDIAN) != 0;
  switch (address) {
    case reg::INT_STATUS: {
      const std::uint8_t value = banks_[0][address];
      banks_[0][address] = 0;
      effects.int_status_read = true;
      return value;
    }
    case reg::FIFO_COUNTH: {
      latched_count_ = fifo_count_value();
      count_latched_ = true;
      return static_cast<std::uint8_t>(count_big_endian ? latched_count_ >> 8 : latched_count_ & 0xFF);
    }
    case reg::FIFO_COUNTL: {
      const std::uint16_t count = count_latched_ ? latched_count_ : fifo_count_value();
      count_latched_ = false;
      return static_cast<std::uint8_t>(count_big_endian ? count & 0xFF : count >> 8);
    }
    case reg::FIFO_DATA:
      return fifo_pop();
    case reg::FIFO_LOST_PKT0:
      return static_cast<std::uint8_t>(std::min<std::uint32_t>(lost_packets_, 0xFFFF) & 0xFF);
    case reg::FIFO_LOST_PKT1:
      return static_cast<std::uint8_t>(std::min<std::uint32_t>(lost_packets_, 0xFFFF) >> 8);
    default:
      return banks_[0][address];
  }
}

std::uint8_t Sensor::write(std::uint8_t address, std::uint8_t value, ByteEffects& effects) {
  address &= reg::SPI_ADDRESS_MASK;
  if (address == reg::REG_BANK_SEL) {
    banks_[0][reg::REG_BANK_SEL] = value & reg::REG_BANK_SEL_MASK;
    return banks_[0][reg::REG_BANK_SEL];
  }
  const std::uint8_t b = bank();
  if (b >= bank_count) return 0;
  if (b == 1) {
    if (address >= reg::TMSTVAL0 && address <= reg::TMSTVAL0 + 2) return banks_[1][address];
    banks_[1][address] = value;
    return value;
  }
  if (b != 0) {
    banks_[b][address] = value;
    return value;
  }
  if (bank0_read_only(address)) return banks_[0][address];
  switch (address) {
    case reg::DEVICE_CONFIG:
      banks_[0][address] = value & static_cast<std::uint8_t>(~reg::DEVICE_CONFIG_SOFT_RESET);  // clears itself
      if ((value & reg::DEVICE_CONFIG_SOFT_RESET) != 0) effects.soft_reset = true;
      return banks_[0][address];
    case reg::SIGNAL_PATH_RESET:
      if ((value & (reg::SIGNAL_PATH_RESET_FIFO_FLUSH | reg::SIGNAL_PATH_RESET_ABORT_AND_RESET)) != 0) flush_fifo();
      if ((value & reg::SIGNAL_PATH_RESET_TMST_STROBE) != 0) effects.strobe = true;
      banks_[0][address] = value & static_cast<std::uint8_t>(~self_clearing_path_resets);
      return banks_[0][address];
    case reg::FIFO_CONFIG:
      banks_[0][address] = value;
      if ((value & reg::FIFO_CONFIG_MODE_MASK) == reg::FIFO_CONFIG_BYPASS) flush_fifo();  // bypass holds nothing
      return value;
    case reg::PWR_MGMT0:
    case reg::GYRO_CONFIG0:
    case reg::ACCEL_CONFIG0:
      if (banks_[0][address] != value) effects.sampling_changed = true;
      banks_[0][address] = value;
      return value;
    default:
      banks_[0][address] = value;
      return value;
  }
}

void Sensor::set_tmstval(std::uint32_t value) {
  banks_[1][reg::TMSTVAL0] = static_cast<std::uint8_t>(value & 0xFF);
  banks_[1][reg::TMSTVAL0 + 1] = static_cast<std::uint8_t>((value >> 8) & 0xFF);
  banks_[1][reg::TMSTVAL0 + 2] = static_cast<std::uint8_t>((value >> 16) & reg::TMSTVAL2_MASK);
}

std::uint32_t Sensor::counter_value(std::uint64_t ticks) const {
  const bool coarse = (banks_[0][reg::TMST_CONFIG] & reg::TMST_CONFIG_RES_16US) != 0;
  return static_cast<std::uint32_t>((coarse ? ticks / 16 : ticks) & reg::TMST_COUNTER_MASK);
}

double Sensor::sample_period_ticks() const {
  double hz = 0.0;
  if (gyro_on()) hz = odr_hz(banks_[0][reg::GYRO_CONFIG0]);
  if (accel_on()) hz = std::max(hz, odr_hz(banks_[0][reg::ACCEL_CONFIG0]));
  return hz > 0.0 ? 1e6 / hz : 0.0;
}

double Sensor::accel_counts_per_g() const {
  const unsigned fs = (banks_[0][reg::ACCEL_CONFIG0] & reg::ACCEL_CONFIG0_FS_SEL_MASK) >> reg::CONFIG0_FS_SEL_SHIFT;
  return 2048.0 * static_cast<double>(1U << fs);
}

double Sensor::gyro_counts_per_dps() const {
  const unsigned fs = (banks_[0][reg::GYRO_CONFIG0] & reg::GYRO_CONFIG0_FS_SEL_MASK) >> reg::CONFIG0_FS_SEL_SHIFT;
  return 16.4 * static_cast<double>(1U << fs);
}

bool Sensor::store_sample(const SampleCounts& s, bool append_to_fifo, std::uint64_t& lost) {
  const bool big_endian = (banks_[0][reg::INTF_CONFIG0] & reg::INTF_CONFIG0_DATA_BIG_ENDIAN) != 0;
  put16(&banks_[0][reg::TEMP_DATA1], s.register_temperature, big_endian);
  for (std::size_t i = 0; i < 3; ++i) put16(&banks_[0][reg::ACCEL_DATA_X1 + 2 * i], s.accel[i], big_endian);
  for (std::size_t i = 0; i < 3; ++i) put16(&banks_[0][reg::GYRO_DATA_X1 + 2 * i], s.gyro[i], big_endian);
  banks_[0][reg::INT_STATUS] |= reg::INT_STATUS_DATA_RDY;

  const std::uint8_t mode = banks_[0][reg::FIFO_CONFIG] & reg::FIFO_CONFIG_MODE_MASK;
  const std::uint8_t contents = banks_[0][reg::FIFO_CONFIG1];
  const bool with_accel = (contents & reg::FIFO_CONFIG1_ACCEL_EN) != 0;
  const bool with_gyro = (contents & reg::FIFO_CONFIG1_GYRO_EN) != 0;
  if (!append_to_fifo || mode == reg::FIFO_CONFIG_BYPASS || (!with_accel && !with_gyro)) return false;

  std::uint32_t stamp = tmst_enabled() ? s.tmst : 0;
  if ((banks_[0][reg::TMST_CONFIG] & reg::TMST_CONFIG_DELTA_EN) != 0) {  // since the previous packet
    const std::uint32_t delta =
        have_previous_fifo_tmst_ ? ((s.tmst - previous_fifo_tmst_) & reg::TMST_COUNTER_MASK) : 0;
    previous_fifo_tmst_ = s.tmst;
    have_previous_fifo_tmst_ = true;
    stamp = delta;
  }
  const bool with_stamp = (contents & reg::FIFO_CONFIG1_TMST_FSYNC_EN) != 0;
  const std::uint8_t stamp_bits = with_stamp ? reg::FIFO_HEADER_TIMESTAMP_ODR : 0;
  std::uint8_t packet[reg::FIFO_PACKET_EXTENDED] = {};
  std::size_t n = 0;
  if ((contents & reg::FIFO_CONFIG1_HIRES_EN) != 0 && with_accel && with_gyro) {
    packet[0] = reg::FIFO_HEADER_ACCEL | reg::FIFO_HEADER_GYRO | reg::FIFO_HEADER_20BIT | stamp_bits;
    for (std::size_t i = 0; i < 3; ++i) put16(packet + 1 + 2 * i, s.accel[i], big_endian);
    for (std::size_t i = 0; i < 3; ++i) put16(packet + 7 + 2 * i, s.gyro[i], big_endian);
    put16(packet + 13, s.register_temperature, big_endian);
    put16(packet + 15, static_cast<std::int32_t>(stamp & 0xFFFF), big_endian);
    n = reg::FIFO_PACKET_EXTENDED;
  } else if (with_accel && with_gyro) {
    packet[0] = reg::FIFO_HEADER_ACCEL | reg::FIFO_HEADER_GYRO | stamp_bits;
    for (std::size_t i = 0; i < 3; ++i) put16(packet + 1 + 2 * i, s.accel[i], big_endian);
    for (std::size_t i = 0; i < 3; ++i) put16(packet + 7 + 2 * i, s.gyro[i], big_endian);
    packet[13] = static_cast<std::uint8_t>(s.fifo_temperature);
    if (with_stamp) put16(packet + 14, static_cast<std::int32_t>(stamp & 0xFFFF), big_endian);
    n = reg::FIFO_PACKET_ACCEL_GYRO_TMST;
  } else {
    packet[0] = with_accel ? reg::FIFO_HEADER_ACCEL : reg::FIFO_HEADER_GYRO;
    const auto& axes = with_accel ? s.accel : s.gyro;
    for (std::size_t i = 0; i < 3; ++i) put16(packet + 1 + 2 * i, axes[i], big_endian);
    packet[7] = static_cast<std::uint8_t>(s.fifo_temperature);
    n = reg::FIFO_PACKET_SINGLE_SENSOR;
  }
  const std::uint64_t lost_before = lost;
  fifo_push(packet, n, lost);
  return !(mode >= reg::FIFO_CONFIG_STOP_ON_FULL && lost != lost_before);
}

}  // namespace pelmor_vboard::detail
