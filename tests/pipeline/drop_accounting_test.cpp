#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "pipeline/drop_accounting.hpp"
#include "pipeline/resync_report.hpp"

namespace pelmor_lusk {
namespace {

std::vector<std::string> lines_of(const std::string& text) {
  std::vector<std::string> out;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) out.push_back(line);
  return out;
}

bool is_summary(const std::string& line, const std::string& label) {
  return line.rfind("TIMING_DROP_SUMMARY label=" + label + " ", 0) == 0;
}

class DropAccountingTest : public ::testing::Test {
 protected:
  void drop(TimingDropKind kind = TimingDropKind::tmst_raw, std::string_view detail = "x",
            TimingDropStage stage = TimingDropStage::none) {
    accounting.record_drop(kind, stage, "TMST to RAW timing sample dropped", detail);
  }
  // Drops counted without capturing what they log.
  void quiet_drops(int count) {
    testing::internal::CaptureStderr();
    for (int i = 0; i < count; ++i) drop();
    testing::internal::GetCapturedStderr();
  }
  const TimingDropCounters& counters() const { return accounting.counters(); }

  DropAccounting accounting;
};

TEST(UncertaintyScan, CountsOnlyValuesAboveTwoHundred) {
  EXPECT_TRUE(detail_has_uncertainty_over_200("a=1, uncertainty_us=201, b=2"));
  EXPECT_FALSE(detail_has_uncertainty_over_200("uncertainty_us=200"));
  // A view ends where it ends, whatever digit follows in memory.
  EXPECT_FALSE(detail_has_uncertainty_over_200(std::string_view("uncertainty_us=2001").substr(0, 18)));
  EXPECT_FALSE(detail_has_uncertainty_over_200("uncertainty_us=, next=999"));
  EXPECT_TRUE(detail_has_uncertainty_over_200("phase_uncertainty_us=300"));
  EXPECT_TRUE(detail_has_uncertainty_over_200("uncertainty_us=5, fit={uncertainty_us=4294967295}"));
  EXPECT_TRUE(detail_has_uncertainty_over_200("uncertainty_us=99999999999999999999999999"));
}

TEST_F(DropAccountingTest, FirstEightLoggedInFullThenPeriodicSummaries) {
  testing::internal::CaptureStderr();
  for (int i = 0; i < 512; ++i) drop();
  const std::vector<std::string> lines = lines_of(testing::internal::GetCapturedStderr());
  ASSERT_EQ(lines.size(), 10U);
  EXPECT_EQ(lines[0], "TMST to RAW timing sample dropped: x, mapper_failure_count=1");
  EXPECT_EQ(lines[7], "TMST to RAW timing sample dropped: x, mapper_failure_count=8");
  EXPECT_TRUE(is_summary(lines[8], "periodic"));
  EXPECT_NE(lines[8].find(" total_drops=256 "), std::string::npos);
  EXPECT_EQ(lines[9],
            "TIMING_DROP_SUMMARY label=periodic total_drops=512 tmst_raw_drops=512 bridge_drops=0 "
            "phase_drops=0 startup_phase_drops=0 runtime_phase_drops=0 batch_mismatch_resyncs=0 "
            "batch_mismatch_resync_drops=0 batch_mismatch_discarded_gpio_events=0 "
            "gpio_sequence_gap_resyncs=0 gpio_sequence_gap_resync_drops=0 "
            "gpio_sequence_gap_discarded_gpio_events=0 gpio_queue_overflow_resyncs=0 "
            "gpio_queue_overflow_resync_drops=0 gpio_queue_overflow_discarded_gpio_events=0 "
            "resync_failures=0 uncertainty_over_200_drops=0 max_consecutive_drops=512 detailed_logs=8 "
            "suppressed_logs=504 mapper_failure_count=512");

  // A resync that discards no samples at 512 must not repeat the summary.
  testing::internal::CaptureStderr();
  accounting.record_resync_success(RecoveryReason::batch_mismatch, 0, 1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(DropAccountingTest, KindsStagesAndUncertainty) {
  testing::internal::CaptureStderr();
  drop(TimingDropKind::bridge, "uncertainty_us=250");
  drop(TimingDropKind::tmst_raw);
  drop(TimingDropKind::phase, "d", TimingDropStage::startup);
  drop(TimingDropKind::phase, "d", TimingDropStage::runtime);
  drop(TimingDropKind::phase, "d", TimingDropStage::none);
  accounting.record_dropped_event();
  testing::internal::GetCapturedStderr();
  const TimingDropCounters& c = counters();
  EXPECT_EQ(c.bridge_drops, 1U);
  EXPECT_EQ(c.tmst_raw_drops, 1U);
  EXPECT_EQ(c.phase_drops, 3U);
  EXPECT_EQ(c.drop_sample_count, 3U);  // only the phase check's
  EXPECT_EQ(c.drop_event_count, 1U);
  EXPECT_EQ(c.startup_phase_drops, 1U);
  EXPECT_EQ(c.runtime_phase_drops, 1U);
  EXPECT_EQ(c.uncertainty_over_200_drops, 1U);
  EXPECT_EQ(c.total_drops, 5U);  // a dropped event is not a dropped sample

  accounting.record_accepted_sample();
  quiet_drops(2);
  EXPECT_EQ(counters().consecutive_drops, 2U);
  EXPECT_EQ(counters().max_consecutive_drops, 5U);
}

TEST_F(DropAccountingTest, ResyncSummariesOnlyWhenLandingOnMultiple) {
  quiet_drops(250);
  testing::internal::CaptureStderr();
  accounting.record_resync_success(RecoveryReason::gpio_sequence_gap, 10, 4);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(counters().total_drops, 260U);
  EXPECT_EQ(counters().max_consecutive_drops, 260U);
  EXPECT_EQ(counters().resyncs(RecoveryReason::gpio_sequence_gap).discarded_gpio_events, 4U);

  quiet_drops(242);  // past the summary at 256, to 502
  testing::internal::CaptureStderr();
  accounting.record_resync_success(RecoveryReason::timing_drop_run, 10, 0);
  const std::vector<std::string> lines = lines_of(testing::internal::GetCapturedStderr());
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_TRUE(is_summary(lines[0], "periodic"));
  EXPECT_NE(lines[0].find(" total_drops=512 "), std::string::npos);
  EXPECT_EQ(counters().resyncs(RecoveryReason::timing_drop_run).drops, 10U);
  EXPECT_EQ(counters().resyncs(RecoveryReason::batch_mismatch).drops, 0U);
}

TEST_F(DropAccountingTest, FinalSummaryOnce) {
  quiet_drops(1);
  testing::internal::CaptureStderr();
  accounting.write_final_summary();
  accounting.write_final_summary();
  const std::vector<std::string> lines = lines_of(testing::internal::GetCapturedStderr());
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_TRUE(is_summary(lines[0], "final"));
  EXPECT_NE(lines[0].find(" detailed_logs=1 suppressed_logs=0 mapper_failure_count=1"), std::string::npos);
}

}  // namespace
}  // namespace pelmor_lusk
