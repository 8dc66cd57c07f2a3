// What the virtual board costs on this machine: the time an emulated SPI ioctl
// adds (there is no syscall underneath, so the whole call is added), the
// interposition overhead on descriptors that are not the board's, and how late
// data-ready edges become readable against their scheduled instants.
//
//   pelmor_vboard_bench [google-benchmark flags] [--lateness-seconds=N]
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <linux/gpio.h>
#include <linux/spi/spidev.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "pelmor_vboard.hpp"
#include "sensor/registers.hpp"
#include "sensor/spi_transfer.hpp"
#include "sensor/tmst_snapshot_message.hpp"

namespace {

namespace reg = pelmor_lusk::icm42688;
using pelmor_lusk::make_spi_transfer;
using pelmor_lusk::spi_register_speed_hz;
using pelmor_lusk::submit_spi_message;

std::uint64_t clock_ns(clockid_t id) {
  timespec ts{};
  clock_gettime(id, &ts);
  return static_cast<std::uint64_t>(ts.tv_sec) * 1000000000ULL + static_cast<std::uint64_t>(ts.tv_nsec);
}

// A one-register read (WHO_AM_I), as the library's register layer issues it.
// Holds the buffers its transfer points to: built in place, never copied.
class RegisterRead {
 public:
  RegisterRead() noexcept : x_{make_spi_transfer(tx_, rx_, sizeof tx_, spi_register_speed_hz)} {}
  RegisterRead(const RegisterRead&) = delete;
  RegisterRead& operator=(const RegisterRead&) = delete;

  int submit(int fd) noexcept { return submit_spi_message(fd, x_); }

