// The unmodified shared library on the virtual board, through the public C
// interface: full runs at both rates and the lifecycle around them.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <string>
#include <thread>

#include "pelmor.h"
#include "pelmor_vboard.hpp"
#include "support/board_client.hpp"
#include "support/board_truth.hpp"

namespace {

using namespace std::chrono_literals;
using pelmor_test::BoardClient;
using pelmor_test::lines_starting_with;
using pelmor_test::truth_for;
namespace vb = pelmor_vboard;

pelmor_runtime_health read_health(pelmor_handle handle, std::int32_t* status) {
  pelmor_runtime_health health{};
  health.struct_size = sizeof health;
  *status = pelmor_get_runtime_health(handle, &health);
  return health;
}

struct RunCase {
  std::uint32_t rate_hz;
  vb::Profile profile;
  std::uint32_t flags = 0;
};

class FullRun : public testing::TestWithParam<RunCase> {};

TEST_P(FullRun, DeliversHonestContiguousSamplesAndReportsTheRun) {
  const RunCase run = GetParam();
  vb::Config config = run.profile == vb::Profile::ideal ? vb::Config::ideal() : vb::Config::realistic();
  config.motion.accel_mps2 = {1.0, -2.0, 9.80665};
  config.motion.gyro_rad_s = {0.5, -0.25, 0.0};
  config.motion.temperature_c = 31.0;
  vb::reset(config);

  BoardClient client(run.rate_hz, 0, run.flags);
  ASSERT_EQ(client.create_status, PELMOR_OK);
  testing::internal::CaptureStderr();
  const std::int32_t start_status = pelmor_test::start_on_board(client.handle);
  const std::uint64_t started_at = pelmor_test::raw_now_ns();
  const std::size_t wanted = 3 * run.rate_hz;  // about three seconds
  const bool got_them = client.wait_for_samples(wanted, 15s);
  const std::uint64_t stopped_at = pelmor_test::raw_now_ns();
  const int running_before_stop = pelmor_is_running(client.handle);
  EXPECT_EQ(pelmor_stop(client.handle), PELMOR_OK);
  const std::string log = testing::internal::GetCapturedStderr();
  ASSERT_EQ(start_status, PELMOR_OK) << log;
  ASSERT_TRUE(got_them) << log;
  EXPECT_EQ(running_before_stop, 1) << log;

  const auto delivered = client.samples();
  // Rate: within one sample per second of the elapsed time (plus the last period).
  const double seconds = static_cast<double>(stopped_at - started_at) / 1e9;
  EXPECT_NEAR(static_cast<double>(delivered.size()), seconds * run.rate_hz, seconds + 2.0);

  const auto truth = vb::samples();
  std::uint64_t previous_mapped = 0;
  for (std::size_t i = 0; i < delivered.size(); ++i) {
    const pelmor_sample& s = delivered[i].sample;
    ASSERT_EQ(s.struct_size, 120U);
    ASSERT_EQ(s.sample_index, i);
    ASSERT_GT(s.mapped_timestamp_raw_ns, previous_mapped) << i;
    previous_mapped = s.mapped_timestamp_raw_ns;
    ASSERT_LE(s.phase_uncertainty_us, 200U);
    const auto t = truth_for(truth, s);
    ASSERT_TRUE(t.has_value()) << "no truth for sample " << i;
    const double error_ns = std::fabs(static_cast<double>(s.mapped_timestamp_raw_ns) - static_cast<double>(t->raw_ns));
    EXPECT_LE(error_ns, s.phase_uncertainty_us * 1000.0) << "sample " << i;
    // The event is the edge that announced this very sample (the bridge has
    // an uncertainty of its own).
    EXPECT_GE(s.event_timestamp_raw_ns + 20000, t->raw_ns) << i;
    EXPECT_LT(s.event_timestamp_raw_ns, t->raw_ns + 1000000) << i;
    EXPECT_NEAR(s.accel_mps2[0], t->accel[0] * 0.00048828125 * 9.80665, 1e-12);
    EXPECT_NEAR(s.gyro_radps[1], t->gyro[1] / 16.4 * 0.017453292519943295, 1e-12);
    EXPECT_NEAR(s.temperature_c, t->temperature / 2.07 + 25.0, 1e-12);
    EXPECT_EQ(s.raw_words[0], t->temperature);
    EXPECT_EQ(s.raw_words[1], t->accel[0]);
    EXPECT_EQ(s.raw_words[6], t->gyro[2]);
    EXPECT_LE(delivered[i].callback_raw_ns, stopped_at + 1000000000ULL);
  }
  // With the bracket fit the stated bound is the constraints' half-width, a
  // few microseconds on this board; the specified sum is tens.
  if ((run.flags & PELMOR_FLAG_BRACKET_FIT) != 0) {
    std::vector<std::uint32_t> stated;
    for (const auto& d : delivered) stated.push_back(d.sample.phase_uncertainty_us);
    std::nth_element(stated.begin(), stated.begin() + static_cast<std::ptrdiff_t>(stated.size() / 2), stated.end());
    EXPECT_LE(stated[stated.size() / 2], 20U);
  }
  // The board's signal came through the conversions.
  EXPECT_NEAR(delivered.back().sample.accel_mps2[0], 1.0, 0.01);
  EXPECT_NEAR(delivered.back().sample.accel_mps2[2], 9.80665, 0.01);
  EXPECT_NEAR(delivered.back().sample.gyro_radps[0], 0.5, 0.01);
  EXPECT_NEAR(delivered.back().sample.temperature_c, 31.0, 0.5);

  const auto scheduling =
      lines_starting_with(log, "imu worker scheduler status: requested_policy=SCHED_FIFO requested_priority=82 ");
  ASSERT_EQ(scheduling.size(), 1U) << log;
  // Granted or refused, the line says what the thread really runs with.
  if (scheduling[0].find(" set_result=ok set_errno=0 ") != std::string::npos) {
    EXPECT_NE(scheduling[0].find(" effective_policy=SCHED_FIFO effective_priority=82 "), std::string::npos)
        << scheduling[0];
  } else {
    EXPECT_EQ(scheduling[0].find(" set_errno=0 "), std::string::npos) << scheduling[0];
  }
  const auto summaries = lines_starting_with(log, "TIMING_DROP_SUMMARY label=final ");
  ASSERT_EQ(summaries.size(), 1U) << log;
  EXPECT_EQ(lines_starting_with(log, "GPIO395 bridge metrics: events=").size(), 1U) << log;
  // A run whose bridge never refused an edge has an empty trace, and prints none.
  if (GetParam().profile == vb::Profile::ideal) {
    EXPECT_TRUE(lines_starting_with(log, "GPIO395 bridge trace").empty()) << log;
  }
  EXPECT_TRUE(lines_starting_with(log, "imu worker fatal").empty()) << log;

  std::int32_t status = 0;
  const pelmor_runtime_health health = read_health(client.handle, &status);
  ASSERT_EQ(status, PELMOR_OK);
  EXPECT_EQ(health.epoch, 1U);
  EXPECT_EQ(health.samples_delivered, delivered.size());
  EXPECT_EQ(health.total_drops, delivered.back().sample.total_drops);
  EXPECT_EQ(health.boundary_resyncs, delivered.back().sample.boundary_resyncs);
  EXPECT_EQ(health.batch_failures, 0U);
}

INSTANTIATE_TEST_SUITE_P(Rates, FullRun,
                         testing::Values(RunCase{25, vb::Profile::ideal}, RunCase{30, vb::Profile::ideal},
                                         RunCase{25, vb::Profile::realistic}, RunCase{30, vb::Profile::realistic},
                                         RunCase{25, vb::Profile::realistic, PELMOR_FLAG_BRACKET_FIT},
                                         RunCase{30, vb::Profile::realistic, PELMOR_FLAG_BRACKET_FIT}),
                         [](const testing::TestParamInfo<RunCase>& param_info) {
                           return std::to_string(param_info.param.rate_hz) + "Hz_" +
                                  (param_info.param.profile == vb::Profile::ideal ? "ideal" : "realistic") +
                                  (param_info.param.flags & PELMOR_FLAG_BRACKET_FIT ? "_bracket_fit" : "");
                         });

// The register writes of the last start from the end of its configuration to
// the FIFO streaming, "S" for a run of timestamp snapshots: quiet down, low
// noise, the anchor map, then the boundary arm with its own quiet down.
std::string start_write_trace(const std::vector<vb::SpiMessageRecord>& log) {
  std::string trace;
  int sample_off_writes = 0;
  for (const vb::SpiMessageRecord& m : log) {
    if (m.kind == vb::SpiMessageKind::tmst_snapshot) {
      if (sample_off_writes == 2 && trace.compare(trace.size() - 2, 2, "S ") != 0) trace += "S ";
      continue;
    }
    for (const vb::RegisterWrite& w : m.writes) {
      if (w.reg == 0x11 && w.value == 0x01) {  // soft reset: a (re)started configuration
        sample_off_writes = 0;
        trace.clear();
      }
      if (w.reg == 0x4E && w.value == 0x00) ++sample_off_writes;
      if (sample_off_writes < 2 || w.reg == 0x76) continue;
      char text[16];
      std::snprintf(text, sizeof text, "%02x=%02x ", w.reg, w.value);
      trace += text;
      if (w.reg == 0x16 && w.value == 0x40) return trace;
    }
  }
  return trace;
}

TEST(StartSequence, QuietsDownBuildsTheMapThenArmsTheBoundary) {
  vb::Config config = vb::Config::ideal();
  config.spi_log_capacity = 8192;
  vb::reset(config);
  BoardClient client(25);
  testing::internal::CaptureStderr();
  const std::int32_t status = pelmor_test::start_on_board(client.handle);
  pelmor_stop(client.handle);
  const std::string log = testing::internal::GetCapturedStderr();
  ASSERT_EQ(status, PELMOR_OK) << log;
  EXPECT_EQ(start_write_trace(vb::spi_log()),
            "4e=00 65=00 16=00 4b=02 4e=0f S 65=00 16=00 4b=02 65=08 S 16=40 ")
      << log;
}

TEST(Lifecycle, SecondStartWhileRunningIsRefusedWithoutDisturbingTheRun) {
  vb::reset(vb::Config::ideal());
  BoardClient client(30);
  testing::internal::CaptureStderr();
  ASSERT_EQ(pelmor_test::start_on_board(client.handle), PELMOR_OK);
  ASSERT_TRUE(client.wait_for_samples(5, 10s));
  EXPECT_EQ(pelmor_start(client.handle), PELMOR_ERR_INVALID_STATE);
  const std::size_t before = client.sample_count();
  EXPECT_TRUE(client.wait_for_samples(before + 5, 10s));
  EXPECT_EQ(pelmor_is_running(client.handle), 1);
  std::int32_t status = 0;
  read_health(client.handle, &status);
  EXPECT_EQ(status, PELMOR_ERR_INVALID_STATE);
  EXPECT_EQ(pelmor_stop(client.handle), PELMOR_OK);
  EXPECT_EQ(pelmor_stop(client.handle), PELMOR_OK);
  const std::string log = testing::internal::GetCapturedStderr();
  EXPECT_TRUE(lines_starting_with(log, "ICM-42688 start failed: IMU driver is already running").empty()) << log;
  EXPECT_EQ(lines_starting_with(log, "TIMING_DROP_SUMMARY label=final").size(), 1U) << log;
}

struct StartFault {
  const char* name;
  void (*inject)();
  const char* line_prefix;
  bool saw_edges = false;  // the INT1 line had read edges when the start failed
};

class StartFailure : public testing::TestWithParam<StartFault> {};

TEST_P(StartFailure, LeavesTheDriverStoppedWithNothingOpenAndALaterStartWorks) {
  const StartFault& fault = GetParam();
  vb::reset(vb::Config::ideal());
  BoardClient client(30);
  const int fds_before = pelmor_test::open_fd_count();

  fault.inject();
  testing::internal::CaptureStderr();
  const std::int32_t status = pelmor_start(client.handle);
  const std::string log = testing::internal::GetCapturedStderr();
  EXPECT_EQ(status, PELMOR_ERR_IO) << log;
  const auto lines = lines_starting_with(log, "ICM-42688 start failed: ");
  ASSERT_EQ(lines.size(), 1U) << log;
  EXPECT_EQ(lines[0].rfind(std::string("ICM-42688 start failed: ") + fault.line_prefix, 0), 0U) << lines[0];
  EXPECT_EQ(pelmor_is_running(client.handle), 0);
  EXPECT_EQ(pelmor_test::open_fd_count(), fds_before);
  std::int32_t health_status = 0;
  read_health(client.handle, &health_status);
  EXPECT_EQ(health_status, PELMOR_ERR_INVALID_STATE);
  EXPECT_TRUE(lines_starting_with(log, "TIMING_DROP_SUMMARY").empty()) << log;
  // The line's bridge metrics are reported once it has read edges.
  EXPECT_EQ(lines_starting_with(log, "GPIO395 bridge metrics: events=").size(), fault.saw_edges ? 1U : 0U)
      << log;

  vb::clear_faults();
  vb::set_spidev_present(true);
  vb::set_chips({vb::ChipConfig{}});
  vb::set_who_am_i(0x47);
  testing::internal::CaptureStderr();
  ASSERT_EQ(pelmor_test::start_on_board(client.handle), PELMOR_OK) << testing::internal::GetCapturedStderr();
  EXPECT_TRUE(client.wait_for_samples(3, 10s));
  EXPECT_EQ(pelmor_stop(client.handle), PELMOR_OK);
  testing::internal::GetCapturedStderr();
  const pelmor_runtime_health health = read_health(client.handle, &health_status);
  EXPECT_EQ(health_status, PELMOR_OK);
  EXPECT_GE(health.epoch, 1U);

  // A failed start withdraws the record of the run before it.
  fault.inject();
  testing::internal::CaptureStderr();
  EXPECT_EQ(pelmor_start(client.handle), PELMOR_ERR_IO);
  testing::internal::GetCapturedStderr();
  read_health(client.handle, &health_status);
  EXPECT_EQ(health_status, PELMOR_ERR_INVALID_STATE);
}

INSTANTIATE_TEST_SUITE_P(
    EachStep, StartFailure,
    testing::Values(
        StartFault{"no_spidev", [] { vb::set_spidev_present(false); },
                   "failed to open SPI device /dev/spidev2.0, errno=2 (No such file or directory)"},
        StartFault{"spi_mode", [] { vb::fail_ioctl(vb::IoctlTarget::spi_setup, EIO); },
                   "failed to set SPI mode, errno=5 (Input/output error)"},
        StartFault{"spi_max_speed", [] { vb::fail_ioctl(vb::IoctlTarget::spi_setup, EINVAL, vb::Trigger::once(3)); },
                   "failed to set SPI max speed, errno=22"},
        StartFault{"who_am_i", [] { vb::set_who_am_i(0x00); }, "unexpected WHO_AM_I: expected 0x47, got 0x0"},
        StartFault{"gyro_config_readback",
                   [] { vb::corrupt_register_read(0, 0x4F, 0xFF, 0x01); },
                   "failed to verify GYRO_CONFIG0: expected 0x7, got 0x1"},
        StartFault{"spi_io_error", [] { vb::fail_spi_message(vb::SpiMessageKind::register_write, EIO, vb::Trigger::once(6)); },
                   "failed to write SPI register, errno=5 (Input/output error)"},
        StartFault{"no_gpio_chip", [] { vb::set_chips({}); }, "failed to locate GPIO chip label 34120000.gpio"},
        StartFault{"line_request", [] { vb::fail_ioctl(vb::IoctlTarget::gpio_line_request, EBUSY); },
                   "failed to request GPIO395 INT1 rising-edge events, errno=16 (Device or resource busy)"},
        StartFault{"anchor_map",
                   [] { vb::stretch_spi_message(vb::SpiMessageKind::tmst_snapshot, 300000, vb::Trigger::from()); },
                   "failed to establish TMST to RAW anchor map after 16 attempts, accepted=0: reason=anchor_window_too_wide"},
        StartFault{"boundary_edge", [] { vb::suppress_edges(vb::Trigger::from()); },
                   "GPIO395 boundary event not observed before FIFO arm"},
        // Seven snapshots establish the map on a quiet board; the boundary's are stretched.
        StartFault{"boundary_anchor",
                   [] { vb::stretch_spi_message(vb::SpiMessageKind::tmst_snapshot, 300000, vb::Trigger::from(8)); },
                   "failed to refresh TMST to RAW anchor map at FIFO/GPIO boundary: reason=anchor_window_too_wide", true}),
    [](const testing::TestParamInfo<StartFault>& param_info) { return std::string(param_info.param.name); });

// After a failed snapshot the sensor is put back in bank 0 once, by the
// snapshot itself; only the periodic refresh while streaming tries once more.
TEST(FailedSnapshot, PutsBank0BackOnceExceptInThePeriodicRefresh) {
  // Bank selections in the SPI log after the failed snapshot message.
  const auto restores_after_failure = [] {
    const auto log = vb::spi_log();
    std::size_t failed = log.size();
    for (std::size_t i = 0; i < log.size(); ++i) {
      if (log[i].kind == vb::SpiMessageKind::tmst_snapshot && log[i].result < 0) failed = i;
    }
    std::size_t restores = 0;
    for (std::size_t i = failed + 1; i < log.size(); ++i) {
      restores += log[i].kind == vb::SpiMessageKind::bank_select ? 1U : 0U;
    }
    return failed < log.size() ? restores : 99U;
  };
  vb::Config config = vb::Config::ideal();
  config.spi_log_capacity = 8192;

  // Seven snapshots establish the map on a quiet board; the eighth arms the boundary.
  vb::reset(config);
  BoardClient client(25);
  vb::fail_spi_message(vb::SpiMessageKind::tmst_snapshot, EIO, vb::Trigger::once(8));
  testing::internal::CaptureStderr();
  EXPECT_EQ(pelmor_start(client.handle), PELMOR_ERR_IO);
  std::string log = testing::internal::GetCapturedStderr();
  EXPECT_EQ(lines_starting_with(log, "ICM-42688 start failed: failed to read TMST snapshot SPI message").size(), 1U)
      << log;
  EXPECT_EQ(restores_after_failure(), 1U);

  // Once streaming, the next snapshot normally is the periodic refresh every
  // sixteenth sample. A loaded machine may take another first: the young map's
  // brackets widen and it refreshes early, or a late edge re-arms. Those restore
  // once as well; such a run is repeated until a periodic refresh has failed.
  // Past the first refresh the map spans long enough that early ones are rare.
  bool refresh_failed = false;
  for (int attempt = 0; attempt < 8 && !refresh_failed; ++attempt) {
    vb::reset(config);
    BoardClient streaming(25);
    testing::internal::CaptureStderr();
    ASSERT_EQ(pelmor_test::start_on_board(streaming.handle), PELMOR_OK);
    ASSERT_TRUE(streaming.wait_for_samples(17, 10s));
    vb::fail_spi_message(vb::SpiMessageKind::tmst_snapshot, EIO, vb::Trigger::once());
    EXPECT_TRUE(streaming.wait_until_stopped(10s));
    pelmor_stop(streaming.handle);
    log = testing::internal::GetCapturedStderr();
    EXPECT_EQ(lines_starting_with(log, "imu worker fatal: failed to read TMST snapshot SPI message").size(), 1U) << log;
    refresh_failed = streaming.sample_count() % 16U == 0U;
    EXPECT_EQ(restores_after_failure(), refresh_failed ? 2U : 1U) << streaming.sample_count() << " samples";
  }
  EXPECT_TRUE(refresh_failed);
}

TEST(Lifecycle, DestroyWhileRunningStopsAndFrees) {
  vb::reset(vb::Config::ideal());
  const int fds_before = pelmor_test::open_fd_count();
  testing::internal::CaptureStderr();
  {
    BoardClient client(25);
    ASSERT_EQ(pelmor_test::start_on_board(client.handle), PELMOR_OK);
    ASSERT_TRUE(client.wait_for_samples(2, 10s));
  }  // pelmor_destroy on a running driver
  const std::string log = testing::internal::GetCapturedStderr();
  EXPECT_EQ(lines_starting_with(log, "TIMING_DROP_SUMMARY label=final").size(), 1U) << log;
  EXPECT_EQ(pelmor_test::open_fd_count(), fds_before);
}

TEST(Lifecycle, StopIsPromptEvenWhenTheBoardFallsSilent) {
  vb::reset(vb::Config::ideal());
  BoardClient client(25);
  testing::internal::CaptureStderr();
  ASSERT_EQ(pelmor_test::start_on_board(client.handle), PELMOR_OK);
  ASSERT_TRUE(client.wait_for_samples(2, 10s));
  vb::suppress_edges(vb::Trigger::from());
  // Once the worker has begun waiting in vain, stop ends the wait it is in and
  // starts no other.
  const std::uint64_t polls = vb::counters().polls;
  while (vb::counters().polls < polls + 2) std::this_thread::sleep_for(5ms);
  const std::uint64_t before_stop = vb::counters().polls;
  EXPECT_EQ(pelmor_stop(client.handle), PELMOR_OK);
  const std::string log = testing::internal::GetCapturedStderr();
  EXPECT_LE(vb::counters().polls - before_stop, 1U) << log;
}

// A board reset unplugs the devices under a running driver. The line then polls
// as hung up with an error and its read fails, so the worker ends with that
// error at once instead of polling on.
TEST(Lifecycle, UnpluggedLineEndsTheWorkerWithTheReadError) {
  vb::reset(vb::Config::ideal());
  BoardClient client(25);
  testing::internal::CaptureStderr();
  ASSERT_EQ(pelmor_test::start_on_board(client.handle), PELMOR_OK);
  ASSERT_TRUE(client.wait_for_samples(2, 10s));
  vb::reset(vb::Config::ideal());
  EXPECT_TRUE(client.wait_until_stopped(10s));
  const std::uint64_t polls = vb::counters().polls;
  pelmor_stop(client.handle);
  const std::string log = testing::internal::GetCapturedStderr();
  // Mostly the worker waits on the line; rarely the reset finds it in an SPI
  // message, which fails as well.
  const auto fatal = lines_starting_with(log, "imu worker fatal: ");
  ASSERT_EQ(fatal.size(), 1U) << log;
  const bool on_the_line = fatal[0].find("GPIO395") != std::string::npos;
  if (on_the_line) {
    EXPECT_EQ(fatal[0], "imu worker fatal: read GPIO395 line event, errno=19 (No such device)");
  }
  EXPECT_LE(polls, 2U) << "counted since the reset";
}

TEST(Lifecycle, StartAfterTheWorkerDiedClosesItsEpochFirst) {
  vb::reset(vb::Config::ideal());
  BoardClient client(25);
  testing::internal::CaptureStderr();
  ASSERT_EQ(pelmor_test::start_on_board(client.handle), PELMOR_OK);
  ASSERT_TRUE(client.wait_for_samples(3, 10s));
  vb::sentinel_samples(vb::Trigger::once());
  ASSERT_TRUE(client.wait_until_stopped(10s));
  std::int32_t status = 0;
  read_health(client.handle, &status);
  EXPECT_EQ(status, PELMOR_ERR_INVALID_STATE);  // the dead worker's epoch is still open
  const std::size_t delivered_first_run = client.sample_count();

  ASSERT_EQ(pelmor_test::start_on_board(client.handle), PELMOR_OK);
  ASSERT_TRUE(client.wait_for_samples(delivered_first_run + 3, 10s));
  EXPECT_EQ(pelmor_stop(client.handle), PELMOR_OK);
  const std::string log = testing::internal::GetCapturedStderr();

  const auto fatal = lines_starting_with(log, "imu worker fatal: ");
  ASSERT_EQ(fatal.size(), 1U) << log;
  EXPECT_EQ(fatal[0], "imu worker fatal: IMU FIFO sample contains non-startup sentinel values");
  // The first run's final summary comes before the second run's scheduler line.
  const std::size_t first_summary = log.find("TIMING_DROP_SUMMARY label=final");
  const std::size_t second_scheduler = log.find("imu worker scheduler status", log.find("imu worker fatal"));
  ASSERT_NE(first_summary, std::string::npos);
  ASSERT_NE(second_scheduler, std::string::npos);
  EXPECT_LT(first_summary, second_scheduler);
  EXPECT_EQ(lines_starting_with(log, "TIMING_DROP_SUMMARY label=final").size(), 2U) << log;

  const pelmor_runtime_health health = read_health(client.handle, &status);
  ASSERT_EQ(status, PELMOR_OK);
  EXPECT_EQ(health.epoch, 2U);
  EXPECT_EQ(client.samples().back().sample.sample_index + 1, health.samples_delivered);
}

}  // namespace
