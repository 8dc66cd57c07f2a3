// Raw spidev and GPIO character-device traffic for the board's self-tests. The
// SPI side speaks through the library's register map and its snapshot message
// builders (header-only); everything else is written from the wire formats.
#pragma once

#include <dirent.h>
#include <fcntl.h>
#include <linux/gpio.h>
#include <linux/spi/spidev.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "pelmor_vboard.hpp"
#include "sensor/registers.hpp"
#include "sensor/spi_transfer.hpp"
#include "sensor/tmst_snapshot_message.hpp"

namespace vboard_test {

using namespace std::chrono_literals;

using namespace pelmor_lusk::icm42688;

// The driver's TMST_CONFIG bits over the reset value's reserved bit 5.
inline constexpr std::uint8_t TMST_CONFIG_DRIVER = 0x20 | TMST_CONFIG_REGISTER_READ_COUNTER_ON;

inline std::uint64_t raw_ns() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC_RAW, &ts);
  return static_cast<std::uint64_t>(ts.tv_sec) * 1000000000ULL + static_cast<std::uint64_t>(ts.tv_nsec);
}

class Spi {
 public:
  Spi() : fd_(::open("/dev/spidev2.0", O_RDWR | O_CLOEXEC)) {}
  ~Spi() {
    if (fd_ >= 0) ::close(fd_);
  }
  Spi(const Spi&) = delete;
  Spi& operator=(const Spi&) = delete;
  int fd() const { return fd_; }

  // One-transfer read of n registers: the address with the read flag, then n dummy bytes.
  std::vector<std::uint8_t> read(std::uint8_t reg, std::size_t n, int* result = nullptr) {
    std::vector<std::uint8_t> tx(n + 1, 0), rx(n + 1, 0);
    tx[0] = static_cast<std::uint8_t>(reg | SPI_READ_FLAG);
    spi_ioc_transfer x[1] = {pelmor_lusk::make_spi_transfer(tx.data(), rx.data(), static_cast<std::uint32_t>(n + 1),
                                                            pelmor_lusk::spi_register_speed_hz)};
    const int r = pelmor_lusk::submit_spi_message(fd_, x);
    if (result != nullptr) *result = r;
    return {rx.begin() + 1, rx.end()};
  }
  std::uint8_t read1(std::uint8_t reg) { return read(reg, 1).at(0); }
  int write(std::uint8_t reg, std::uint8_t value) {
    const std::uint8_t tx[2] = {reg, value};
    spi_ioc_transfer x[1] = {
        pelmor_lusk::make_spi_transfer(tx, nullptr, sizeof tx, pelmor_lusk::spi_register_speed_hz)};
    return pelmor_lusk::submit_spi_message(fd_, x);
  }

  struct Snapshot {
    int result = 0;
    std::uint32_t ticks = 0;
    std::uint64_t before = 0, after = 0;
  };
  // The library's snapshot message, then its bank-0 restore.
  Snapshot snapshot() {
    pelmor_lusk::TmstSnapshotMessage message;
    Snapshot s;
    s.before = raw_ns();
    s.result = pelmor_lusk::submit_spi_message(fd_, message.transfers());
    s.after = raw_ns();
    s.ticks = message.ticks();
    pelmor_lusk::Bank0RestoreMessage restore;
    pelmor_lusk::submit_spi_message(fd_, restore.transfers());
    return s;
  }

  // Sensors on at the ODR code, data-ready to INT1, FIFO streaming 16-byte packets.
  void stream(std::uint8_t odr_code, bool drdy = true) {
    write(REG_BANK_SEL, REG_BANK_SEL_BANK0);
    write(GYRO_CONFIG0, odr_code);
    write(ACCEL_CONFIG0, odr_code);
    write(INT_CONFIG, INT_CONFIG_INT1_PULSED_PUSH_PULL_HIGH);
    write(TMST_CONFIG, TMST_CONFIG_DRIVER);
    write(FIFO_CONFIG1, FIFO_CONFIG1_ACCEL_GYRO_TEMP_TMST);
    write(INT_SOURCE0, drdy ? INT_SOURCE0_UI_DRDY_INT1_EN : 0x00);
    write(FIFO_CONFIG, FIFO_CONFIG_STREAM);
    write(SIGNAL_PATH_RESET, SIGNAL_PATH_RESET_FIFO_FLUSH);
    write(PWR_MGMT0, PWR_MGMT0_GYRO_ACCEL_LOW_NOISE);
  }