 private:
  const std::uint8_t tx_[2] = {reg::WHO_AM_I | reg::SPI_READ_FLAG, 0};
  std::uint8_t rx_[2] = {};
  spi_ioc_transfer x_[1];
};

int open_board() {
  pelmor_vboard::Config cfg;
  cfg.spi_log_capacity = 1024;
  pelmor_vboard::reset(cfg);
  return ::open("/dev/spidev2.0", O_RDWR | O_CLOEXEC);
}

void BM_EmulatedRegisterRead(benchmark::State& state) {
  const int fd = open_board();
  RegisterRead read;
  for (auto _ : state) {
    benchmark::DoNotOptimize(read.submit(fd));
  }
  ::close(fd);
}
BENCHMARK(BM_EmulatedRegisterRead);

void BM_EmulatedSnapshotMessage(benchmark::State& state) {
  const int fd = open_board();
  pelmor_lusk::TmstSnapshotMessage snapshot;
  pelmor_lusk::Bank0RestoreMessage restore;
  for (auto _ : state) {
    benchmark::DoNotOptimize(submit_spi_message(fd, snapshot.transfers()));
    benchmark::DoNotOptimize(submit_spi_message(fd, restore.transfers()));
  }
  state.SetItemsProcessed(state.iterations() * 2);
  ::close(fd);
}
BENCHMARK(BM_EmulatedSnapshotMessage);

// A real ioctl on a pipe, through the interposer and straight to the kernel.
void BM_PassThroughIoctl(benchmark::State& state) {
  int p[2];
  if (::pipe(p) != 0) return;
  int n = 0;
  for (auto _ : state) benchmark::DoNotOptimize(::ioctl(p[0], FIONREAD, &n));
  ::close(p[0]);
  ::close(p[1]);
}
BENCHMARK(BM_PassThroughIoctl);

void BM_DirectSyscallIoctl(benchmark::State& state) {
  int p[2];
  if (::pipe(p) != 0) return;
  int n = 0;
  for (auto _ : state) benchmark::DoNotOptimize(::syscall(SYS_ioctl, p[0], FIONREAD, &n));
  ::close(p[0]);
  ::close(p[1]);
}
BENCHMARK(BM_DirectSyscallIoctl);

double percentile(std::vector<std::int64_t> v, double p) {
  if (v.empty()) return 0.0;
  std::sort(v.begin(), v.end());
  const auto i = static_cast<std::size_t>(p / 100.0 * static_cast<double>(v.size() - 1));
  return static_cast<double>(v[i]);
}

void print_distribution(const char* what, const std::vector<std::int64_t>& v, double unit, const char* unit_name) {
  std::printf("%-44s n=%zu p50=%.2f p90=%.2f p99=%.2f p99.9=%.2f max=%.2f %s\n", what, v.size(),
              percentile(v, 50) / unit, percentile(v, 90) / unit, percentile(v, 99) / unit,
              percentile(v, 99.9) / unit, percentile(v, 100) / unit, unit_name);
}

// Per-call duration of emulated register reads, each timed on its own.
void per_call_cost() {
  const int fd = open_board();
  RegisterRead read;
  std::vector<std::int64_t> calls, clocks;
  for (int i = 0; i < 200000; ++i) {
    const std::uint64_t a = clock_ns(CLOCK_MONOTONIC_RAW);
    read.submit(fd);
    const std::uint64_t b = clock_ns(CLOCK_MONOTONIC_RAW);
    const std::uint64_t c = clock_ns(CLOCK_MONOTONIC_RAW);
    calls.push_back(static_cast<std::int64_t>(b - a));
    clocks.push_back(static_cast<std::int64_t>(c - b));
  }
  ::close(fd);
  print_distribution("emulated SPI ioctl, per call (incl. 1 clock read)", calls, 1000.0, "us");
  print_distribution("clock read alone", clocks, 1000.0, "us");
}

// Edges at the ODR read by a client blocked in poll: lateness of the readable
// event against its kernel stamp (the instant the event is due), and the board's
// own lateness in queueing it.
void edge_lateness(double seconds, std::uint8_t odr_code, const char* name, std::uint64_t spin_ns = 0) {
  pelmor_vboard::Config cfg;
  cfg.edge_spin_ns = spin_ns;
  pelmor_vboard::reset(cfg);
  const int spi = ::open("/dev/spidev2.0", O_RDWR | O_CLOEXEC);
  const int chip = ::open("/dev/gpiochip0", O_RDONLY | O_CLOEXEC);
  gpio_v2_line_request req{};
  req.offsets[0] = 16;
  std::strcpy(req.consumer, "vboard-bench");
  req.config.flags = GPIO_V2_LINE_FLAG_INPUT | GPIO_V2_LINE_FLAG_EDGE_RISING;
  req.num_lines = 1;
  req.event_buffer_size = 256;
  if (spi < 0 || chip < 0 || ::ioctl(chip, GPIO_V2_GET_LINE_IOCTL, &req) != 0) {
    std::printf("edge lateness: board not reachable\n");
    return;
  }
  auto write_reg = [spi](std::uint8_t address, std::uint8_t value) {
    const std::uint8_t tx[2] = {address, value};
    spi_ioc_transfer x[1] = {make_spi_transfer(tx, nullptr, sizeof tx, spi_register_speed_hz)};
    submit_spi_message(spi, x);
  };
  write_reg(reg::GYRO_CONFIG0, odr_code);
  write_reg(reg::ACCEL_CONFIG0, odr_code);
  write_reg(reg::INT_SOURCE0, reg::INT_SOURCE0_UI_DRDY_INT1_EN);
  write_reg(reg::PWR_MGMT0, reg::PWR_MGMT0_GYRO_ACCEL_LOW_NOISE);
  std::vector<std::int64_t> client;
  const std::uint64_t end = clock_ns(CLOCK_MONOTONIC) + static_cast<std::uint64_t>(seconds * 1e9);
  while (clock_ns(CLOCK_MONOTONIC) < end) {
    pollfd p{req.fd, POLLIN, 0};
    if (::poll(&p, 1, 200) <= 0) continue;
    gpio_v2_line_event ev{};
    if (::read(req.fd, &ev, sizeof ev) != sizeof ev) continue;
    client.push_back(static_cast<std::int64_t>(clock_ns(CLOCK_MONOTONIC) - ev.timestamp_ns));
  }
  write_reg(reg::PWR_MGMT0, reg::PWR_MGMT0_SENSORS_OFF);
  std::string label = std::string("edge readable after its stamp, ") + name;
  print_distribution(label.c_str(), client, 1000.0, "us");
  label = std::string("board queueing lateness, ") + name;
  print_distribution(label.c_str(), pelmor_vboard::edge_lateness_ns(), 1000.0, "us");
  ::close(req.fd);
  ::close(chip);
  ::close(spi);
}

}  // namespace

int main(int argc, char** argv) {
  double seconds = 10.0;
  std::vector<char*> rest;
  for (int i = 0; i < argc; ++i) {
    if (std::strncmp(argv[i], "--lateness-seconds=", 19) == 0) {
      seconds = std::atof(argv[i] + 19);
    } else {
      rest.push_back(argv[i]);
    }
  }
  int n = static_cast<int>(rest.size());
  benchmark::Initialize(&n, rest.data());
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  per_call_cost();
  if (seconds > 0) {
    edge_lateness(seconds, 0x07, "200 Hz");
    edge_lateness(seconds / 2, 0x0A, "25 Hz");
    edge_lateness(seconds, 0x07, "200 Hz, edge_spin_ns=200000", 200000);
  }
  return 0;
}
