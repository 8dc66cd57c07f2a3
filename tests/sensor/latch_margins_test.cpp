// Where a register write can take effect inside a message, from the kernel's
// rules for running it: lower bounds before and after the byte.
#include <gtest/gtest.h>

#include "sensor/latch_margins.hpp"
#include "sensor/spi_transfer.hpp"

namespace pelmor_lusk {
namespace {

TEST(LatchMargins, SnapshotStrobeHasTheStrobeByteBeforeAndTwoChipSelectPausesAfter) {
  const LatchMargins m = snapshot_latch_margins();
  EXPECT_EQ(m.before_ns, 1600U);                      // two bytes at 10 MHz
  EXPECT_EQ(m.after_ns, 10000U + 1600 + 10000 + 3200);  // pause, bank select, pause, four-byte read
}

TEST(LatchMargins, CountWireTimeDelaysAndPausesOnTheirSide) {
  std::uint8_t tx[4] = {};
  spi_ioc_transfer x[3] = {make_spi_transfer(tx, nullptr, 4, 4000000, true),  // 2 us per byte
                           make_spi_transfer(tx, nullptr, 2, 0, true),        // device speed: unknown, no time
                           make_spi_transfer(tx, nullptr, 1, 8000000, true)};  // last: its cs_change keeps the select
  x[0].word_delay_usecs = 1;
  x[0].delay_usecs = 5;
  x[2].delay_usecs = 2;
  const LatchMargins third_byte = latch_margins(x, 0, 2);
  EXPECT_EQ(third_byte.before_ns, 2U * 3000 + 2000);
  EXPECT_EQ(third_byte.after_ns, 3000U + 5000 + 10000 + 0 + 10000 + 1000 + 2000);
  const LatchMargins last = latch_margins(x, 2, 0);
  EXPECT_EQ(last.before_ns, (3U * 3000 + 2000) + 5000 + 10000 + 10000 + 1000);
  EXPECT_EQ(last.after_ns, 2000U);
  EXPECT_EQ(latch_margins(x, 1, 2).before_ns, 0U) << "no such byte";
  EXPECT_EQ(latch_margins(x, 3, 0).after_ns, 0U) << "no such transfer";
}

}  // namespace
}  // namespace pelmor_lusk