  std::uint16_t fifo_count() {
    const auto c = read(FIFO_COUNTH, 2);
    return static_cast<std::uint16_t>(c[0] << 8 | c[1]);
  }

 private:
  int fd_;
};

struct Packet {
  std::uint8_t header = 0;
  std::int16_t accel[3]{}, gyro[3]{};
  std::int8_t temperature = 0;
  std::uint16_t tmst = 0;
};

inline std::vector<Packet> parse(const std::vector<std::uint8_t>& bytes) {
  std::vector<Packet> out;
  constexpr std::size_t size = FIFO_PACKET_ACCEL_GYRO_TMST;
  for (std::size_t i = 0; i + size <= bytes.size(); i += size) {
    const std::uint8_t* p = &bytes[i];
    Packet k;
    k.header = p[0];
    for (int a = 0; a < 3; ++a) {
      k.accel[a] = static_cast<std::int16_t>(p[1 + 2 * a] << 8 | p[2 + 2 * a]);
      k.gyro[a] = static_cast<std::int16_t>(p[7 + 2 * a] << 8 | p[8 + 2 * a]);
    }
    k.temperature = static_cast<std::int8_t>(p[13]);
    k.tmst = static_cast<std::uint16_t>(p[14] << 8 | p[15]);
    out.push_back(k);
  }
  return out;
}

// readdir order of /dev entries beginning with "gpiochip".
inline std::vector<std::string> gpiochips() {
  std::vector<std::string> out;
  DIR* d = ::opendir("/dev");
  if (d == nullptr) return out;
  while (dirent* e = ::readdir(d)) {
    if (std::strncmp(e->d_name, "gpiochip", 8) == 0) out.emplace_back(e->d_name);
  }
  ::closedir(d);
  return out;
}

class Line {
 public:
  // Requests `offset` of `chip` for the given edges, as the uAPI v2 describes.
  Line(const std::string& chip, std::uint32_t offset = 16,
       std::uint64_t flags = GPIO_V2_LINE_FLAG_INPUT | GPIO_V2_LINE_FLAG_EDGE_RISING, std::uint32_t depth = 256) {
    chip_fd_ = ::open(("/dev/" + chip).c_str(), O_RDONLY | O_CLOEXEC);
    if (chip_fd_ < 0) return;
    gpio_v2_line_request req{};
    req.offsets[0] = offset;
    std::strcpy(req.consumer, "vboard-test");
    req.config.flags = flags;
    req.num_lines = 1;
    req.event_buffer_size = depth;
    result_ = ::ioctl(chip_fd_, GPIO_V2_GET_LINE_IOCTL, &req);
    error_ = result_ < 0 ? errno : 0;
    if (result_ == 0) fd_ = req.fd;
  }
  ~Line() {
    if (fd_ >= 0) ::close(fd_);
    if (chip_fd_ >= 0) ::close(chip_fd_);
  }
  Line(const Line&) = delete;
  Line& operator=(const Line&) = delete;
  int fd() const { return fd_; }
  int error() const { return error_; }

  // Next event within the timeout, or false.
  bool next(gpio_v2_line_event& ev, int timeout_ms = 2000) {
    pollfd p{fd_, POLLIN | POLLPRI | POLLERR, 0};
    if (::poll(&p, 1, timeout_ms) <= 0 || !(p.revents & POLLIN)) return false;
    return ::read(fd_, &ev, sizeof ev) == static_cast<ssize_t>(sizeof ev);
  }

 private:
  int chip_fd_ = -1;
  int fd_ = -1;
  int result_ = -1;
  int error_ = 0;
};

}  // namespace vboard_test
