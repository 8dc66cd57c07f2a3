// Every fault the board can inject, observed through raw syscalls.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>

#include "wire.hpp"

namespace pv = pelmor_vboard;
using namespace vboard_test;

namespace {

TEST(VboardFaults, AbsentDevicesAndIdentity) {
  pv::Config cfg;
  cfg.spidev_present = false;
  cfg.chips.clear();
  pv::reset(cfg);
  EXPECT_EQ(::open("/dev/spidev2.0", O_RDWR), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_TRUE(gpiochips().empty());

  pv::reset();
  pv::set_chips({{"gpiochip0", "34120000.gpio", 32, 16}, {"gpiochip1", "34120000.gpio", 32, -1}});
  EXPECT_EQ(gpiochips(), (std::vector<std::string>{"gpiochip0", "gpiochip1"}));
  const int fd = ::open("/dev/gpiochip1", O_RDONLY);
  gpiochip_info info{};
  ASSERT_EQ(ioctl(fd, GPIO_GET_CHIPINFO_IOCTL, &info), 0);
  EXPECT_STREQ(info.label, "34120000.gpio");
  ::close(fd);

  pv::set_who_am_i(0x00);
  Spi spi;
  EXPECT_EQ(spi.read1(WHO_AM_I), 0x00);
  pv::set_spidev_present(false);
  EXPECT_EQ(::open("/dev/spidev2.0", O_RDWR), -1);
}

TEST(VboardFaults, IoctlErrorsOnceOrFromTheNth) {
  pv::reset();
  Spi spi;
  const auto once = pv::fail_ioctl(pv::IoctlTarget::spi_message, EIO, pv::Trigger::once(2));
  int r = 0;
  spi.read(WHO_AM_I, 1, &r);
  EXPECT_EQ(r, 2);
  spi.read(WHO_AM_I, 1, &r);
  EXPECT_EQ(r, -1);
  EXPECT_EQ(errno, EIO);
  spi.read(WHO_AM_I, 1, &r);
  EXPECT_EQ(r, 2);
  EXPECT_EQ(pv::fault_hits(once), 1u);

  pv::fail_ioctl(pv::IoctlTarget::gpio_line_request, EBUSY, pv::Trigger::from(1));
  EXPECT_EQ(Line("gpiochip0").error(), EBUSY);
  EXPECT_EQ(Line("gpiochip0").error(), EBUSY);
  pv::clear_faults();
  EXPECT_GE(Line("gpiochip0").fd(), 0);

  pv::fail_spi_message(pv::SpiMessageKind::tmst_snapshot, ETIMEDOUT, pv::Trigger::once());
  const auto mark = pv::spi_log_mark();
  EXPECT_EQ(spi.snapshot().result, -1);
  const auto log = pv::spi_log(mark);
  ASSERT_FALSE(log.empty());
  EXPECT_EQ(log[0].error_number, ETIMEDOUT);
  EXPECT_FALSE(log[0].latched) << "a failed message never reached the sensor";
}

TEST(VboardFaults, WrongReadBackShortCountAndStretchedSnapshot) {
  pv::reset();
  Spi spi;
  pv::corrupt_register_read(0, FIFO_CONFIG, 0xFF, 0x0F);
  spi.write(FIFO_CONFIG, FIFO_CONFIG_BYPASS);
  EXPECT_EQ(spi.read1(FIFO_CONFIG), 0x0F);
  EXPECT_EQ(pv::register_value(0, FIFO_CONFIG), 0x00) << "the register itself holds what was written";

  pv::short_spi_message(pv::SpiMessageKind::tmst_snapshot, 2, pv::Trigger::once());
  EXPECT_EQ(spi.snapshot().result, 6);
  EXPECT_EQ(spi.snapshot().result, 8);

  spi.write(TMST_CONFIG, TMST_CONFIG_DRIVER);
  const auto mark = pv::spi_log_mark();
  pv::stretch_spi_message(pv::SpiMessageKind::tmst_snapshot, 300000, pv::Trigger::once(2));
  const auto a = spi.snapshot();
  const auto b = spi.snapshot();
  EXPECT_GE(b.after - b.before, 300000u);
  EXPECT_GE(a.result, 0);
  const auto log = pv::spi_log(mark);
  ASSERT_EQ(log.size(), 4u);
  // The snapshot's least time: three transfers' wire and two chip-select pauses.
  constexpr std::uint64_t least_ns = 26400;
  EXPECT_EQ(log[0].raw_end_ns - log[0].raw_start_ns, least_ns) << "only the second snapshot is stretched";
  EXPECT_EQ(log[2].raw_end_ns - log[2].raw_start_ns, least_ns + 300000u);
  // Wherever the pause falls, the strobe's byte comes first and the rest after.
  EXPECT_GE(log[2].latch_raw_ns, log[2].raw_start_ns + 1600);
  EXPECT_LE(log[2].latch_raw_ns, log[2].raw_end_ns - 24800);
  EXPECT_GE(log[2].latch_raw_ns, b.before);
  EXPECT_LE(log[2].latch_raw_ns, b.after);
  EXPECT_EQ(log[2].latch_tmst, b.ticks);
}

// Faults that match the same call all count it: the first hit decides the
// call's error, yet a later one still advances to its own nth. Read-back
// corruptions all apply, in the order they were set.
TEST(VboardFaults, OverlappingFaultsEachCountEveryCall) {
  pv::reset();
  Spi spi;
  const auto first = pv::fail_spi_message(pv::SpiMessageKind::register_read, EIO, pv::Trigger::once(1));
  const auto second = pv::fail_spi_message(pv::SpiMessageKind::any, EBUSY, pv::Trigger::once(2));
  const auto shadowed = pv::fail_spi_message(pv::SpiMessageKind::register_read, ENOMEM, pv::Trigger::once(2));
  int r = 0;
  spi.read(WHO_AM_I, 1, &r);
  EXPECT_EQ(r, -1);
  EXPECT_EQ(errno, EIO);
  spi.read(WHO_AM_I, 1, &r);
  EXPECT_EQ(r, -1);
  EXPECT_EQ(errno, EBUSY) << "the fault set first wins a tie";
  spi.read(WHO_AM_I, 1, &r);
  EXPECT_EQ(r, 2);
  EXPECT_EQ(pv::fault_hits(first), 1u);
  EXPECT_EQ(pv::fault_hits(second), 1u);
  EXPECT_EQ(pv::fault_hits(shadowed), 1u) << "hit, though another decided the call";

  pv::clear_faults();
  pv::corrupt_register_read(0, WHO_AM_I, 0xF0, 0xA0);
  pv::corrupt_register_read(0, WHO_AM_I, 0x3C, 0x00);
  EXPECT_EQ(spi.read1(WHO_AM_I), 0x83) << "0x47 -> 0xA7 -> 0x83";
}

// Line sequence numbers of the next `n` events.
std::vector<std::uint32_t> seqnos(Line& line, int n, std::vector<std::uint64_t>* stamps = nullptr) {
  std::vector<std::uint32_t> out;
  for (int i = 0; i < n; ++i) {
    gpio_v2_line_event ev{};
    if (!line.next(ev)) break;
    out.push_back(ev.line_seqno);
    if (stamps != nullptr) stamps->push_back(ev.timestamp_ns);
  }
  return out;
}

TEST(VboardFaults, EdgeFaultsShowInTheSequenceNumbers) {
  pv::reset();
  Line line("gpiochip0");
  Spi spi;
  const auto drop = pv::drop_edges(pv::Trigger::once(3));
  spi.stream(0x07);
  EXPECT_EQ(seqnos(line, 4), (std::vector<std::uint32_t>{1, 2, 4, 5})) << "a gap at 3";
  EXPECT_EQ(pv::fault_hits(drop), 1u);
  EXPECT_EQ(pv::sample(2)->edge, pv::EdgeOutcome::dropped);
  EXPECT_EQ(pv::sample(2)->line_seqno, 3u);
  EXPECT_TRUE(pv::sample(2)->event_discarded);

  // A gap is an overflow, which loses the oldest unread event: behind a reader
  // that has not read yet, that is the first edge, and the faulted one survives.
  pv::reset();
  Line behind("gpiochip0");
  Spi spi_behind;
  pv::drop_edges(pv::Trigger::once(3));
  spi_behind.stream(0x07);
  ASSERT_TRUE(pv::wait_for_edges(5, 5s));
  EXPECT_EQ(seqnos(behind, 4), (std::vector<std::uint32_t>{2, 3, 4, 5}));
  EXPECT_TRUE(pv::sample(0)->event_discarded);
  EXPECT_FALSE(pv::sample(2)->event_discarded);

  pv::reset();
  Line line2("gpiochip0");
  Spi spi2;
  pv::suppress_edges(pv::Trigger::once(3));
  spi2.stream(0x07);
  std::vector<std::uint64_t> stamps;
  EXPECT_EQ(seqnos(line2, 4, &stamps), (std::vector<std::uint32_t>{1, 2, 3, 4})) << "no gap, one edge missing";
  ASSERT_EQ(stamps.size(), 4u);
  EXPECT_EQ(stamps[1], pv::sample(1)->event_monotonic_ns);
  EXPECT_EQ(stamps[2], pv::sample(3)->event_monotonic_ns) << "sample 2 raised nothing";
  EXPECT_EQ(pv::sample(2)->edge, pv::EdgeOutcome::suppressed);

  pv::reset();
  Line line3("gpiochip0");
  Spi spi3;
  pv::spurious_edges(pv::Trigger::once(2), 1000000);
  spi3.stream(0x07);
  stamps.clear();
  EXPECT_EQ(seqnos(line3, 4, &stamps), (std::vector<std::uint32_t>{1, 2, 3, 4}));
  ASSERT_EQ(stamps.size(), 4u);
  const auto extra = pv::edges(2, 1);
  ASSERT_EQ(extra.size(), 1u);
  EXPECT_EQ(extra[0].sample_index, UINT64_MAX);
  EXPECT_EQ(extra[0].raw_ns, pv::sample(1)->raw_ns + 1000000) << "the extra edge 1 ms after the second";
  EXPECT_EQ(stamps[2], extra[0].event_monotonic_ns);
}

TEST(VboardFaults, SentinelAndStalledFifo) {
  pv::reset();
  Spi spi;
  pv::sentinel_samples(pv::Trigger{3, 2});
  spi.stream(0x07);
  ASSERT_TRUE(pv::wait_for_samples(6, 5s));
  const auto packets = parse(spi.read(FIFO_DATA, 16 * 6));
  ASSERT_EQ(packets.size(), 6u);
  for (std::size_t i = 0; i < 6; ++i) {
    const bool sentinel = i == 2 || i == 3;
    EXPECT_EQ(packets[i].accel[0] == -32768 && packets[i].gyro[2] == -32768, sentinel) << i;
  }

  pv::reset();
  Line line("gpiochip0");
  Spi spi2;
  pv::stall_fifo(pv::Trigger::from(1));
  spi2.stream(0x07);
  EXPECT_EQ(seqnos(line, 5).size(), 5u) << "edges go on";
  EXPECT_EQ(spi2.fifo_count(), 0);
  EXPECT_FALSE(pv::sample(0)->in_fifo);
}

// The reading thread's next two MONOTONIC reads after a hit event are held.
TEST(VboardFaults, BridgeStretchHoldsTheReadersNextTwoMonotonicReads) {
  pv::reset();
  Line line("gpiochip0");
  Spi spi;
  constexpr std::int64_t hold_ns = 20'000'000;
  const auto stretch = pv::stretch_bridge(hold_ns, pv::Trigger::once(2));
  spi.stream(0x07);
  const auto monotonic_ns = [] {
    timespec ts{};
    ::clock_gettime(CLOCK_MONOTONIC, &ts);
    return std::int64_t{ts.tv_sec} * 1'000'000'000 + ts.tv_nsec;
  };
  ASSERT_EQ(seqnos(line, 2).size(), 2u);
  EXPECT_EQ(pv::fault_hits(stretch), 1u);
  const std::int64_t first = monotonic_ns();
  const std::int64_t second = monotonic_ns();
  monotonic_ns();
  EXPECT_GE(second - first, hold_ns);
  ASSERT_EQ(seqnos(line, 1).size(), 1u);
  EXPECT_EQ(pv::fault_hits(stretch), 1u) << "once";
}

TEST(VboardFaults, EnvironmentConfiguresBoardAndFaults) {
  ::setenv("PELMOR_VBOARD_PROFILE", "ideal", 1);
  ::setenv("PELMOR_VBOARD_WHO_AM_I", "0x48", 1);
  ::setenv("PELMOR_VBOARD_CHIPS", "gpiochip2=34120000.gpio:32:16,gpiochip5=x:4:none", 1);
  ::setenv("PELMOR_VBOARD_FAULTS", "spi-short:kind=tmst_snapshot:bytes=2;drop-edge:nth=2;bridge-stretch:ns=1000:count=0", 1);
  pv::reset_from_environment();
  for (const char* name : {"PELMOR_VBOARD_PROFILE", "PELMOR_VBOARD_WHO_AM_I", "PELMOR_VBOARD_CHIPS",
                           "PELMOR_VBOARD_FAULTS"}) {
    ::unsetenv(name);
  }
  EXPECT_EQ(gpiochips(), (std::vector<std::string>{"gpiochip2", "gpiochip5"}));
  EXPECT_EQ(pv::current_config().chips[1].int1_offset, -1);
  Spi spi;
  EXPECT_EQ(spi.read1(WHO_AM_I), 0x48);
  EXPECT_EQ(spi.snapshot().result, 6);
  Line line("gpiochip2");
  spi.stream(0x07);
  EXPECT_EQ(seqnos(line, 2), (std::vector<std::uint32_t>{1, 3}));
}

}  // namespace
