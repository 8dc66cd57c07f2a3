// TMST snapshot and FIFO batch reader against the virtual board.
#include <chrono>
#include <memory>
#include <stdexcept>

#include "board_fixture.hpp"
#include "sensor/fifo_reader.hpp"
#include "sensor/register_access.hpp"
#include "sensor/sensor_config.hpp"
#include "sensor/sensor_device.hpp"
#include "sensor/tmst_snapshot.hpp"

namespace pelmor_lusk::test {
namespace {

using vb::SpiMessageKind;

class TmstSnapshotBoard : public SensorBoard {
 protected:
  void SetUp() override {
    SensorBoard::SetUp();
    configure_sensor(SensorRecord(spi_, 25, 1));
    restart_log();
  }
  std::size_t restores() const {
    std::size_t n = 0;
    for (const auto& message : log()) n += message.kind == SpiMessageKind::bank_select ? 1U : 0U;
    return n;
  }
};

TEST_F(TmstSnapshotBoard, OneAtomicMessageThenBank0Restore) {
  const TmstSnapshot snapshot = read_tmst_snapshot(spi_.get());

  const auto m = log();
  ASSERT_EQ(m.size(), 2U);
  ASSERT_EQ(m[0].transfer_count, 3U);
  expect_transfer(m[0].transfers[0], {0x4B, 0x04}, false, 10000000, true);
  expect_transfer(m[0].transfers[1], {0x76, 0x01}, false, 10000000, true);
  expect_transfer(m[0].transfers[2], {0xE2, 0, 0, 0}, true, 10000000, false);
  ASSERT_EQ(m[1].transfer_count, 1U);
  expect_transfer(m[1].transfers[0], {0x76, 0x00}, false, 10000000, false);
  EXPECT_EQ(vb::active_bank(), 0);

  ASSERT_TRUE(m[0].latched);
  EXPECT_EQ(snapshot.tmst_ticks, m[0].latch_tmst);
  EXPECT_LE(snapshot.raw_before_ns, m[0].raw_start_ns);
  EXPECT_LE(m[0].raw_end_ns, snapshot.raw_after_ns);
}

TEST_F(TmstSnapshotBoard, DecodesTheTwentyBitCounter) {
  vb::corrupt_register_read(1, 0x62, 0xFF, 0x34);
  vb::corrupt_register_read(1, 0x63, 0xFF, 0x12);
  vb::corrupt_register_read(1, 0x64, 0xFF, 0xF3);
  const TmstSnapshot snapshot = read_tmst_snapshot(spi_.get());
  EXPECT_EQ(snapshot.tmst_ticks, 0x31234U);
}

TEST_F(TmstSnapshotBoard, FailedSnapshotRestoresOnceAndReportsItsOwnError) {
  vb::short_spi_message(SpiMessageKind::tmst_snapshot, 2);
  EXPECT_EQ(thrown_text([&] { read_tmst_snapshot(spi_.get()); }),
            "short TMST snapshot SPI message: expected 8 bytes, got 6");
  EXPECT_EQ(restores(), 1U);
  EXPECT_EQ(vb::active_bank(), 0);

  // The restore's own failure stays hidden behind the snapshot's errno.
  restart_log();
  vb::fail_spi_message(SpiMessageKind::tmst_snapshot, EIO);
  vb::fail_spi_message(SpiMessageKind::bank_select, EBUSY);
  EXPECT_EQ(thrown_text([&] { read_tmst_snapshot(spi_.get()); }),
            "failed to read TMST snapshot SPI message" + errno_suffix(EIO));
  EXPECT_EQ(log().size(), 2U);
}

TEST_F(TmstSnapshotBoard, FailedRestoreFailsAGoodSnapshot) {
  vb::fail_spi_message(SpiMessageKind::bank_select, EIO);
  EXPECT_EQ(thrown_text([&] { read_tmst_snapshot(spi_.get()); }),
            "failed to restore TMST snapshot bank0" + errno_suffix(EIO));
  vb::short_spi_message(SpiMessageKind::bank_select, 1);
  EXPECT_EQ(thrown_text([&] { read_tmst_snapshot(spi_.get()); }),
            "short TMST bank0 restore SPI message: expected 2 bytes, got 1");

  EXPECT_THROW(read_tmst_snapshot(-1), std::invalid_argument);
  EXPECT_EQ(thrown_text([] { read_tmst_snapshot(-1); }), "TMST SPI snapshot requires a valid fd");
  EXPECT_EQ(thrown_text([] { restore_bank0(-1); }), "TMST SPI bank restore requires a valid fd");
  // Descriptor 0 is a descriptor like any other: the message is tried (and fails,
  // standard input being no spidev).
  EXPECT_THROW(read_tmst_snapshot(0), std::runtime_error);
}

class FifoBoard : public SensorBoard {
 protected:
  const FifoBatch& read_batch() { return read_fifo_batch(spi_.get(), *buffers_); }
  std::unique_ptr<FifoReadBuffers> buffers_ = std::make_unique<FifoReadBuffers>();

  void SetUp() override {
    SensorBoard::SetUp();
    configure_sensor(SensorRecord(spi_, 30, 1));
    restart_log();
  }

  // Streams until at least `bytes` are queued, then freezes the FIFO level.
  std::uint16_t fill_fifo(std::size_t bytes) {
    write_register_verified(spi_, icm42688::PWR_MGMT0_6AXIS_LOW_NOISE);
    write_register_verified(spi_, icm42688::FIFO_CONFIG_STREAM_MODE);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (vb::fifo_level_bytes() < bytes && std::chrono::steady_clock::now() < deadline) {
      vb::wait_for_samples(vb::samples_produced() + 1, std::chrono::milliseconds(100));
    }
    vb::stall_fifo(vb::Trigger::from());
    restart_log();
    return static_cast<std::uint16_t>(vb::fifo_level_bytes());
  }

