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

class DropAccounting : public ::testing::Test {
 protected:
  void drop(std::uint32_t kind = timing_drop_tmst_raw, std::string_view detail = "x",
            std::uint32_t stage = timing_drop_stage_none) {
    record_timing_drop(counters, reference, queue, StepGateResult{true, false, 77, 0, 0}, false, kind,
                       "TMST to RAW timing sample dropped", detail, stage);
  }

  TimingDropCounters counters;
  StepReference reference;
  PendingEventQueue queue;
};

TEST(UncertaintyScan, CountsOnlyValuesAboveTwoHundred) {
  EXPECT_TRUE(detail_has_uncertainty_over_200("a=1, uncertainty_us=201, b=2"));
  EXPECT_FALSE(detail_has_uncertainty_over_200("uncertainty_us=200"));
  EXPECT_FALSE(detail_has_uncertainty_over_200("uncertainty_us=, next=999"));
  EXPECT_TRUE(detail_has_uncertainty_over_200("phase_uncertainty_us=300"));
  EXPECT_TRUE(detail_has_uncertainty_over_200("uncertainty_us=5, fit={uncertainty_us=4294967295}"));
  EXPECT_TRUE(detail_has_uncertainty_over_200("uncertainty_us=99999999999999999999999999"));
}

TEST_F(DropAccounting, FirstEightLoggedInFullThenPeriodicSummaries) {
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
  record_resync_success(counters, recovery_batch_mismatch, 0, 1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(DropAccounting, KindsUncertaintyAndConsumedEvent) {
  queue.push_back(BridgedEvent{});
  testing::internal::CaptureStderr();
  drop(timing_drop_bridge, "uncertainty_us=250");
  drop(7);
  record_timing_drop(counters, reference, queue, StepGateResult{}, true, timing_drop_phase, "m", "d", 0);
  testing::internal::GetCapturedStderr();
  EXPECT_EQ(counters.bridge_drops, 1U);
  EXPECT_EQ(counters.tmst_raw_drops, 1U);
  EXPECT_EQ(counters.phase_drops, 1U);
  EXPECT_EQ(counters.startup_phase_drops + counters.runtime_phase_drops, 0U);
  EXPECT_EQ(counters.uncertainty_over_200_drops, 1U);
  EXPECT_TRUE(queue.empty());
  EXPECT_FALSE(reference.have_reference);  // the last drop had failed its step gate
}

TEST_F(DropAccounting, ResyncSummariesOnlyWhenLandingOnMultiple) {
  counters.total_drops = 250;
  counters.consecutive_drops = 250;
  testing::internal::CaptureStderr();
  record_resync_success(counters, recovery_gpio_sequence_gap, 10, 4);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(counters.total_drops, 260U);
  EXPECT_EQ(counters.max_consecutive_drops, 260U);
  EXPECT_EQ(counters.gpio_sequence_gap_discarded_gpio_events, 4U);

  counters.total_drops = 500;
  testing::internal::CaptureStderr();
  record_resync_success(counters, 9, 12, 0);  // unknown reasons count as batch_mismatch
  const std::vector<std::string> lines = lines_of(testing::internal::GetCapturedStderr());
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_TRUE(is_summary(lines[0], "periodic"));
  EXPECT_EQ(counters.batch_mismatch_resync_drops, 12U);
}

TEST_F(DropAccounting, FinalSummaryOnceAndSuppressedNeverNegative) {
  counters.detailed_logs = 3;
  counters.total_drops = 1;
  testing::internal::CaptureStderr();
  print_final_timing_drop_summary(counters);
  print_final_timing_drop_summary(counters);
  const std::vector<std::string> lines = lines_of(testing::internal::GetCapturedStderr());
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_TRUE(is_summary(lines[0], "final"));
  EXPECT_NE(lines[0].find(" detailed_logs=3 suppressed_logs=0 mapper_failure_count=1"), std::string::npos);
}

}  // namespace
}  // namespace pelmor_lusk
