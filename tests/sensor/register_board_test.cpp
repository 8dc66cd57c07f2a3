// Register layer, device setup and the configuration sequence, through the real
// syscalls against the virtual board.
#include <algorithm>

#include "board_fixture.hpp"
#include "common/clock.hpp"
#include "sensor/register_access.hpp"
#include "sensor/sensor_config.hpp"

namespace pelmor_lusk::test {
namespace {

using RegisterAccess = SensorBoard;

// n registers from reg, in frames a caller reuses: whatever they held before,
// the wire sees the address and n zero bytes.
Bytes read_n(const UniqueFd& spi, std::uint8_t reg, std::size_t n) {
  Bytes tx(n + 1, 0xA5);
  Bytes rx(n + 1, 0xA5);
  read_registers_into(spi.get(), reg, tx, rx);
  return Bytes(rx.begin() + 1, rx.end());
}

TEST_F(RegisterAccess, EachOperationIsItsCountOfOneTransferMessages) {
  write_register(spi_.get(), 0x60, 0xF8);
  EXPECT_EQ(read_n(spi_, 0x60, 2), (Bytes{0xF8, 0x00}));
  EXPECT_TRUE(read_n(spi_, 0x60, 0).empty());
  write_register_verified(spi_, 0x60, 0xF8, "v");
  write_register_masked(spi_, 0x60, 0x03, 0x07, "m");
  EXPECT_EQ(vb::register_value(0, 0x60), 0xFB);

  const auto m = log();
  ASSERT_EQ(m.size(), 1U + 1U + 1U + 2U + 3U);
  expect_register_message(m[0], {0x60, 0xF8}, false);
  expect_register_message(m[1], {0xE0, 0, 0}, true);
  expect_register_message(m[2], {0xE0}, true);
  expect_register_message(m[3], {0x60, 0xF8}, false);
  expect_register_message(m[4], {0xE0, 0}, true);
  expect_register_message(m[5], {0xE0, 0}, true);
  expect_register_message(m[6], {0x60, 0xFB}, false);
  expect_register_message(m[7], {0xE0, 0}, true);
  for (const auto& message : m) EXPECT_EQ(message.transfer_count, 1U);
}

TEST_F(RegisterAccess, VerificationComparesWholeByteOrOnlyTheMask) {
  write_register(spi_.get(), 0x60, 0xF8);
  // Read-back 0xFF: bits outside the mask are not compared.
  vb::corrupt_register_read(0, 0x60, 0xF8, 0xF8, vb::Trigger::once(2));
  EXPECT_NO_THROW(write_register_masked(spi_, 0x60, 0x03, 0x07, "m"));
  vb::clear_faults();

  vb::corrupt_register_read(0, 0x60, 0x07, 0x07, vb::Trigger::once(2));
  EXPECT_EQ(thrown_text([&] { write_register_masked(spi_, 0x60, 0x03, 0x07, "INT_CONFIG"); }),
            "failed to verify INT_CONFIG: expected masked 0x3, got 0x7");
  vb::clear_faults();

  vb::corrupt_register_read(0, 0x16, 0xFF, 0x0F);
  EXPECT_EQ(thrown_text([&] { write_register_verified(spi_, icm42688::FIFO_CONFIG_BYPASS_MODE); }),
            "failed to verify FIFO_CONFIG bypass: expected 0x0, got 0xf");
}

TEST_F(RegisterAccess, FailedIoctlsCarryTheErrnoText) {
  vb::fail_spi_message(vb::SpiMessageKind::any, EIO, vb::Trigger::from());
  EXPECT_EQ(thrown_text([&] { read_n(spi_, 0x75, 1); }), "failed to read SPI registers" + errno_suffix(EIO));
  EXPECT_EQ(thrown_text([&] { write_register(spi_.get(), 0x60, 1); }),
            "failed to write SPI register" + errno_suffix(EIO));
  EXPECT_EQ(thrown_text([&] { write_register_verified(spi_, 0x60, 1, "v"); }),
            "failed to write SPI register" + errno_suffix(EIO));
}

TEST(SpiDevice, SetupFailuresNameTheirStep) {
  vb::reset(vb::Config::ideal());
  const char* steps[] = {"failed to set SPI mode", "failed to set SPI bits per word", "failed to set SPI max speed"};
  for (std::uint64_t nth = 1; nth <= 3; ++nth) {
    vb::fail_ioctl(vb::IoctlTarget::spi_setup, EINVAL, vb::Trigger::once(nth));
    EXPECT_EQ(thrown_text([] { open_spi_device(); }), steps[nth - 1] + errno_suffix(EINVAL));
    vb::clear_faults();
  }
  EXPECT_EQ(vb::counters().closes, vb::counters().opens) << "a failed setup closes the descriptor";

  vb::set_spidev_present(false);
  EXPECT_EQ(thrown_text([] { open_spi_device(); }),
            "failed to open SPI device /dev/spidev2.0" + errno_suffix(ENOENT));
}

TEST(FifoWatermark, ClampsToTwelveBits) {
  EXPECT_EQ(clamp_fifo_watermark(1), 1);
  EXPECT_EQ(clamp_fifo_watermark(0x234), 0x234);
  EXPECT_EQ(clamp_fifo_watermark(4096), 4095);
  EXPECT_EQ(clamp_fifo_watermark(UINT32_MAX), 4095);
}

struct ConfigCase {
  std::uint32_t rate_hz;
  std::uint32_t mode;
  std::uint8_t odr;
  std::uint8_t watermark_low, watermark_high;
  std::int64_t sample_off_settle_ms;
};

class ConfigureSensor : public SensorBoard, public ::testing::WithParamInterface<ConfigCase> {};

// The board's log, message by message, against the sequence written out from
// the register map (literal addresses on purpose).
TEST_P(ConfigureSensor, WritesTheSequenceInOrder) {
  const ConfigCase& c = GetParam();
  enum Op { plain, read, verified, masked };
  struct Step {
    Op op;
    std::uint8_t reg, value, mask;
  };
  const Step steps[] = {
      {plain, 0x76, 0x00, 0},    {plain, 0x11, 0x01, 0},    {read, 0x75, 0, 0},
      {verified, 0x4F, c.odr, 0}, {verified, 0x50, c.odr, 0}, {verified, 0x4E, 0x00, 0},
      {masked, 0x14, 0x03, 0x07}, {masked, 0x63, 0x00, 0x3F}, {masked, 0x64, 0x00, 0x10},
      {masked, 0x65, 0x00, 0x7F}, {masked, 0x54, 0x11, 0x1F}, {verified, 0x16, 0x00, 0},
      {masked, 0x4C, 0x30, 0x70}, {verified, 0x5F, 0x0F, 0}, {verified, 0x60, c.watermark_low, 0},
      {verified, 0x61, c.watermark_high, 0}, {plain, 0x4B, 0x02, 0},
  };

  SensorRecord sensor(spi_, c.rate_hz, c.mode);
  configure_sensor(sensor);
  const std::uint64_t returned_ns = read_raw_ns();

  const auto m = log();
  std::size_t i = 0;
  auto next = [&]() -> const vb::SpiMessageRecord& { return m.at(i++); };
  const auto rd = [](std::uint8_t reg) { return Bytes{static_cast<std::uint8_t>(reg | 0x80), 0}; };
  std::uint64_t reset_end = 0, sample_off_end = 0, who_am_i_start = 0, int_config_start = 0;
  for (const Step& s : steps) {
    SCOPED_TRACE(testing::Message() << "register 0x" << std::hex << int{s.reg} << " message " << std::dec << i);
    switch (s.op) {
      case plain:
        if (s.reg == 0x11) reset_end = m.at(i).raw_end_ns;
        expect_register_message(next(), {s.reg, s.value}, false);
        break;
      case read:
        who_am_i_start = m.at(i).raw_start_ns;
        expect_register_message(next(), rd(s.reg), true);
        break;
      case verified:
        expect_register_message(next(), {s.reg, s.value}, false);
        if (s.reg == 0x4E) sample_off_end = m.at(i).raw_end_ns;
        expect_register_message(next(), rd(s.reg), true);
        break;
      case masked: {
        if (s.reg == 0x14) int_config_start = m.at(i).raw_start_ns;
        const vb::SpiMessageRecord& before = next();
        expect_register_message(before, rd(s.reg), true);
        const std::uint8_t old_value = before.transfers.at(0).rx.at(1);
        expect_register_message(next(), {s.reg, merge_masked(old_value, s.value, s.mask)}, false);
        expect_register_message(next(), rd(s.reg), true);
        break;
      }
    }
  }
  EXPECT_EQ(i, m.size()) << "nothing after the flush";

  // Sleeps are lower bounds only: a loaded machine makes them longer, never shorter.
  EXPECT_GE(who_am_i_start - reset_end, 2'000'000U);
  EXPECT_GE(int_config_start - sample_off_end, static_cast<std::uint64_t>(c.sample_off_settle_ms) * 1'000'000U);
  EXPECT_GE(returned_ns - m.back().raw_end_ns, 2'000'000U);

  // Masked writes keep what the reset left outside their masks.
  EXPECT_EQ(vb::register_value(0, 0x54), 0x31);
  EXPECT_EQ(vb::register_value(0, 0x4F), c.odr);
  EXPECT_EQ(vb::register_value(0, 0x61), c.watermark_high);
}

INSTANTIATE_TEST_SUITE_P(BothRates, ConfigureSensor,
                         ::testing::Values(ConfigCase{25, 1, 0x0A, 0x01, 0x00, 41},
                                           ConfigCase{30, 0x10000, 0x07, 0xFF, 0x0F, 6}),
                         [](const auto& test_info) { return "Rate" + std::to_string(test_info.param.rate_hz); });

TEST_F(SensorBoard, WhoAmIMismatchStopsTheSequence) {
  vb::set_who_am_i(0x00);
  SensorRecord sensor(spi_, 25, 1);
  EXPECT_EQ(thrown_text([&] { configure_sensor(sensor); }), "unexpected WHO_AM_I: expected 0x47, got 0x0");
  const auto m = log();
  ASSERT_EQ(m.size(), 3U);
  expect_register_message(m.back(), {0xF5, 0}, true);
}

}  // namespace
}  // namespace pelmor_lusk::test
