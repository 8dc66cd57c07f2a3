// The emulated sensor over raw spidev traffic: register file, snapshot
// message, FIFO streaming and its packets, and the oscillator arithmetic.
#include <gtest/gtest.h>

#include <cerrno>
#include <cmath>

#include "oscillator.hpp"
#include "wire.hpp"

namespace pv = pelmor_vboard;
using namespace vboard_test;

namespace {

TEST(VboardSensor, RegistersReadBackAsTheChipHoldsThem) {
  pv::reset();
  Spi spi;
  ASSERT_GE(spi.fd(), 0);
  EXPECT_EQ(spi.read1(WHO_AM_I), 0x47);
  EXPECT_EQ(spi.read1(TMST_CONFIG), 0x23);   // power-on values
  EXPECT_EQ(spi.read1(INT_SOURCE0), 0x10);
  EXPECT_EQ(spi.read1(INTF_CONFIG0), 0x30);

  // A masked update as a driver does it: bits outside the mask keep their reset value.
  const std::uint8_t old = spi.read1(TMST_CONFIG);
  ASSERT_EQ(spi.write(TMST_CONFIG,
                      static_cast<std::uint8_t>((old & ~TMST_CONFIG_MASK) | TMST_CONFIG_REGISTER_READ_COUNTER_ON)),
            2);
  EXPECT_EQ(spi.read1(TMST_CONFIG), 0x31);
  EXPECT_EQ(spi.write(GYRO_CONFIG0, 0x07), 2);
  EXPECT_EQ(spi.read1(GYRO_CONFIG0), 0x07);
  spi.write(WHO_AM_I, 0x12);  // read-only
  EXPECT_EQ(spi.read1(WHO_AM_I), 0x47);
  EXPECT_EQ(pv::register_value(0, GYRO_CONFIG0), 0x07);
  EXPECT_EQ(pv::register_bank(0)[TMST_CONFIG], 0x31);

  // Soft reset: the chip ignores traffic for 1 ms (a read in the same message as
  // the reset gets nothing), then holds its power-on values again.
  const auto mark = pv::spi_log_mark();
  std::uint8_t reset_tx[2] = {DEVICE_CONFIG, DEVICE_CONFIG_SOFT_RESET}, read_tx[2] = {WHO_AM_I | SPI_READ_FLAG, 0},
               read_rx[2] = {};
  spi_ioc_transfer x[2]{};
  x[0].tx_buf = reinterpret_cast<std::uintptr_t>(reset_tx);
  x[0].len = 2;
  x[0].cs_change = 1;
  x[1].tx_buf = reinterpret_cast<std::uintptr_t>(read_tx);
  x[1].rx_buf = reinterpret_cast<std::uintptr_t>(read_rx);
  x[1].len = 2;
  ASSERT_EQ(ioctl(spi.fd(), SPI_IOC_MESSAGE(2), x), 4);
  EXPECT_EQ(read_rx[1], 0x00);
  usleep(2000);
  EXPECT_EQ(spi.read1(GYRO_CONFIG0), 0x06);
  EXPECT_EQ(spi.read1(TMST_CONFIG), 0x23);

  const auto log = pv::spi_log(mark);
  ASSERT_EQ(log.size(), 3u);
  EXPECT_EQ(log[0].kind, pv::SpiMessageKind::register_write);
  EXPECT_EQ(log[0].transfer_count, 2u);
  ASSERT_EQ(log[0].writes.size(), 1u);
  EXPECT_EQ(log[0].writes[0].reg, DEVICE_CONFIG);
  EXPECT_EQ(log[0].writes[0].value, 0x01);
  EXPECT_EQ(log[0].writes[0].stored, 0x00) << "the reset bit clears itself";
  ASSERT_EQ(log[1].transfers.size(), 1u);
  const auto& t = log[1].transfers[0];
  EXPECT_EQ(t.len, 2u);
  EXPECT_EQ(t.speed_hz, 4000000u);
  EXPECT_EQ(t.bits_per_word, 8);
  EXPECT_FALSE(t.cs_change);
  EXPECT_EQ(t.tx, (std::vector<std::uint8_t>{0xCF, 0x00}));
  EXPECT_EQ(t.rx, (std::vector<std::uint8_t>{0x00, 0x06}));
}

TEST(VboardSensor, SetupIoctlsFollowSpidevAndLeaveErrnoAlone) {
  pv::reset();
  Spi spi;
  std::uint8_t mode = 0;
  errno = 1234;
  ASSERT_EQ(ioctl(spi.fd(), SPI_IOC_WR_MODE, &mode), 0);
  EXPECT_EQ(errno, 1234);
  std::uint8_t bits = 16;
  EXPECT_EQ(ioctl(spi.fd(), SPI_IOC_WR_BITS_PER_WORD, &bits), -1);
  EXPECT_EQ(errno, EINVAL);
  bits = 8;
  EXPECT_EQ(ioctl(spi.fd(), SPI_IOC_WR_BITS_PER_WORD, &bits), 0);
  std::uint32_t speed = 10000000, back = 0;
  EXPECT_EQ(ioctl(spi.fd(), SPI_IOC_WR_MAX_SPEED_HZ, &speed), 0);
  EXPECT_EQ(ioctl(spi.fd(), SPI_IOC_RD_MAX_SPEED_HZ, &back), 0);
  EXPECT_EQ(back, 10000000u);
  int dummy = 0;
  EXPECT_EQ(ioctl(spi.fd(), FIONREAD, &dummy), -1);
  EXPECT_EQ(errno, ENOTTY);

  // A mode the sensor does not speak garbles every frame.
  mode = SPI_CPHA;
  ASSERT_EQ(ioctl(spi.fd(), SPI_IOC_WR_MODE, &mode), 0);
  EXPECT_EQ(spi.read1(WHO_AM_I), 0xFF);

  // Descriptors that are not the board's pass straight through.
  int p[2];
  ASSERT_EQ(pipe(p), 0);
  const auto before = pv::ioctl_count();
  int pending = -1;
  EXPECT_EQ(ioctl(p[0], FIONREAD, &pending), 0);
  EXPECT_EQ(pending, 0);
  EXPECT_EQ(pv::ioctl_count(), before);
  close(p[0]);
  close(p[1]);
}

// spidev's bounce buffers: transmit and receive are counted apart, each
// transfer rounded up to the DMA alignment (128 on arm64), each total at most
// 4096 bytes.
TEST(VboardSensor, MessagesFitSpidevsBounceBuffers) {
  pv::reset();
  Spi spi;
  // Room for every message below, the refused ones included.
  std::vector<std::uint8_t> tx(4097, 0);
  std::vector<std::uint8_t> rx(4097, 0);
  const auto message = [&](std::initializer_list<std::pair<std::uint32_t, bool>> transfers) {
    std::vector<spi_ioc_transfer> x;
    std::size_t at = 0;
    for (const auto& [len, receive] : transfers) {
      x.push_back(pelmor_lusk::make_spi_transfer(tx.data() + at, receive ? rx.data() + at : nullptr, len, 1000000));
      at += len;
    }
    errno = 0;
    const int r = ioctl(spi.fd(), SPI_IOC_MESSAGE(x.size()), x.data());
    return r < 0 ? -errno : r;
  };
  // 32 transfers of 1 byte each fill 32 * 128 = 4096 bytes of each buffer.
  EXPECT_EQ(message({{1, true}, {1, true}, {1, true}, {1, true}, {1, true}, {1, true}, {1, true}, {1, true},
                     {1, true}, {1, true}, {1, true}, {1, true}, {1, true}, {1, true}, {1, true}, {1, true},
                     {1, true}, {1, true}, {1, true}, {1, true}, {1, true}, {1, true}, {1, true}, {1, true},
                     {1, true}, {1, true}, {1, true}, {1, true}, {1, true}, {1, true}, {1, true}, {1, true}}),
            32);
  EXPECT_EQ(message({{3969, true}, {1, true}}), -EMSGSIZE) << "3969 takes 4096";
  EXPECT_EQ(message({{3968, true}, {128, true}}), 4096);
  EXPECT_EQ(message({{4096, false}, {1, false}}), -EMSGSIZE) << "transmit alone overflows too";
  EXPECT_EQ(message({{2081, true}}), 2081) << "the library's largest FIFO read fits";
}

TEST(VboardSensor, SnapshotMessageLatchesInsideItsBracket) {
  pv::Config cfg;
  cfg.tmst_drift_ppm = 2000.0;
  cfg.tmst_initial_ticks = 0xFFF00;  // wraps within the test
  pv::reset(cfg);
  Spi spi;
  const auto off = spi.snapshot();
  EXPECT_EQ(off.ticks, 0u) << "TMSTVAL stays 0 until TMST_TO_REGS_EN is set";
  spi.write(TMST_CONFIG, TMST_CONFIG_DRIVER);
  const auto mark = pv::spi_log_mark();
  const Spi::Snapshot a = spi.snapshot();
  usleep(20000);
  const Spi::Snapshot b = spi.snapshot();
  EXPECT_EQ(a.result, 8);
  EXPECT_EQ(b.result, 8);
  const auto log = pv::spi_log(mark);
  ASSERT_EQ(log.size(), 4u);
  EXPECT_EQ(log[0].kind, pv::SpiMessageKind::tmst_snapshot);
  EXPECT_EQ(log[1].kind, pv::SpiMessageKind::bank_select);
  ASSERT_EQ(log[0].transfer_count, 3u);
  EXPECT_TRUE(log[0].transfers[0].cs_change);
  EXPECT_TRUE(log[0].transfers[1].cs_change);
  EXPECT_FALSE(log[0].transfers[2].cs_change);
  ASSERT_TRUE(log[0].latched);
  EXPECT_EQ(log[0].latch_raw_ns, log[0].raw_start_ns + 1600) << "ideal: when the strobe's two bytes are out";
  EXPECT_GE(log[0].latch_raw_ns, a.before);
  EXPECT_LE(log[0].latch_raw_ns, a.after);
  EXPECT_EQ(log[0].latch_tmst, a.ticks);
  EXPECT_EQ(log[2].latch_tmst, b.ticks);
  EXPECT_EQ(pv::active_bank(), 0);

  // Ticks advance 2000 ppm fast against RAW (the counter wrapped in between).
  const double dticks = static_cast<double>((b.ticks - a.ticks) & TMST_COUNTER_MASK);
  const double draw = static_cast<double>(log[2].latch_raw_ns - log[0].latch_raw_ns);
  EXPECT_NEAR(dticks * 1000.0 / draw, 1.002, 0.0002);
  EXPECT_EQ(pv::tmst_at(log[2].latch_raw_ns), b.ticks);
}

// Realistic messages run as the kernel's core runs them (spi_transfer_one_message):
// transfers in order, each on the wire for its bytes, chip select released for
// the core's default delay after every cs_change but the last, and the strobe
// latching when its byte is out.
TEST(VboardSensor, RealisticMessagesRunLikeTheKernelsAndTheStrobeLatchesWhenItsByteIsOut) {
  pv::Config cfg = pv::Config::realistic();
  cfg.timing.spi_tail_probability = 0.0;
  cfg.tmst_tick_ns = 1066.67;  // a PLL-clocked counter
  pv::reset(cfg);
  const pv::RealisticTiming& t = cfg.timing;
  constexpr std::uint64_t byte_ns = 800;  // 8 bits at 10 MHz
  Spi spi;
  spi.write(TMST_CONFIG, TMST_CONFIG_DRIVER);
  std::vector<pv::SpiMessageRecord> snapshots;
  for (int round = 0; round < 12; ++round) {
    if (round == 11) usleep(20000);  // a span long enough to read the tick length from
    const auto mark = pv::spi_log_mark();
    const Spi::Snapshot s = spi.snapshot();
    const auto log = pv::spi_log(mark);
    ASSERT_EQ(log.size(), 2u);
    const pv::SpiMessageRecord& m = log[0];
    const auto& x = m.transfers;
    ASSERT_EQ(x.size(), 3u);
    for (const auto& transfer : x) EXPECT_EQ(transfer.raw_wire_end_ns - transfer.raw_wire_start_ns, transfer.len * byte_ns);
    EXPECT_GE(x[0].raw_wire_start_ns - m.raw_start_ns, t.spi_entry_ns + t.spi_transfer_setup_ns);
    EXPECT_EQ(x[1].raw_wire_start_ns - x[0].raw_wire_end_ns, pv::kernel_cs_change_delay_ns + t.spi_transfer_setup_ns);
    EXPECT_EQ(x[2].raw_wire_start_ns - x[1].raw_wire_end_ns, pv::kernel_cs_change_delay_ns + t.spi_transfer_setup_ns);
    EXPECT_GE(m.raw_end_ns - x[2].raw_wire_end_ns, t.spi_return_ns);
    ASSERT_TRUE(m.latched);
    EXPECT_EQ(m.latch_raw_ns, x[0].raw_wire_end_ns);
    EXPECT_EQ(m.latch_tmst, pv::tmst_at(m.latch_raw_ns));
    EXPECT_EQ(m.latch_tmst, s.ticks);
    EXPECT_GE(m.latch_raw_ns, s.before);
    EXPECT_LE(m.raw_end_ns, s.after);
    snapshots.push_back(m);
  }
  // The longer tick: the counter runs 1000 / 1066.67 as fast as RAW.
  const double dticks = static_cast<double>((snapshots.back().latch_tmst - snapshots.front().latch_tmst) & TMST_COUNTER_MASK);
  const double draw = static_cast<double>(snapshots.back().latch_raw_ns - snapshots.front().latch_raw_ns);
  EXPECT_NEAR(dticks / draw * 1000.0, 1000.0 / 1066.67 * (1.0 + cfg.tmst_drift_ppm * 1e-6), 0.0002);

  // Without cs_change the next transfer follows at once; the last one's
  // cs_change keeps the select for the next message and adds no pause.
  std::uint8_t address = FIFO_COUNTH | SPI_READ_FLAG;
  std::uint8_t count[2] = {};
  spi_ioc_transfer read[2] = {
      pelmor_lusk::make_spi_transfer(&address, nullptr, 1, pelmor_lusk::spi_register_speed_hz),
      pelmor_lusk::make_spi_transfer(nullptr, count, 2, pelmor_lusk::spi_register_speed_hz)};
  const auto mark = pv::spi_log_mark();
  ASSERT_EQ(pelmor_lusk::submit_spi_message(spi.fd(), read), 3);
  const auto log = pv::spi_log(mark);
  ASSERT_EQ(log.size(), 1u);
  EXPECT_EQ(log[0].transfers[1].raw_wire_start_ns - log[0].transfers[0].raw_wire_end_ns, t.spi_transfer_setup_ns);
  EXPECT_FALSE(log[0].latched);
}

TEST(VboardSensor, FifoStreamsPacketsAtTheOdr) {
  for (const auto& [code, step] : {std::pair<std::uint8_t, std::uint32_t>{0x07, 5000}, {0x0A, 40000}}) {
    pv::Config cfg;
    cfg.motion.accel_mps2 = {1.0, -2.0, 9.80665};
    cfg.motion.gyro_rad_s = {0.1, 0.0, -0.2};
    pv::reset(cfg);
    Spi spi;
    spi.stream(code);
    ASSERT_TRUE(pv::wait_for_samples(4, 5s));
    spi.write(PWR_MGMT0, PWR_MGMT0_SENSORS_OFF);  // hold the FIFO still
    const std::uint16_t count = spi.fifo_count();
    ASSERT_GE(count, 64);
    ASSERT_EQ(count % 16, 0);
    const auto packets = parse(spi.read(FIFO_DATA, count));
    const auto truth = pv::samples(0);
    ASSERT_GE(truth.size(), packets.size());
    for (std::size_t i = 0; i < packets.size(); ++i) {
      SCOPED_TRACE(i);
      EXPECT_EQ(packets[i].header, 0x68);
      EXPECT_EQ(packets[i].tmst, truth[i].tmst_low16);
      EXPECT_EQ(packets[i].accel[0], 209);   // 1 m/s^2 at 2048 counts per g
      EXPECT_EQ(packets[i].accel[2], 2048);
      EXPECT_EQ(packets[i].gyro[2], -188);   // -0.2 rad/s at 16.4 counts per deg/s
      EXPECT_EQ(packets[i].temperature, 10);  // 30 C
      EXPECT_TRUE(truth[i].in_fifo);
      if (i > 0) {
        EXPECT_EQ(static_cast<std::uint16_t>(packets[i].tmst - packets[i - 1].tmst), step % 65536);
        EXPECT_NEAR(static_cast<double>(truth[i].raw_ns - truth[i - 1].raw_ns), step * 1000.0, 2.0);
      }
    }
    EXPECT_EQ(spi.fifo_count(), 0) << "a read pops what it returned";
  }
}

TEST(VboardSensor, FullFifoLosesTheOldestPacketsAndStartupSentinelsLead) {
  pv::Config cfg;
  cfg.fifo_capacity_bytes = 64;
  cfg.startup_sentinel_samples = 2;
  pv::reset(cfg);
  Spi spi;
  spi.stream(0x07);
  ASSERT_TRUE(pv::wait_for_samples(10, 5s));
  EXPECT_EQ(spi.fifo_count(), 64);
  EXPECT_GE(spi.read1(FIFO_LOST_PKT0), 6);
  const auto packets = parse(spi.read(FIFO_DATA, 64));
  ASSERT_EQ(packets.size(), 4u);
  const auto newest = pv::samples_produced();
  const auto truth = pv::samples(0);
  EXPECT_EQ(truth[0].accel[0], -32768);
  EXPECT_TRUE(truth[1].sentinel);
  EXPECT_FALSE(truth[2].sentinel);
  EXPECT_NE(truth[2].accel[0], -32768);
  // Lost packets never reappear: the kept ones are the newest, in order.
  for (std::size_t i = 1; i < packets.size(); ++i) {
    EXPECT_EQ(static_cast<std::uint16_t>(packets[i].tmst - packets[i - 1].tmst), 5000);
  }
  EXPECT_GE(pv::counters().fifo_lost_packets, 6u);
  EXPECT_GE(newest, 10u);
}

TEST(VboardSensor, OscillatorInvertsItsOwnCounter) {
  pelmor_vboard::detail::Oscillator osc;
  osc.epoch_raw = osc.base_raw = 1000000000000ULL;
  osc.base_ticks = 123.0;
  osc.rebase(osc.base_raw, 2500e-6, 30e-6, 10e9);
  double previous = -1;
  for (std::uint64_t dt = 0; dt < 40000000000ULL; dt += 3333333333ULL) {
    const std::uint64_t raw = osc.base_raw + dt;
    const double t = osc.ticks_at(raw);
    EXPECT_GT(t, previous);
    previous = t;
    EXPECT_LE(std::llabs(static_cast<long long>(osc.raw_at(t) - raw)), 1);
  }
  // Mean rate over a whole wander period is the drift alone.
  const double span = osc.ticks_at(osc.base_raw + 10000000000ULL) - osc.ticks_at(osc.base_raw);
  EXPECT_NEAR(span, 10000000.0 * 1.0025, 1e-3);
}

}  // namespace
