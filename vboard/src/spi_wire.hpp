// The spidev node and the sensor's SPI interface behind it: the device
// settings the kernel keeps, the checks spidev makes on a message, the frames
// as the sensor decodes them byte by byte, and the log of every message.
// What a byte asks of the board beyond the register file comes back to the
// caller as ByteEffects.
#pragma once

#include <linux/spi/spidev.h>

#include <cstddef>
#include <cstdint>
#include <vector>

#include "faults.hpp"
#include "records.hpp"
#include "sensor.hpp"
#include "timeline.hpp"

namespace pelmor_vboard::detail {

inline constexpr std::size_t spidev_bufsiz = 4096;  // spidev's bounce buffer
// Each transfer takes its length rounded up to this in the bounce buffers
// (ARCH_DMA_MINALIGN on arm64, the target).
inline constexpr std::size_t spidev_dma_alignment = 128;

// Frame state of the SPI wire: CS may stay asserted across transfers and even
// across messages (cs_change on the last transfer).
struct Frame {
  bool selected = false;
  bool have_address = false;
  bool reading = false;
  std::uint8_t address = 0;
};

class SpiWire {
 public:
  SpiWire(Sensor& sensor, FaultBook& faults, Ring<LogSlot>& log) : sensor_(sensor), faults_(faults), log_(log) {}

  void reset();
  // The sensor ignores its interface until `raw` (busy after a soft reset).
  void busy_until(std::uint64_t raw) { busy_until_ = raw; }

  static bool is_message(unsigned long request) {
    return _IOC_TYPE(request) == SPI_IOC_MAGIC && _IOC_NR(request) == 0 && _IOC_DIR(request) == _IOC_WRITE;
  }
  int setup_ioctl(unsigned long request, void* arg);
  std::uint32_t speed_hz() const { return speed_hz_; }

  // spidev's checks of a message: an errno, 0 when it may go out; `total` bytes.
  static int check(const spi_ioc_transfer* xfers, unsigned n, std::uint64_t& total);
  SpiMessageKind classify(const spi_ioc_transfer* xfers, unsigned n) const;

  LogSlot* log_message(SpiMessageKind kind, const spi_ioc_transfer* xfers, unsigned n, std::uint64_t start);
  static void log_failure(LogSlot* slot, int error, std::uint64_t start);
  static void log_timing(LogSlot* slot, const MessageTiming& timing, std::uint64_t start);
  static void log_latch(LogSlot* slot, std::uint64_t latch_raw, std::uint32_t value);
  static void log_result(LogSlot* slot, int result, std::uint64_t end);

  // Clocks the message through the sensor at `now`; `on_effects(effects,
  // transfer, byte)` runs after each byte that asked for more than a register change.
  template <typename OnEffects>
  void exchange(const spi_ioc_transfer* xfers, unsigned n, std::uint64_t now, LogSlot* slot, OnEffects&& on_effects);

 private:
  bool mode_understood() const;
  std::uint8_t byte(std::uint8_t tx, bool understood, std::uint64_t now, LogSlot* slot, ByteEffects& effects);

  Sensor& sensor_;
  FaultBook& faults_;
  Ring<LogSlot>& log_;

  // spidev device settings (shared by every open, as the kernel keeps them)
  std::uint32_t mode_ = 0;
  std::uint8_t bits_ = 8;
  std::uint32_t speed_hz_ = 10000000;
  Frame frame_;
  std::uint64_t busy_until_ = 0;
};

template <typename OnEffects>
void SpiWire::exchange(const spi_ioc_transfer* xfers, unsigned n, std::uint64_t now, LogSlot* slot,
                       OnEffects&& on_effects) {
  const bool understood = mode_understood();
  for (unsigned i = 0; i < n; ++i) {
    const spi_ioc_transfer& x = xfers[i];
    const auto* tx = reinterpret_cast<const std::uint8_t*>(static_cast<std::uintptr_t>(x.tx_buf));
    auto* rx = reinterpret_cast<std::uint8_t*>(static_cast<std::uintptr_t>(x.rx_buf));
    std::vector<std::uint8_t>* rx_log = slot != nullptr ? &slot->record.transfers[i].rx : nullptr;
    if (rx_log != nullptr) rx_log->resize(x.len);
    if (!frame_.selected) frame_ = Frame{true, false, false, 0};
    for (std::uint32_t b = 0; b < x.len; ++b) {
      ByteEffects effects;
      const std::uint8_t in = byte(tx != nullptr ? tx[b] : 0, understood, now, slot, effects);
      if (effects.soft_reset || effects.strobe || effects.sampling_changed || effects.int_status_read) {
        on_effects(effects, i, b);
      }
      if (rx != nullptr) rx[b] = in;
      if (rx_log != nullptr) (*rx_log)[b] = in;
    }
    const bool last = i + 1 == n;
    if (last ? x.cs_change == 0 : x.cs_change != 0) frame_ = Frame{};
  }
}

}  // namespace pelmor_vboard::detail