  // The low byte of the next count reads at the given positions reads as `low`.
  static void tear_count(std::initializer_list<std::uint64_t> reads, std::uint8_t low) {
    for (std::uint64_t nth : reads) vb::corrupt_register_read(0, 0x2F, 0xFF, low, vb::Trigger::once(nth));
  }

  std::size_t messages_of(SpiMessageKind kind) const {
    std::size_t n = 0;
    for (const auto& message : log()) n += message.kind == kind ? 1U : 0U;
    return n;
  }
};

// The count falls between the two reads three times running: the last second
// read is used, and exactly that many bytes are read and parsed.
TEST_F(FifoBoard, ReadsTheCountedPacketsAfterTornCounts) {
  const std::uint16_t level = fill_fifo(48);
  ASSERT_GE(level, 48U);
  ASSERT_LT(level, 240U);
  tear_count({1, 3, 5}, static_cast<std::uint8_t>(level + 16U));
  const FifoBatch batch = read_batch();

  EXPECT_EQ(batch.fifo_byte_count, level);
  ASSERT_EQ(batch.packets.size(), level / 16U);
  EXPECT_EQ(vb::fifo_level_bytes(), 0U);
  EXPECT_EQ(batch.first_packet_header, 0x68);
  std::vector<vb::SampleTruth> in_fifo;
  for (const auto& s : vb::samples()) {
    if (s.in_fifo) in_fifo.push_back(s);
  }
  ASSERT_EQ(in_fifo.size(), batch.packets.size());
  for (std::size_t i = 0; i < in_fifo.size(); ++i) {
    EXPECT_EQ(batch.packets[i].fifo_tmst, in_fifo[i].tmst_low16);
    EXPECT_EQ(batch.packets[i].accel_z, in_fifo[i].accel[2]);
    EXPECT_EQ(batch.packets[i].gyro_x, in_fifo[i].gyro[0]);
  }

  const auto m = log();
  ASSERT_EQ(m.size(), 7U);
  for (std::size_t i = 0; i < 6; ++i) expect_register_message(m[i], {0xAE, 0, 0}, true);
  Bytes data_frame(level + 1U, 0);
  data_frame[0] = 0xB0;
  expect_register_message(m[6], data_frame, true);
  EXPECT_LE(batch.spi_read_start_raw_ns, m[6].raw_start_ns);
  EXPECT_LE(m[6].raw_end_ns, batch.spi_read_end_raw_ns);
}

TEST_F(FifoBoard, CountRulesOnAnEmptyFifo) {
  tear_count({2}, 0x40);  // rising between the two reads: the first, 0, is kept
  EXPECT_EQ(read_batch().fifo_byte_count, 0U);
  EXPECT_EQ(messages_of(SpiMessageKind::fifo_count_read), 2U);

  restart_log();
  tear_count({1}, 0x40);  // falling once, then two agreeing reads
  EXPECT_EQ(read_batch().fifo_byte_count, 0U);
  EXPECT_EQ(messages_of(SpiMessageKind::fifo_count_read), 4U);

  tear_count({1, 2}, 15);
  const FifoBatch empty = read_batch();
  EXPECT_EQ(empty.fifo_byte_count, 15U);
  EXPECT_TRUE(empty.packets.empty());
  EXPECT_EQ(empty.spi_read_start_raw_ns + empty.spi_read_end_raw_ns, 0U);

  vb::corrupt_register_read(0, 0x2E, 0xFF, 0x08, vb::Trigger::from());
  tear_count({1, 2}, 0x21);
  EXPECT_EQ(thrown_text([&] { read_batch(); }),
            "FIFO byte count exceeded the bounded read window: fifo_byte_count=2081, max_fifo_read_bytes=2080");
  EXPECT_EQ(messages_of(SpiMessageKind::fifo_data_read), 0U);

  // 2080 is read in full; the empty FIFO answers with message packets.
  tear_count({1, 2}, 0x20);
  EXPECT_EQ(thrown_text([&] { read_batch(); })
                .rfind("FIFO message packet observed: fifo_byte_count=2080, accepted_packet_count=0, "
                       "first_packet_header=0x80, last_packet_header=0x80, packet_header_valid=1, ",
                       0),
            0U);
  ASSERT_EQ(messages_of(SpiMessageKind::fifo_data_read), 1U);
  EXPECT_EQ(log().back().transfers.at(0).len, 2081U);
}

// The streaming worker's snapshots put bank 0 back once more when they fail:
// the snapshot's own restore may have failed with it.
TEST(SensorDeviceSnapshots, AStreamingSnapshotThatFailsPutsBank0BackOnceMore) {
  vb::reset(vb::Config::ideal());
  SensorDevice sensor(rate_profile_25hz, 1);
  sensor.open_and_configure();
  const auto restores_after = [](std::uint64_t mark) {
    std::size_t n = 0;
    for (const auto& message : vb::spi_log(mark)) n += message.kind == SpiMessageKind::bank_select ? 1U : 0U;
    return n;
  };
  std::uint64_t mark = vb::spi_log_mark();
  vb::fail_spi_message(SpiMessageKind::tmst_snapshot, EIO);
  EXPECT_THROW(sensor.snapshot_restoring_bank0(), std::runtime_error);
  EXPECT_EQ(restores_after(mark), 2U);

  mark = vb::spi_log_mark();
  vb::fail_spi_message(SpiMessageKind::tmst_snapshot, EIO);
  EXPECT_THROW(sensor.snapshot(), std::runtime_error);
  EXPECT_EQ(restores_after(mark), 1U);
}

}  // namespace
}  // namespace pelmor_lusk::test
