#include "spi_wire.hpp"

#include <algorithm>
#include <cerrno>
#include <climits>

namespace pelmor_vboard::detail {

namespace {

const std::uint8_t* tx_of(const spi_ioc_transfer& x) {
  return reinterpret_cast<const std::uint8_t*>(static_cast<std::uintptr_t>(x.tx_buf));
}

}  // namespace

void SpiWire::reset() {
  mode_ = 0;
  bits_ = 8;
  speed_hz_ = 10000000;
  frame_ = Frame{};
  busy_until_ = 0;
}

int SpiWire::setup_ioctl(unsigned long request, void* arg) {
  if (_IOC_TYPE(request) != SPI_IOC_MAGIC) return -ENOTTY;
  constexpr std::uint32_t supported_modes = SPI_CPHA | SPI_CPOL | SPI_CS_HIGH | SPI_LSB_FIRST;
  switch (request) {
    case SPI_IOC_RD_MODE:
      *static_cast<std::uint8_t*>(arg) = static_cast<std::uint8_t>(mode_ & 0xFF);
      return 0;
    case SPI_IOC_RD_MODE32:
      *static_cast<std::uint32_t*>(arg) = mode_;
      return 0;
    case SPI_IOC_RD_LSB_FIRST:
      *static_cast<std::uint8_t*>(arg) = (mode_ & SPI_LSB_FIRST) ? 1 : 0;
      return 0;
    case SPI_IOC_RD_BITS_PER_WORD:
      *static_cast<std::uint8_t*>(arg) = bits_;
      return 0;
    case SPI_IOC_RD_MAX_SPEED_HZ:
      *static_cast<std::uint32_t*>(arg) = speed_hz_;
      return 0;
    case SPI_IOC_WR_MODE: {
      const std::uint8_t mode = *static_cast<const std::uint8_t*>(arg);
      if ((mode & ~supported_modes) != 0) return -EINVAL;
      mode_ = (mode_ & ~0xFFU) | mode;
      return 0;
    }
    case SPI_IOC_WR_MODE32: {
      const std::uint32_t mode = *static_cast<const std::uint32_t*>(arg);
      if ((mode & ~supported_modes) != 0) return -EINVAL;
      mode_ = mode;
      return 0;
    }
    case SPI_IOC_WR_LSB_FIRST:
      if (*static_cast<const std::uint8_t*>(arg) != 0)
        mode_ |= SPI_LSB_FIRST;
      else
        mode_ &= ~static_cast<std::uint32_t>(SPI_LSB_FIRST);
      return 0;
    case SPI_IOC_WR_BITS_PER_WORD: {
      const std::uint8_t bits = *static_cast<const std::uint8_t*>(arg);
      if (bits != 0 && bits != 8) return -EINVAL;  // the controller moves bytes only
      bits_ = 8;
      return 0;
    }
    case SPI_IOC_WR_MAX_SPEED_HZ: {
      const std::uint32_t speed = *static_cast<const std::uint32_t*>(arg);
      if (speed == 0) return -EINVAL;
      speed_hz_ = speed;
      return 0;
    }
    default:
      return -ENOTTY;
  }
}

int SpiWire::check(const spi_ioc_transfer* xfers, unsigned n, std::uint64_t& total) {
  std::size_t rx_total = 0;
  std::size_t tx_total = 0;
  int error = 0;
  for (unsigned i = 0; i < n && error == 0; ++i) {
    const spi_ioc_transfer& x = xfers[i];
    total += x.len;
    if (total > INT_MAX) error = EMSGSIZE;
    // Receive and transmit have a bounce buffer each; every transfer starts
    // DMA-aligned in them.
    const std::size_t aligned = (std::size_t{x.len} + spidev_dma_alignment - 1) / spidev_dma_alignment *
                                spidev_dma_alignment;
    if (x.rx_buf != 0 && (rx_total += aligned) > spidev_bufsiz) error = EMSGSIZE;
    if (x.tx_buf != 0 && (tx_total += aligned) > spidev_bufsiz) error = EMSGSIZE;
    if (x.bits_per_word != 0 && x.bits_per_word != 8) error = EINVAL;
    if (x.tx_nbits > 1 || x.rx_nbits > 1) error = EINVAL;
  }
  return error;
}

SpiMessageKind SpiWire::classify(const spi_ioc_transfer* xfers, unsigned n) const {
  // Walk the frames as the sensor will see them, without side effects.
  bool selected = frame_.selected;
  bool need_address = !frame_.selected || !frame_.have_address;
  int frames = 0;
  std::uint8_t first = 0;
  std::uint8_t current = 0;
  bool await_second = false;
  bool strobe = false;
  if (!need_address) {
    current = static_cast<std::uint8_t>((frame_.reading ? reg::SPI_READ_FLAG : 0) | frame_.address);
    first = current;
    frames = 1;
    await_second = true;
  }
  for (unsigned i = 0; i < n; ++i) {
    if (!selected) {
      selected = true;
      need_address = true;
    }
    const std::uint8_t* tx = tx_of(xfers[i]);
    for (std::uint32_t b = 0; b < xfers[i].len; ++b) {
      const std::uint8_t byte = tx != nullptr ? tx[b] : 0;
      if (need_address) {
        current = byte;
        if (frames++ == 0) first = byte;
        need_address = false;
        await_second = true;
      } else if (await_second) {
        if (current == reg::SIGNAL_PATH_RESET && (byte & reg::SIGNAL_PATH_RESET_TMST_STROBE) != 0) strobe = true;
        await_second = false;
      }
    }
    const bool last = i + 1 == n;
    if (last ? xfers[i].cs_change == 0 : xfers[i].cs_change != 0) selected = false;
  }
  if (strobe) return SpiMessageKind::tmst_snapshot;
  if (frames == 0) return SpiMessageKind::register_write;
  if (frames == 1 && first == reg::REG_BANK_SEL) return SpiMessageKind::bank_select;
  if (first == (reg::SPI_READ_FLAG | reg::FIFO_COUNTH)) return SpiMessageKind::fifo_count_read;
  if (first == (reg::SPI_READ_FLAG | reg::FIFO_DATA)) return SpiMessageKind::fifo_data_read;
  return (first & reg::SPI_READ_FLAG) != 0 ? SpiMessageKind::register_read : SpiMessageKind::register_write;
}

LogSlot* SpiWire::log_message(SpiMessageKind kind, const spi_ioc_transfer* xfers, unsigned n, std::uint64_t start) {
  LogSlot* slot = log_.push();
  if (slot == nullptr) return nullptr;
  SpiMessageRecord& r = slot->record;
  r.sequence = log_.total() - 1;
  r.kind = kind;
  r.transfer_count = n;
  r.raw_start_ns = start;
  r.latched = false;
  r.latch_raw_ns = 0;
  r.latch_tmst = 0;
  slot->writes = 0;
  slot->transfers = n;
  if (r.transfers.size() < n) r.transfers.resize(n);
  for (unsigned i = 0; i < n; ++i) {
    const spi_ioc_transfer& x = xfers[i];
    SpiTransferRecord& t = r.transfers[i];
    t.raw_wire_start_ns = t.raw_wire_end_ns = 0;
    t.len = x.len;
    t.speed_hz = x.speed_hz;
    t.bits_per_word = x.bits_per_word;
    t.cs_change = x.cs_change != 0;
    t.delay_usecs = x.delay_usecs;
    t.word_delay_usecs = x.word_delay_usecs;
    t.tx_nbits = x.tx_nbits;
    t.rx_nbits = x.rx_nbits;
    t.has_tx = x.tx_buf != 0;
    t.has_rx = x.rx_buf != 0;
    const std::uint8_t* tx = tx_of(x);
    const std::size_t kept = std::min<std::size_t>(x.len, spidev_bufsiz);
    if (tx != nullptr) t.tx.assign(tx, tx + kept); else t.tx.assign(kept, 0);
    t.rx.clear();
  }
  return slot;
}

void SpiWire::log_failure(LogSlot* slot, int error, std::uint64_t start) {
  if (slot == nullptr) return;
  slot->record.result = -1;
  slot->record.error_number = error;
  slot->record.raw_end_ns = start;
}

void SpiWire::log_timing(LogSlot* slot, const MessageTiming& timing, std::uint64_t start) {
  if (slot == nullptr) return;
  for (std::size_t i = 0; i < timing.wires.size() && i < slot->record.transfers.size(); ++i) {
    slot->record.transfers[i].raw_wire_start_ns = start + timing.wires[i].start;
    slot->record.transfers[i].raw_wire_end_ns = start + timing.wires[i].end;
  }
}

void SpiWire::log_latch(LogSlot* slot, std::uint64_t latch_raw, std::uint32_t value) {
  if (slot == nullptr) return;
  slot->record.latched = true;
  slot->record.latch_raw_ns = latch_raw;
  slot->record.latch_tmst = value;
}

void SpiWire::log_result(LogSlot* slot, int result, std::uint64_t end) {
  if (slot == nullptr) return;
  slot->record.result = result;
  slot->record.error_number = 0;
  slot->record.raw_end_ns = end;
}

bool SpiWire::mode_understood() const {
  // The sensor speaks modes 0 and 3, MSB first, with an active-low select.
  const std::uint32_t clock = mode_ & (SPI_CPHA | SPI_CPOL);
  return (clock == 0 || clock == (SPI_CPHA | SPI_CPOL)) && (mode_ & (SPI_CS_HIGH | SPI_LSB_FIRST)) == 0;
}

std::uint8_t SpiWire::byte(std::uint8_t tx, bool understood, std::uint64_t now, LogSlot* slot,
                           ByteEffects& effects) {
  if (!understood) return 0xFF;
  if (now < busy_until_) return 0x00;
  if (!frame_.have_address) {
    frame_.have_address = true;
    frame_.reading = (tx & reg::SPI_READ_FLAG) != 0;
    frame_.address = tx & reg::SPI_ADDRESS_MASK;
    return 0x00;
  }
  const std::uint8_t bank = sensor_.bank();
  const std::uint8_t address = frame_.address;
  std::uint8_t rx = 0;
  if (frame_.reading) {
    rx = faults_.read_back(bank, address, sensor_.read(address, effects));
  } else {
    const std::uint8_t stored = sensor_.write(address, tx, effects);
    if (slot != nullptr) {
      auto& writes = slot->record.writes;
      if (slot->writes >= writes.size()) writes.emplace_back();
      writes[slot->writes++] = RegisterWrite{bank, address, tx, stored};
    }
  }
  // FIFO_DATA reads stream from the one address.
  if (!(bank == 0 && address == reg::FIFO_DATA)) {
    frame_.address = static_cast<std::uint8_t>((address + 1) & reg::SPI_ADDRESS_MASK);
  }
  return rx;
}

}  // namespace pelmor_vboard::detail
