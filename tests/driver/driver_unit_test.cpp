// Lifecycle pieces that need no device: construction, epochs, the health record, the
// scheduler status line.
#include <gtest/gtest.h>

#include <sched.h>

#include <stdexcept>

#include "driver/driver.hpp"
#include "driver/scheduler_status.hpp"

namespace {

using namespace pelmor_lusk;

TEST(DriverConstruction, RefusesAnUnsupportedRate) {
  EXPECT_NO_THROW(Driver::Impl(25, RunOptions{}));
  EXPECT_NO_THROW(Driver::Impl(30, RunOptions{true, false, false}));
  try {
    Driver::Impl bad(26, RunOptions{});
    FAIL();
  } catch (const std::invalid_argument& e) {
    EXPECT_STREQ(e.what(), "unsupported sample_rate_hz; expected 25 or 30");
  }
}

TEST(Epochs, WrapToOneNeverZero) {
  EXPECT_EQ(next_epoch(0), 1U);
  EXPECT_EQ(next_epoch(1), 2U);
  EXPECT_EQ(next_epoch(0xFFFFFFFEU), 0xFFFFFFFFU);
  EXPECT_EQ(next_epoch(0xFFFFFFFFU), 1U);
}

TEST(HealthSnapshot, CarriesTheRunCountersAndZeroReservedWords) {
  TimingDropCounters drops;
  drops.boundary_resyncs = 2;
  drops.batch_failures = 3;
  drops.total_drops = 40;
  drops.uncertainty_over_200_drops = 5;
  drops.max_consecutive_drops = 6;
  drops.resync_failures = 99;  // not part of the record
  const pelmor_runtime_health h = make_health_snapshot(7, 1234, drops);
  EXPECT_EQ(h.struct_size, 48U);
  EXPECT_EQ(h.epoch, 7U);
  EXPECT_EQ(h.samples_delivered, 1234U);
  EXPECT_EQ(h.boundary_resyncs, 2U);
  EXPECT_EQ(h.batch_failures, 3U);
  EXPECT_EQ(h.total_drops, 40U);
  EXPECT_EQ(h.uncertainty_over_200_drops, 5U);
  EXPECT_EQ(h.max_consecutive_drops, 6U);
  EXPECT_EQ(h.reserved0, 0U);
  EXPECT_EQ(h.reserved1, 0U);
}

TEST(SchedulerStatus, OneLineWithWhatWasAskedAndWhatWasGot) {
  EXPECT_EQ(format_scheduler_status(true, 0, SCHED_FIFO, 82, 0),
            "imu worker scheduler status: requested_policy=SCHED_FIFO requested_priority=82 set_result=ok "
            "set_errno=0 effective_policy=SCHED_FIFO effective_priority=82 nice=0");
  // A refusal keeps its errno, and a policy outside the known ones is named as such.
  EXPECT_EQ(format_scheduler_status(false, 1, 4, 0, -5),
            "imu worker scheduler status: requested_policy=SCHED_FIFO requested_priority=82 set_result=failed "
            "set_errno=1 effective_policy=unknown effective_priority=0 nice=-5");
}

}  // namespace
