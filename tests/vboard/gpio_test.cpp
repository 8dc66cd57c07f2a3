// The emulated GPIO chip over the uAPI v2: discovery, line requests as the
// kernel validates them, and data-ready events with their sequence numbers.
#include <gtest/gtest.h>

#include <cerrno>

#include "wire.hpp"

namespace pv = pelmor_vboard;
using namespace vboard_test;

namespace {

TEST(VboardGpio, ChipsAreFoundUnderDevWithTheirLabels) {
  pv::Config cfg;
  cfg.chips = {{"gpiochip3", "other.gpio", 8, -1}, {"gpiochip0", "34120000.gpio", 32, 16}};
  pv::reset(cfg);
  EXPECT_EQ(gpiochips(), (std::vector<std::string>{"gpiochip3", "gpiochip0"}));
  const int fd = ::open("/dev/gpiochip0", O_RDONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  gpiochip_info info{};
  ASSERT_EQ(ioctl(fd, GPIO_GET_CHIPINFO_IOCTL, &info), 0);
  EXPECT_STREQ(info.name, "gpiochip0");
  EXPECT_STREQ(info.label, "34120000.gpio");
  EXPECT_EQ(info.lines, 32u);
  ::close(fd);
  EXPECT_EQ(::open("/dev/gpiochip7", O_RDONLY), -1) << "only the board's chips exist";
  EXPECT_EQ(errno, ENOENT);
  // Entries that are not the board's are still listed.
  bool saw_null = false;
  DIR* d = ::opendir("/dev");
  ASSERT_NE(d, nullptr);
  while (dirent* e = ::readdir(d)) saw_null |= std::strcmp(e->d_name, "null") == 0;
  ::closedir(d);
  EXPECT_TRUE(saw_null);
}

TEST(VboardGpio, LineRequestsAreValidatedAndRecorded) {
  pv::reset();
  {
    Line line("gpiochip0");
    ASSERT_GE(line.fd(), 0);
    const auto rec = pv::last_line_request();
    ASSERT_TRUE(rec.has_value());
    EXPECT_EQ(rec->offsets, std::vector<std::uint32_t>{16});
    EXPECT_EQ(rec->consumer, "vboard-test");
    EXPECT_EQ(rec->flags, 0x14u);
    EXPECT_EQ(rec->num_lines, 1u);
    EXPECT_EQ(rec->event_buffer_size, 256u);
    EXPECT_EQ(rec->effective_buffer_size, 256u);
    EXPECT_EQ(rec->raw.size(), sizeof(gpio_v2_line_request));
    Line again("gpiochip0");
    EXPECT_EQ(again.error(), EBUSY);
  }
  EXPECT_TRUE(pv::line_requests().front().released);
  EXPECT_EQ(Line("gpiochip0", 16, GPIO_V2_LINE_FLAG_EDGE_RISING).error(), EINVAL) << "edges need an input";
  EXPECT_EQ(Line("gpiochip0", 40).error(), EINVAL);
  Line small("gpiochip0", 16, GPIO_V2_LINE_FLAG_INPUT | GPIO_V2_LINE_FLAG_EDGE_RISING, 100);
  ASSERT_GE(small.fd(), 0);
  EXPECT_EQ(pv::last_line_request()->effective_buffer_size, 128u);
}

TEST(VboardGpio, DataReadyEdgesArriveAtTheOdrInSequence) {
  pv::reset();
  Line line("gpiochip0");
  ASSERT_GE(line.fd(), 0);
  Spi spi;
  spi.stream(0x07);
  gpio_v2_line_event previous{};
  for (std::uint32_t n = 1; n <= 20; ++n) {
    gpio_v2_line_event ev{};
    ASSERT_TRUE(line.next(ev)) << n;
    if (n == 1) {
      EXPECT_GE(spi.fifo_count(), 16) << "an edge is never readable before its sample is in the FIFO";
    }
    EXPECT_EQ(ev.id, GPIO_V2_LINE_EVENT_RISING_EDGE);
    EXPECT_EQ(ev.offset, 16u);
    EXPECT_EQ(ev.line_seqno, n);
    EXPECT_EQ(ev.seqno, n);
    const auto truth = pv::sample(n - 1);
    ASSERT_TRUE(truth.has_value());
    EXPECT_EQ(truth->edge, pv::EdgeOutcome::raised);
    EXPECT_EQ(truth->line_seqno, n);
    EXPECT_EQ(ev.timestamp_ns, truth->event_monotonic_ns);
    if (n > 1) {
      // RAW spacing is exact; the MONOTONIC stamps follow any NTP slew (<= 500 ppm).
      EXPECT_EQ(truth->raw_ns - pv::sample(n - 2)->raw_ns, 5000000u);
      EXPECT_NEAR(static_cast<double>(ev.timestamp_ns - previous.timestamp_ns), 5e6, 2600.0);
    }
    previous = ev;
  }
  EXPECT_EQ(pv::counters().events_read, 20u);
}

TEST(VboardGpio, FullEventBufferKeepsTheNewest) {
  pv::reset();
  Line line("gpiochip0", 16, GPIO_V2_LINE_FLAG_INPUT | GPIO_V2_LINE_FLAG_EDGE_RISING, 16);
  Spi spi;
  spi.stream(0x07);
  ASSERT_TRUE(pv::wait_for_samples(30, 5s));
  spi.write(PWR_MGMT0, PWR_MGMT0_SENSORS_OFF);  // stop, so that the count below is exact
  const std::uint64_t produced = pv::samples_produced();
  ASSERT_TRUE(pv::wait_for_edges(produced, 1s));
  usleep(1000);
  gpio_v2_line_event ev[64]{};
  const ssize_t got = ::read(line.fd(), ev, sizeof ev);
  ASSERT_EQ(got, static_cast<ssize_t>(16 * sizeof(gpio_v2_line_event)));
  for (int i = 0; i < 16; ++i) EXPECT_EQ(ev[i].line_seqno, produced - 15 + static_cast<std::uint64_t>(i));
  EXPECT_EQ(pv::counters().events_discarded, produced - 16);
  EXPECT_TRUE(pv::sample(0)->event_discarded);
  EXPECT_FALSE(pv::sample(produced - 1)->event_discarded);
  const int flags = fcntl(line.fd(), F_GETFL);
  ASSERT_EQ(fcntl(line.fd(), F_SETFL, flags | O_NONBLOCK), 0);
  EXPECT_EQ(::read(line.fd(), ev, sizeof ev), -1);
  EXPECT_EQ(errno, EAGAIN);
  EXPECT_EQ(::read(line.fd(), ev, 47), -1);
  EXPECT_EQ(errno, EINVAL);
}

TEST(VboardGpio, RealisticEdgesAreStampedLateReadableLaterAndResetUnplugsDescriptors) {
  const pv::Config config = pv::Config::slow_host();
  const std::uint64_t readable = config.timing.irq_readable_delay_ns;
  ASSERT_GT(readable, 0u);
  pv::reset(config);
  Line line("gpiochip0");
  Spi spi;
  spi.stream(0x07);
  for (int n = 0; n < 10; ++n) {
    gpio_v2_line_event ev{};
    ASSERT_TRUE(line.next(ev));
    const std::uint64_t read_at = raw_ns();
    const auto truth = pv::sample(ev.line_seqno - 1);
    ASSERT_TRUE(truth.has_value());
    EXPECT_GE(truth->irq_latency_ns, config.timing.irq_latency_min_ns);
    EXPECT_EQ(ev.timestamp_ns, truth->event_monotonic_ns);
    EXPECT_GE(ev.timestamp_ns, truth->monotonic_ns + config.timing.irq_latency_min_ns);
    const auto edge = pv::edges(ev.line_seqno - 1, 1);
    ASSERT_EQ(edge.size(), 1u);
    EXPECT_EQ(edge[0].due_raw_ns, truth->raw_ns + truth->irq_latency_ns + readable) << "readable after its stamp";
    EXPECT_GE(read_at, edge[0].due_raw_ns);
  }
  const auto snap = spi.snapshot();
  EXPECT_EQ(snap.result, 8);
  EXPECT_GT(snap.after - snap.before, 2 * pv::kernel_cs_change_delay_ns) << "a realistic message takes time";

  pv::reset();
  pollfd p{line.fd(), POLLIN, 0};
  ASSERT_EQ(::poll(&p, 1, 1000), 1);
  EXPECT_EQ(p.revents, POLLHUP | POLLERR) << "the chip is gone";
  gpio_v2_line_event ev{};
  EXPECT_EQ(::read(line.fd(), &ev, sizeof ev), -1);
  EXPECT_EQ(errno, ENODEV);
  std::uint8_t mode = 0;
  EXPECT_EQ(ioctl(spi.fd(), SPI_IOC_RD_MODE, &mode), -1);
  EXPECT_EQ(errno, ESHUTDOWN);
}

TEST(VboardGpio, PulsesShowBothEdgesAndActiveLowInvertsThem) {
  pv::reset();
  {
    Line both("gpiochip0", 16,
              GPIO_V2_LINE_FLAG_INPUT | GPIO_V2_LINE_FLAG_EDGE_RISING | GPIO_V2_LINE_FLAG_EDGE_FALLING);
    Spi spi;
    spi.stream(0x07);
    gpio_v2_line_event up{}, down{};
    ASSERT_TRUE(both.next(up));
    ASSERT_TRUE(both.next(down));
    EXPECT_EQ(up.id, GPIO_V2_LINE_EVENT_RISING_EDGE);
    EXPECT_EQ(down.id, GPIO_V2_LINE_EVENT_FALLING_EDGE);
    EXPECT_EQ(down.timestamp_ns - up.timestamp_ns, 100000u) << "INT1 pulses for 100 us";
    EXPECT_EQ(down.line_seqno, up.line_seqno + 1);
    spi.write(PWR_MGMT0, PWR_MGMT0_SENSORS_OFF);
  }
  pv::reset();
  Line inverted("gpiochip0", 16,
                GPIO_V2_LINE_FLAG_INPUT | GPIO_V2_LINE_FLAG_ACTIVE_LOW | GPIO_V2_LINE_FLAG_EDGE_RISING);
  gpio_v2_line_values values{};
  values.mask = 1;
  ASSERT_EQ(ioctl(inverted.fd(), GPIO_V2_LINE_GET_VALUES_IOCTL, &values), 0);
  EXPECT_EQ(values.bits, 0u) << "INT1 is active-low after reset: idle high, inactive through ACTIVE_LOW";
  Spi spi;
  spi.write(INT_CONFIG, INT_CONFIG_INT1_PULSED_PUSH_PULL_HIGH);
  ASSERT_EQ(ioctl(inverted.fd(), GPIO_V2_LINE_GET_VALUES_IOCTL, &values), 0);
  EXPECT_EQ(values.bits, 1u) << "active-high and idle: low, so active through ACTIVE_LOW";
  spi.stream(0x07);
  gpio_v2_line_event ev{};
  ASSERT_TRUE(inverted.next(ev));
  EXPECT_EQ(ev.id, GPIO_V2_LINE_EVENT_RISING_EDGE);
  EXPECT_EQ(ev.timestamp_ns, pv::sample(0)->monotonic_ns + 100000) << "the logical rise is the pulse's end";
}

TEST(VboardGpio, NodesOpenRelativeToDevAndSpidevAlwaysPolls) {
  pv::reset();
  const int dev = ::open("/dev", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  ASSERT_GE(dev, 0);
  const int chip = ::openat(dev, "gpiochip0", O_RDONLY | O_CLOEXEC);
  ASSERT_GE(chip, 0);
  gpiochip_info info{};
  EXPECT_EQ(ioctl(chip, GPIO_GET_CHIPINFO_IOCTL, &info), 0);
  EXPECT_STREQ(info.label, "34120000.gpio");
  ::close(chip);
  ::close(dev);
  Spi spi;
  pollfd p{spi.fd(), POLLIN | POLLOUT, 0};
  EXPECT_EQ(::poll(&p, 1, 0), 1);
  EXPECT_EQ(p.revents, POLLIN | POLLOUT);
  EXPECT_EQ(pv::counters().opens, 2u);
}

}  // namespace
