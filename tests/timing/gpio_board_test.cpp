#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "board_sensor.hpp"
#include "pelmor_vboard.hpp"
#include "timing/gpio_interrupt_line.hpp"
#include "timing_test_support.hpp"

namespace pelmor_lusk {
namespace {

namespace vb = pelmor_vboard;
using testing_support::error_of;

void reset_with_chips(std::vector<std::pair<const char*, const char*>> name_label) {
  vb::Config config = vb::Config::ideal();
  config.chips.clear();
  for (const auto& [name, label] : name_label) {
    vb::ChipConfig chip;
    chip.name = name;
    chip.label = label;
    config.chips.push_back(chip);
  }
  vb::reset(config);
}

TEST(GpioChipDiscovery, FirstLabelledChipInDirectoryOrderWins) {
  // Odd suffixes are queried like any other; the second match is never opened.
  reset_with_chips({{"gpiochip", "34120000.gpi"}, {"gpiochipX", "34120000.gpio"}, {"gpiochip0", "34120000.gpio"}});
  GpioInterruptLine line;
  line.open_interrupt_line();
  EXPECT_EQ(vb::last_line_request()->chip_name, "gpiochipX");
  EXPECT_EQ(vb::counters().opens, 2U);

  // A chip that cannot be queried is passed over without a word.
  reset_with_chips({{"gpiochip0", "34120000.gpio"}, {"gpiochip1", "34120000.gpio"}});
  vb::fail_ioctl(vb::IoctlTarget::gpio_chipinfo, EIO, vb::Trigger::once());
  GpioInterruptLine second;
  testing::internal::CaptureStderr();
  second.open_interrupt_line();
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(vb::last_line_request()->chip_name, "gpiochip1");

  // Nor is one that cannot even be opened.
  vb::Config config = vb::Config::ideal();
  config.chips = {vb::ChipConfig{}, vb::ChipConfig{}};
  config.chips[0].open_errno = EACCES;
  config.chips[1].name = "gpiochip1";
  vb::reset(config);
  GpioInterruptLine third;
  testing::internal::CaptureStderr();
  third.open_interrupt_line();
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(vb::last_line_request()->chip_name, "gpiochip1");
}

TEST(GpioChipDiscovery, FailuresCarryTheirTexts) {
  reset_with_chips({{"gpiochip0", "34120000.gpiox"}, {"gpiochip1", ""}});
  GpioInterruptLine line;
  EXPECT_EQ(error_of<std::runtime_error>([&] { line.open_interrupt_line(); }),
            "failed to locate GPIO chip label 34120000.gpio");
  EXPECT_EQ(vb::counters().opens, vb::counters().closes);

  reset_with_chips({{"gpiochip0", "34120000.gpio"}});
  vb::fail_ioctl(vb::IoctlTarget::gpio_line_request, EBUSY, vb::Trigger::once());
  EXPECT_EQ(error_of<std::runtime_error>([&] { line.open_interrupt_line(); }),
            "failed to request GPIO395 INT1 rising-edge events, errno=16 (Device or resource busy)");
  EXPECT_GE(line.chip_fd(), 0);  // left for the teardown
  EXPECT_EQ(line.line_fd(), -1);
}

TEST(GpioLineRequest, BoardSeesTheExactRecord) {
  reset_with_chips({{"gpiochip0", "34120000.gpio"}});
  GpioInterruptLine line;
  line.open_interrupt_line();
  const auto request = vb::last_line_request();
  ASSERT_TRUE(request.has_value());
  EXPECT_EQ(request->fd, line.line_fd());
  // Offset 16, consumer, flags 0x14, one line, buffer 256; every other byte zero.
  std::vector<std::uint8_t> expected(592, 0);
  expected[0] = 16;
  std::memcpy(&expected[256], "pelmor-int1", 11);
  expected[288] = 0x14;
  expected[560] = 1;
  expected[565] = 1;
  std::vector<std::uint8_t> raw = request->raw;
  ASSERT_EQ(raw.size(), 592U);
  std::fill(raw.begin() + 588, raw.end(), 0);  // fd, the kernel's answer
  EXPECT_EQ(raw, expected);
}

TEST(GpioLineEventsOnBoard, EdgesAreBridgedToTheirTrueInstantAndGapsCounted) {
  reset_with_chips({{"gpiochip0", "34120000.gpio"}});
  GpioInterruptLine line;
  line.open_interrupt_line();
  const auto sensor = testing_support::power_up_sensor(30);

  BridgedEvent e;
  ASSERT_TRUE(line.read_line_event(e, 1000));
  EXPECT_FALSE(e.seqno_gap);
  const vb::FaultId drop = vb::drop_edges(vb::Trigger::once(2));
  int gaps = 0;
  for (int i = 0; i < 8; ++i) {
    ASSERT_TRUE(line.read_line_event(e, 1000)) << i;
    if (e.seqno_gap) {
      EXPECT_EQ(e.missed_line_events, 1U);
      ++gaps;
    }
    for (const vb::EdgeTruth& truth : vb::edges()) {
      if (truth.line_seqno != e.line_seqno || truth.outcome != vb::EdgeOutcome::raised) continue;
      // Off by at most the half window, plus MONOTONIC slew over a few milliseconds.
      const std::uint64_t error = e.raw_ns > truth.raw_ns ? e.raw_ns - truth.raw_ns : truth.raw_ns - e.raw_ns;
      EXPECT_LE(error, e.half_window_ns + 20000) << "seqno " << e.line_seqno;
    }
  }
  EXPECT_EQ(gaps, 1);
  EXPECT_EQ(vb::fault_hits(drop), 1U);
  EXPECT_EQ(line.metrics().events, 9U);

  // A wake-up whose event is gone by the read is no event, and no error.
  vb::fail_line_read(EAGAIN, vb::Trigger::once());
  EXPECT_FALSE(line.read_line_event(e, 1000));
  EXPECT_TRUE(line.read_line_event(e, 1000));
  EXPECT_FALSE(e.seqno_gap);
  vb::fail_line_read(EIO, vb::Trigger::once());
  EXPECT_EQ(error_of<std::runtime_error>([&] { line.read_line_event(e, 1000); }),
            "read GPIO395 line event, errno=5 (Input/output error)");
}

}  // namespace
}  // namespace pelmor_lusk
