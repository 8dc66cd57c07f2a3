// Faults injected by the virtual board under the unmodified shared library, each
// ending with its lines and counters.
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <string>
#include <thread>

#include "pelmor.h"
#include "pelmor_vboard.hpp"
#include "support/board_client.hpp"

namespace {

using namespace std::chrono_literals;
using pelmor_test::BoardClient;
using pelmor_test::lines_starting_with;
namespace vb = pelmor_vboard;

pelmor_runtime_health health_of(pelmor_handle handle) {
  pelmor_runtime_health health{};
  health.struct_size = sizeof health;
  EXPECT_EQ(pelmor_get_runtime_health(handle, &health), PELMOR_OK);
  return health;
}

bool contains(const std::string& text, const std::string& piece) { return text.find(piece) != std::string::npos; }

void expect_contiguous_and_increasing(const std::vector<pelmor_test::DeliveredSample>& samples) {
  for (std::size_t i = 0; i < samples.size(); ++i) {
    ASSERT_EQ(samples[i].sample.sample_index, i);
    if (i > 0) {
      ASSERT_GT(samples[i].sample.mapped_timestamp_raw_ns, samples[i - 1].sample.mapped_timestamp_raw_ns);
    }
  }
}

// A driver started on a freshly reset board with stderr captured; finish() stops
// it and returns the captured lines (also into *keep_log when given).
struct FaultRun {
  explicit FaultRun(std::uint32_t rate_hz, std::uint32_t strict = 0, vb::Config config = vb::Config::ideal(),
                    std::string* keep_log = nullptr)
      : client(rate_hz, strict), kept_log(keep_log) {
    vb::reset(config);
    testing::internal::CaptureStderr();
    start_status = pelmor_test::start_on_board(client.handle);
  }
  // A run that ended on a failed assertion still releases stderr, and shows it.
  ~FaultRun() {
    if (!capturing) return;
    const std::string log = finish();
    if (kept_log == nullptr && testing::Test::HasFailure()) std::cout << "--- driver log of the failed run:\n" << log;
  }
  FaultRun(const FaultRun&) = delete;
  FaultRun& operator=(const FaultRun&) = delete;

