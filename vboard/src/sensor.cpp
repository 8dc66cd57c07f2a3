#include "sensor.hpp"

#include <algorithm>

namespace pelmor_vboard::detail {

namespace {

// Bank 0 registers that hold something other than zero after power-on.
constexpr std::pair<std::uint8_t, std::uint8_t> bank0_reset_values[] = {
    {0x13, 0x05},  // DRIVE_CONFIG
    {0x2D, 0x10},  // INT_STATUS: RESET_DONE
    {0x4C, 0x30},  // INTF_CONFIG0: big-endian count and data, count in bytes
    {0x4D, 0x91},  // INTF_CONFIG1
    {0x4F, 0x06},  // GYRO_CONFIG0: 2000 dps, 1 kHz
    {0x50, 0x06},  // ACCEL_CONFIG0: 16 g, 1 kHz
    {0x51, 0x16},  // GYRO_CONFIG1
    {0x52, 0x11},  // GYRO_ACCEL_CONFIG0
    {0x53, 0x0D},  // ACCEL_CONFIG1
    {0x54, 0x23},  // TMST_CONFIG: counter on, FSYNC bit, bit 5 reserved set
    {0x56, 0x82},  // APEX_CONFIG0
    {0x62, 0x10},  // FSYNC_CONFIG
    {0x64, 0x10},  // INT_CONFIG1: asynchronous reset
    {0x65, 0x10},  // INT_SOURCE0: reset done to INT1
};

bool bank0_read_only(std::uint8_t address) {
  return (address >= 0x1D && address <= 0x38) || address == reg::fifo_lost_pkt0 ||
         address == reg::fifo_lost_pkt1 || address == reg::who_am_i;
}

void put16(std::uint8_t* out, std::int32_t value, bool big_endian) {
  const auto v = static_cast<std::uint16_t>(value);
  out[big_endian ? 0 : 1] = static_cast<std::uint8_t>(v >> 8);
  out[big_endian ? 1 : 0] = static_cast<std::uint8_t>(v & 0xFF);
}

}  // namespace

double odr_hz(std::uint8_t code) {
  switch (code & 0x0F) {
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
  banks_[0][reg::who_am_i] = who_am_i_value;
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
  if (address == reg::reg_bank_sel) return banks_[0][reg::reg_bank_sel];
  return banks_[static_cast<std::size_t>(bank_index)][address & 0x7F];
}

std::uint16_t Sensor::fifo_count_value() const {
  const bool in_records = (banks_[0][reg::intf_config0] & 0x40) != 0;
  const std::size_t value = in_records ? packet_count_ : fifo_size_;
  return static_cast<std::uint16_t>(std::min<std::size_t>(value, 0xFFFF));
}

std::uint8_t Sensor::fifo_pop() {
  if (fifo_size_ == 0) return 0x80;  // empty marker
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
  const std::uint8_t mode = static_cast<std::uint8_t>(banks_[0][reg::fifo_config] >> 6);
  if (fifo_size_ + n > fifo_.size()) {
    banks_[0][reg::int_status] |= 0x02;  // FIFO_FULL
    if (mode >= 2) {  // stop-on-full keeps the old data
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
  address &= 0x7F;
  const std::uint8_t b = bank();
  if (address == reg::reg_bank_sel) return banks_[0][reg::reg_bank_sel];
  if (b >= bank_count) return 0;
  if (b != 0) return banks_[b][address];
  const bool count_big_endian = (banks_[0][reg::intf_config0] & 0x20) != 0;
  switch (address) {
    case reg::int_status: {
      const std::uint8_t value = banks_[0][address];
      banks_[0][address] = 0;
      effects.int_status_read = true;
      return value;
    }
    case reg::fifo_counth: {
      latched_count_ = fifo_count_value();
      count_latched_ = true;
      return static_cast<std::uint8_t>(count_big_endian ? latched_count_ >> 8 : latched_count_ & 0xFF);
    }
    case reg::fifo_countl: {
      const std::uint16_t count = count_latched_ ? latched_count_ : fifo_count_value();
      count_latched_ = false;
      return static_cast<std::uint8_t>(count_big_endian ? count & 0xFF : count >> 8);
    }
    case reg::fifo_data:
      return fifo_pop();
    case reg::fifo_lost_pkt0:
      return static_cast<std::uint8_t>(std::min<std::uint32_t>(lost_packets_, 0xFFFF) & 0xFF);
    case reg::fifo_lost_pkt1:
      return static_cast<std::uint8_t>(std::min<std::uint32_t>(lost_packets_, 0xFFFF) >> 8);
    default:
      return banks_[0][address];
  }
}

std::uint8_t Sensor::write(std::uint8_t address, std::uint8_t value, ByteEffects& effects) {
  address &= 0x7F;
  if (address == reg::reg_bank_sel) {
    banks_[0][reg::reg_bank_sel] = value & 0x07;
    return banks_[0][reg::reg_bank_sel];
  }
  const std::uint8_t b = bank();
  if (b >= bank_count) return 0;
  if (b == 1) {
    if (address >= reg::tmstval0 && address <= reg::tmstval0 + 2) return banks_[1][address];
    banks_[1][address] = value;
    return value;
  }
  if (b != 0) {
    banks_[b][address] = value;
    return value;
  }
  if (bank0_read_only(address)) return banks_[0][address];
  switch (address) {
    case reg::device_config:
      banks_[0][address] = value & 0xFE;  // SOFT_RESET clears itself
      if ((value & 0x01) != 0) effects.soft_reset = true;
      return banks_[0][address];
    case reg::signal_path_reset:
      if ((value & 0x0A) != 0) flush_fifo();  // FIFO_FLUSH, ABORT_AND_RESET
      if ((value & 0x04) != 0) effects.strobe = true;
      banks_[0][address] = value & static_cast<std::uint8_t>(~0x0E);  // self-clearing bits
      return banks_[0][address];
    case reg::fifo_config:
      banks_[0][address] = value;
      if ((value >> 6) == 0) flush_fifo();  // bypass holds nothing
      return value;
    case reg::pwr_mgmt0:
    case reg::gyro_config0:
    case reg::accel_config0:
      if (banks_[0][address] != value) effects.sampling_changed = true;
      banks_[0][address] = value;
      return value;
    default:
      banks_[0][address] = value;
      return value;
  }
}

void Sensor::set_tmstval(std::uint32_t value) {
  banks_[1][reg::tmstval0] = static_cast<std::uint8_t>(value & 0xFF);
  banks_[1][reg::tmstval0 + 1] = static_cast<std::uint8_t>((value >> 8) & 0xFF);
  banks_[1][reg::tmstval0 + 2] = static_cast<std::uint8_t>((value >> 16) & 0x0F);
}

std::uint32_t Sensor::counter_value(std::uint64_t ticks) const {
  const bool coarse = (banks_[0][reg::tmst_config] & 0x08) != 0;  // 16 us resolution
  return static_cast<std::uint32_t>((coarse ? ticks / 16 : ticks) & 0xFFFFF);
}

double Sensor::sample_period_ticks() const {
  double hz = 0.0;
  if (gyro_on()) hz = odr_hz(banks_[0][reg::gyro_config0]);
  if (accel_on()) hz = std::max(hz, odr_hz(banks_[0][reg::accel_config0]));
  return hz > 0.0 ? 1e6 / hz : 0.0;
}

double Sensor::accel_counts_per_g() const {
  return 2048.0 * static_cast<double>(1U << ((banks_[0][reg::accel_config0] >> 5) & 0x03));
}

double Sensor::gyro_counts_per_dps() const {
  return 16.4 * static_cast<double>(1U << ((banks_[0][reg::gyro_config0] >> 5) & 0x07));
}

bool Sensor::store_sample(const SampleCounts& s, bool append_to_fifo, std::uint64_t& lost) {
  const bool big_endian = (banks_[0][reg::intf_config0] & 0x10) != 0;
  std::uint8_t* data = &banks_[0][reg::temp_data1];
  put16(data, s.register_temperature, big_endian);
  for (std::size_t i = 0; i < 3; ++i) put16(data + 2 + 2 * i, s.accel[i], big_endian);
  for (std::size_t i = 0; i < 3; ++i) put16(data + 8 + 2 * i, s.gyro[i], big_endian);
  banks_[0][reg::int_status] |= 0x08;  // DATA_RDY

  const std::uint8_t mode = static_cast<std::uint8_t>(banks_[0][reg::fifo_config] >> 6);
  const std::uint8_t contents = banks_[0][reg::fifo_config1];
  const bool with_accel = (contents & 0x01) != 0;
  const bool with_gyro = (contents & 0x02) != 0;
  if (!append_to_fifo || mode == 0 || (!with_accel && !with_gyro)) return false;

  std::uint32_t stamp = tmst_enabled() ? s.tmst : 0;
  if ((banks_[0][reg::tmst_config] & 0x04) != 0) {  // delta since the previous packet
    const std::uint32_t delta = have_previous_fifo_tmst_ ? ((s.tmst - previous_fifo_tmst_) & 0xFFFFF) : 0;
    previous_fifo_tmst_ = s.tmst;
    have_previous_fifo_tmst_ = true;
    stamp = delta;
  }
  const bool with_stamp = (contents & 0x08) != 0;
  std::uint8_t packet[20] = {};
  std::size_t n = 0;
  if ((contents & 0x10) != 0 && with_accel && with_gyro) {  // 20-bit packets
    packet[0] = static_cast<std::uint8_t>(0x70 | (with_stamp ? 0x08 : 0));
    for (std::size_t i = 0; i < 3; ++i) put16(packet + 1 + 2 * i, s.accel[i], big_endian);
    for (std::size_t i = 0; i < 3; ++i) put16(packet + 7 + 2 * i, s.gyro[i], big_endian);
    put16(packet + 13, s.register_temperature, big_endian);
    put16(packet + 15, static_cast<std::int32_t>(stamp & 0xFFFF), big_endian);
    n = 20;
  } else if (with_accel && with_gyro) {
    packet[0] = static_cast<std::uint8_t>(0x60 | (with_stamp ? 0x08 : 0));
    for (std::size_t i = 0; i < 3; ++i) put16(packet + 1 + 2 * i, s.accel[i], big_endian);
    for (std::size_t i = 0; i < 3; ++i) put16(packet + 7 + 2 * i, s.gyro[i], big_endian);
    packet[13] = static_cast<std::uint8_t>(s.fifo_temperature);
    if (with_stamp) put16(packet + 14, static_cast<std::int32_t>(stamp & 0xFFFF), big_endian);
    n = 16;
  } else {
    packet[0] = with_accel ? 0x40 : 0x20;
    const auto& axes = with_accel ? s.accel : s.gyro;
    for (std::size_t i = 0; i < 3; ++i) put16(packet + 1 + 2 * i, axes[i], big_endian);
    packet[7] = static_cast<std::uint8_t>(s.fifo_temperature);
    n = 8;
  }
  const std::uint64_t lost_before = lost;
  fifo_push(packet, n, lost);
  return !(mode >= 2 && lost != lost_before);
}

}  // namespace pelmor_vboard::detail