  std::string finish() {
    pelmor_stop(client.handle);
    if (!capturing) return {};
    capturing = false;
    std::string log = testing::internal::GetCapturedStderr();
    if (kept_log != nullptr) *kept_log = log;
    return log;
  }
  BoardClient client;
  std::string* kept_log;
  std::int32_t start_status = PELMOR_ERR_INTERNAL;
  bool capturing = true;
};

// The faults handed to this runner must end in a successful resync. Rebuilding
// the anchor map judges real clock brackets, and one stretched by a busy machine
// rather than by the fault under test can honestly refuse the map and end the
// worker. Such a run is repeated once; every other failure stands.
template <typename Scenario>
void expect_resync_scenario(Scenario scenario) {
  for (int attempt = 1; attempt <= 2; ++attempt) {
    testing::TestPartResultArray results;
    std::string log;
    {
      testing::ScopedFakeTestPartResultReporter intercept(
          testing::ScopedFakeTestPartResultReporter::INTERCEPT_ONLY_CURRENT_THREAD, &results);
      scenario(log);
    }
    if (results.size() == 0) return;
    const bool timing_refusal = contains(log, ": resync failed: failed to establish TMST to RAW anchor map") ||
                                contains(log, ": resync failed: failed to refresh TMST to RAW anchor map") ||
                                contains(log, ": resync failed: fresh GPIO395 boundary event not observed");
    if (attempt == 1 && timing_refusal) continue;
    for (int i = 0; i < results.size(); ++i) {
      const testing::TestPartResult& r = results.GetTestPartResult(i);
      ADD_FAILURE_AT(r.file_name() != nullptr ? r.file_name() : "?", r.line_number()) << r.message();
    }
    std::cout << "--- driver log of the failed run:\n" << log;
    return;
  }
}

TEST(SequenceGap, ResyncsCountsAndCarriesOn) {
  expect_resync_scenario([](std::string& keep_log) {
    FaultRun run(25, 0, vb::Config::ideal(), &keep_log);
    ASSERT_EQ(run.start_status, PELMOR_OK) << run.finish();
    ASSERT_TRUE(run.client.wait_for_samples(5, 10s));
    vb::drop_edges(vb::Trigger::once());
    const std::size_t before = run.client.sample_count();
    ASSERT_TRUE(run.client.wait_for_samples(before + 10, 15s));
    const std::string log = run.finish();

    const auto resyncs = lines_starting_with(log, "TIMING_BOUNDARY_RESYNC GPIO395 line event sequence gap: ");
    ASSERT_EQ(resyncs.size(), 1U) << log;
    EXPECT_TRUE(contains(resyncs[0], "recovery_reason=gpio_sequence_gap")) << resyncs[0];
    EXPECT_TRUE(contains(resyncs[0], "gpio_trigger_missing_sequence_count=1")) << resyncs[0];
    EXPECT_TRUE(contains(resyncs[0], ", arm_boundary_event=1")) << resyncs[0];
    EXPECT_TRUE(contains(resyncs[0], ", recovery_attempts=1")) << resyncs[0];
    const auto samples = run.client.samples();
    expect_contiguous_and_increasing(samples);
    EXPECT_EQ(samples.back().sample.boundary_resyncs, 1U);
    const pelmor_runtime_health health = health_of(run.client.handle);
    EXPECT_EQ(health.boundary_resyncs, 1U);
    EXPECT_EQ(health.samples_delivered, samples.size());
    const auto summary = lines_starting_with(log, "TIMING_DROP_SUMMARY label=final");
    ASSERT_EQ(summary.size(), 1U);
    EXPECT_TRUE(contains(summary[0], " gpio_sequence_gap_resyncs=1 ")) << summary[0];
  });
}

TEST(SequenceGap, NoticedWhileABatchIsPairedAbandonsThatBatch) {
  expect_resync_scenario([](std::string& keep_log) {
    FaultRun run(30, 0, vb::Config::ideal(), &keep_log);
    ASSERT_EQ(run.start_status, PELMOR_OK) << run.finish();
    ASSERT_TRUE(run.client.wait_for_samples(5, 10s));
    // The next FIFO read takes 80 ms: the edge during it is lost, and the one
    // after, carrying the gap, is read while the batch just read is paired.
    vb::stretch_spi_message(vb::SpiMessageKind::fifo_data_read, 80'000'000, vb::Trigger::once());
    vb::drop_edges(vb::Trigger::once(2));
    const std::size_t before = run.client.sample_count();
    ASSERT_TRUE(run.client.wait_for_samples(before + 10, 15s));
    const std::string log = run.finish();

    EXPECT_EQ(lines_starting_with(log, "TIMING_BOUNDARY_RESYNC ").size(), 1U) << log;
    const auto summary = lines_starting_with(log, "TIMING_DROP_SUMMARY label=final");
    ASSERT_EQ(summary.size(), 1U);
    EXPECT_TRUE(contains(summary[0], " gpio_sequence_gap_resyncs=1 ")) << summary[0];
    EXPECT_TRUE(contains(summary[0], " batch_mismatch_resyncs=0 ")) << summary[0];
    expect_contiguous_and_increasing(run.client.samples());
  });
}

TEST(SequenceGap, IsFatalInStrictMode) {
  FaultRun run(25, 1);
  ASSERT_EQ(run.start_status, PELMOR_OK) << run.finish();
  ASSERT_TRUE(run.client.wait_for_samples(3, 10s));
  vb::drop_edges(vb::Trigger::once());
  ASSERT_TRUE(run.client.wait_until_stopped(10s));
  const std::string log = run.finish();
  const auto fatal = lines_starting_with(log, "imu worker fatal: ");
  ASSERT_EQ(fatal.size(), 1U) << log;
  EXPECT_EQ(fatal[0].rfind("imu worker fatal: GPIO395 line event sequence gap: recovery_reason=gpio_sequence_gap, ", 0),
            0U)
      << fatal[0];
  EXPECT_TRUE(lines_starting_with(log, "TIMING_BOUNDARY_RESYNC").empty()) << log;
}

TEST(MissingEdges, ATimedOutPairingIsABatchMismatchResync) {
  expect_resync_scenario([](std::string& keep_log) {
    FaultRun run(25, 0, vb::Config::ideal(), &keep_log);
    ASSERT_EQ(run.start_status, PELMOR_OK) << run.finish();
    ASSERT_TRUE(run.client.wait_for_samples(3, 10s));
    // One missing edge is absorbed by the next one; a second while behind leaves
    // the pairing wait empty.
    vb::suppress_edges(vb::Trigger::once(2));
    vb::suppress_edges(vb::Trigger::once(4));
    const std::size_t before = run.client.sample_count();
    ASSERT_TRUE(run.client.wait_for_samples(before + 12, 15s));
    const std::string log = run.finish();
    const auto resyncs = lines_starting_with(log, "TIMING_BOUNDARY_RESYNC FIFO/GPIO batch boundary mismatch: ");
    ASSERT_GE(resyncs.size(), 1U) << log;
    EXPECT_TRUE(contains(resyncs[0], "recovery_reason=batch_mismatch, ")) << resyncs[0];
    EXPECT_TRUE(contains(resyncs[0], ", fifo_batch_present=1, ")) << resyncs[0];
    EXPECT_TRUE(contains(resyncs[0], ", pairing_timeout_ms=45, sample_rate_hz=25")) << resyncs[0];
    expect_contiguous_and_increasing(run.client.samples());
    const pelmor_runtime_health health = health_of(run.client.handle);
    EXPECT_EQ(health.boundary_resyncs, 0U);  // only sequence gaps count there
    EXPECT_GE(health.total_drops, 1U);
  });
}

TEST(SpuriousEdge, GoesUnnoticedByThePipelineButShiftsEventStamps) {
  // With no phase calibration an extra edge cannot be told from a real one: the
  // run carries on, and later event stamps belong to the edge before.
  FaultRun run(25);
  ASSERT_EQ(run.start_status, PELMOR_OK) << run.finish();
  ASSERT_TRUE(run.client.wait_for_samples(3, 10s));
  vb::spurious_edges(vb::Trigger::once());
  const std::size_t before = run.client.sample_count();
  ASSERT_TRUE(run.client.wait_for_samples(before + 10, 15s));
  const std::string log = run.finish();
  EXPECT_TRUE(lines_starting_with(log, "TIMING_BOUNDARY_RESYNC").empty()) << log;
  EXPECT_TRUE(lines_starting_with(log, "imu worker fatal").empty()) << log;
  const auto samples = run.client.samples();
  expect_contiguous_and_increasing(samples);
  const auto& last = samples.back().sample;
  // One event too many stays queued: each sample is paired with the edge of the
  // sample before, one period (40 ms) early.
  const double lead_ms =
      (static_cast<double>(last.mapped_timestamp_raw_ns) - static_cast<double>(last.event_timestamp_raw_ns)) / 1e6;
  EXPECT_NEAR(lead_ms, 40.0, 5.0);
}

TEST(StalledWorker, QueueOverflowResyncs) {
  expect_resync_scenario([](std::string& keep_log) {
    FaultRun run(30, 0, vb::Config::ideal(), &keep_log);
    ASSERT_EQ(run.start_status, PELMOR_OK) << run.finish();
    ASSERT_TRUE(run.client.wait_for_samples(3, 10s));
    // A callback that blocks for a second holds the worker while 200 edges queue up.
    static std::atomic<bool> block_once{true};
    block_once = true;
    pelmor_set_callback(
        run.client.handle,
        [](const pelmor_sample*, void*) {
          if (block_once.exchange(false)) std::this_thread::sleep_for(1000ms);
        },
        nullptr);
    std::this_thread::sleep_for(1500ms);
    const vb::Counters at_resume = vb::counters();
    ASSERT_TRUE(vb::wait_for_samples(at_resume.samples + 100, 10s));
    const std::string log = run.finish();
    const auto resyncs = lines_starting_with(log, "TIMING_BOUNDARY_RESYNC too many unmatched GPIO395 events: ");
    ASSERT_EQ(resyncs.size(), 1U) << log;
    EXPECT_TRUE(contains(resyncs[0], "recovery_reason=gpio_queue_overflow, ")) << resyncs[0];
    EXPECT_TRUE(contains(resyncs[0], ", gpio_pending_depth=128, ")) << resyncs[0];
    EXPECT_TRUE(lines_starting_with(log, "imu worker fatal").empty()) << log;
    const pelmor_runtime_health health = health_of(run.client.handle);
    EXPECT_EQ(health.boundary_resyncs, 0U);
    EXPECT_GE(health.total_drops, 100U);
    const auto summary = lines_starting_with(log, "TIMING_DROP_SUMMARY label=final");
    ASSERT_EQ(summary.size(), 1U);
    EXPECT_TRUE(contains(summary[0], " gpio_queue_overflow_resyncs=1 ")) << summary[0];
  });
}

TEST(StretchedSnapshots, StretchedAnchorsAtStartAreRetried) {
  vb::reset(vb::Config::ideal());
  // On a quiet board establishing takes seven snapshots (three to warm up, four
  // accepted fits); the next two, the boundary's first anchors, are stretched.
  const vb::FaultId stretch = vb::stretch_spi_message(vb::SpiMessageKind::tmst_snapshot, 300000, vb::Trigger{8, 2});
  BoardClient client(25);
  testing::internal::CaptureStderr();
  ASSERT_EQ(pelmor_test::start_on_board(client.handle), PELMOR_OK) << testing::internal::GetCapturedStderr();
  EXPECT_TRUE(client.wait_for_samples(3, 10s));
  pelmor_stop(client.handle);
  testing::internal::GetCapturedStderr();
  EXPECT_EQ(vb::fault_hits(stretch), 2U);
}

TEST(StretchedSnapshots, ResyncRetriesThenSucceeds) {
  expect_resync_scenario([](std::string& keep_log) {
    FaultRun run(25, 0, vb::Config::ideal(), &keep_log);
    ASSERT_EQ(run.start_status, PELMOR_OK) << run.finish();
    ASSERT_TRUE(run.client.wait_for_samples(3, 10s));
    vb::stretch_spi_message(vb::SpiMessageKind::tmst_snapshot, 300000, vb::Trigger{1, 20});
    vb::drop_edges(vb::Trigger::once());
    const std::size_t before = run.client.sample_count();
    ASSERT_TRUE(run.client.wait_for_samples(before + 5, 20s));
    const std::string log = run.finish();
    const auto retries = lines_starting_with(log, "TIMING_BOUNDARY_RESYNC_RETRY GPIO395 line event sequence gap: ");
    ASSERT_EQ(retries.size(), 1U) << log;
    EXPECT_TRUE(contains(retries[0],
                         ": attempt=1, reject_reason=anchor_window_too_wide, error=failed to establish TMST "
                         "to RAW anchor map after 16 attempts"))
        << retries[0];
    const auto resyncs = lines_starting_with(log, "TIMING_BOUNDARY_RESYNC GPIO395 line event sequence gap: ");
    ASSERT_EQ(resyncs.size(), 1U) << log;
    EXPECT_TRUE(contains(resyncs[0], ", recovery_attempts=2")) << resyncs[0];
  });
}

TEST(StretchedSnapshots, ExhaustedResyncEndsTheWorker) {
  FaultRun run(25);
  ASSERT_EQ(run.start_status, PELMOR_OK) << run.finish();
  ASSERT_TRUE(run.client.wait_for_samples(3, 10s));
  vb::stretch_spi_message(vb::SpiMessageKind::tmst_snapshot, 300000, vb::Trigger::from());
  vb::drop_edges(vb::Trigger::once());
  ASSERT_TRUE(run.client.wait_until_stopped(20s));
  const std::string log = run.finish();
  EXPECT_EQ(lines_starting_with(log, "TIMING_BOUNDARY_RESYNC_RETRY ").size(), 2U) << log;
  const auto fatal = lines_starting_with(log, "imu worker fatal: ");
  ASSERT_EQ(fatal.size(), 1U) << log;
  EXPECT_EQ(fatal[0].rfind("imu worker fatal: GPIO395 line event sequence gap: resync failed: failed to establish TMST "
                           "to RAW anchor map after 16 attempts, accepted=0: reason=anchor_window_too_wide",
                           0),
            0U)
      << fatal[0];
  EXPECT_TRUE(contains(fatal[0], ", recovery_reason=gpio_sequence_gap, discarded_fifo_samples=")) << fatal[0];
  EXPECT_TRUE(contains(fatal[0], ", recovery_attempts=3")) << fatal[0];
  const auto summary = lines_starting_with(log, "TIMING_DROP_SUMMARY label=final");
  ASSERT_EQ(summary.size(), 1U);
  EXPECT_TRUE(contains(summary[0], " resync_failures=1 ")) << summary[0];
}

TEST(FifoReadFailure, EndsTheWorkerAndCountsABatchFailure) {
  FaultRun run(25);
  ASSERT_EQ(run.start_status, PELMOR_OK) << run.finish();
  ASSERT_TRUE(run.client.wait_for_samples(3, 10s));
  vb::fail_spi_message(vb::SpiMessageKind::fifo_data_read, EIO, vb::Trigger::once());
  ASSERT_TRUE(run.client.wait_until_stopped(10s));
  const std::string log = run.finish();
  const auto fatal = lines_starting_with(log, "imu worker fatal: ");
  ASSERT_EQ(fatal.size(), 1U) << log;
  EXPECT_EQ(fatal[0], "imu worker fatal: failed to read SPI registers, errno=5 (Input/output error)");
  EXPECT_EQ(health_of(run.client.handle).batch_failures, 1U);
}

TEST(ResyncFailure, OnlyAStretchedSnapshotIsWorthAnotherReArm) {
  FaultRun run(25);
  ASSERT_EQ(run.start_status, PELMOR_OK) << run.finish();
  ASSERT_TRUE(run.client.wait_for_samples(3, 10s));
  // Every register write fails from here on: the re-arm cannot quiet the sensor,
  // and no fresh snapshot would change that.
  const vb::FaultId writes = vb::fail_spi_message(vb::SpiMessageKind::register_write, EIO, vb::Trigger::from());
  vb::drop_edges(vb::Trigger::once());
  ASSERT_TRUE(run.client.wait_until_stopped(10s));
  const std::string log = run.finish();
  // The re-arm's quiet down stops at its first write; the one after the failure
  // tries data ready, FIFO bypass and flush whatever fails.
  EXPECT_EQ(vb::fault_hits(writes), 4U);
  EXPECT_TRUE(lines_starting_with(log, "TIMING_BOUNDARY_RESYNC_RETRY ").empty()) << log;
  const auto fatal = lines_starting_with(log, "imu worker fatal: ");
  ASSERT_EQ(fatal.size(), 1U) << log;
  EXPECT_EQ(fatal[0].rfind("imu worker fatal: GPIO395 line event sequence gap: resync failed: failed to write SPI "
                           "register, errno=5 (Input/output error), recovery_reason=gpio_sequence_gap, ",
                           0),
            0U)
      << fatal[0];
  EXPECT_TRUE(contains(fatal[0], ", recovery_attempts=1")) << fatal[0];
}

std::size_t snapshot_messages(const std::vector<vb::SpiMessageRecord>& log) {
  std::size_t count = 0;
  for (const auto& m : log) count += m.kind == vb::SpiMessageKind::tmst_snapshot ? 1 : 0;
  return count;
}

TEST(StartupSentinels, AreSkippedWithAReanchorEverySixteenth) {
  vb::Config config = vb::Config::ideal();
  config.startup_sentinel_samples = 120;
  config.spi_log_capacity = 8192;
  FaultRun run(30, 0, config);
  ASSERT_EQ(run.start_status, PELMOR_OK) << run.finish();
  ASSERT_TRUE(run.client.wait_for_samples(3, 10s));
  const std::string log = run.finish();
  EXPECT_TRUE(lines_starting_with(log, "imu worker fatal").empty()) << log;

  const auto truth = vb::samples();
  std::size_t sentinels_streamed = 0;
  for (const auto& t : truth) sentinels_streamed += (t.sentinel && t.in_fifo) ? 1 : 0;
  ASSERT_GT(sentinels_streamed, 32U);
  const auto samples = run.client.samples();
  EXPECT_EQ(samples[0].sample.total_drops, 0U);
  for (const auto& s : samples) {
    EXPECT_NE(s.sample.raw_words[1], -32768);
  }
  // Establishing (4) + the boundary anchor (1) + one re-anchor per 16 sentinels,
  // then the periodic refreshes of the run (none before 16 accepted samples).
  const std::size_t snapshots = snapshot_messages(vb::spi_log());
  EXPECT_GE(snapshots, 5 + sentinels_streamed / 16);
}

TEST(StartupSentinels, ThatNeverClearAreFatal) {
  vb::Config config = vb::Config::ideal();
  config.startup_sentinel_samples = 1000;
  FaultRun run(30, 0, config);
  ASSERT_EQ(run.start_status, PELMOR_OK) << run.finish();
  ASSERT_TRUE(run.client.wait_until_stopped(20s));
  const std::string log = run.finish();
  const auto fatal = lines_starting_with(log, "imu worker fatal: ");
  ASSERT_EQ(fatal.size(), 1U) << log;
  EXPECT_EQ(fatal[0], "imu worker fatal: IMU FIFO startup sentinel values did not clear");
  EXPECT_EQ(run.client.sample_count(), 0U);
}

const std::string step_gate_failure = "FIFO timestamp step out of 25 Hz gate: ";

TEST(StepGate, AMissingFifoSampleIsABatchMismatchResync) {
  expect_resync_scenario([](std::string& keep_log) {
    FaultRun run(25, 0, vb::Config::ideal(), &keep_log);
    ASSERT_EQ(run.start_status, PELMOR_OK) << run.finish();
    ASSERT_TRUE(run.client.wait_for_samples(3, 10s));
    vb::stall_fifo(vb::Trigger::once());
    const std::size_t before = run.client.sample_count();
    ASSERT_TRUE(run.client.wait_for_samples(before + 5, 15s));
    const std::string log = run.finish();
    const auto resyncs = lines_starting_with(log, "TIMING_BOUNDARY_RESYNC " + step_gate_failure);
    ASSERT_EQ(resyncs.size(), 1U) << log;
    EXPECT_TRUE(contains(resyncs[0], " ticks, fifo_low16=")) << resyncs[0];
    EXPECT_TRUE(contains(resyncs[0], "first_sample=0, min_step_ticks=20000, max_step_ticks=60000")) << resyncs[0];
    EXPECT_TRUE(contains(resyncs[0], ": recovery_reason=batch_mismatch, ")) << resyncs[0];
    expect_contiguous_and_increasing(run.client.samples());
  });
}

TEST(StepGate, AMissingFifoSampleIsFatalInStrictMode) {
  FaultRun run(25, 1);
  ASSERT_EQ(run.start_status, PELMOR_OK) << run.finish();
  ASSERT_TRUE(run.client.wait_for_samples(3, 10s));
  vb::stall_fifo(vb::Trigger::once());
  ASSERT_TRUE(run.client.wait_until_stopped(10s));
  const std::string log = run.finish();
  const auto fatal = lines_starting_with(log, "imu worker fatal: ");
  ASSERT_EQ(fatal.size(), 1U) << log;
  EXPECT_EQ(fatal[0].rfind("imu worker fatal: " + step_gate_failure, 0), 0U) << fatal[0];
}

}  // namespace
