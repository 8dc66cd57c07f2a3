// Recovery on the virtual board: after the worker is held up (a callback that
// blocks), delivery returns to clean samples within two seconds of the hold-up
// ending, at both rates.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "pelmor.h"
#include "pelmor_vboard.hpp"
#include "support/board_client.hpp"
#include "support/board_truth.hpp"

namespace {

using namespace std::chrono_literals;
namespace vb = pelmor_vboard;

// Records samples; the sample after stall_ms is set holds the worker that long.
struct StallingClient {
  explicit StallingClient(std::uint32_t rate_hz, std::uint32_t flags = 0) {
    pelmor_config config{};
    config.struct_size = sizeof config;
    config.sample_rate_hz = rate_hz;
    config.mode = 1;
    config.flags = flags;
    EXPECT_EQ(pelmor_create(&config, &handle), PELMOR_OK);
    pelmor_set_callback(handle, &StallingClient::on_sample, this);
  }
  ~StallingClient() { pelmor_destroy(handle); }

  static void on_sample(const pelmor_sample* sample, void* user) {
    auto* self = static_cast<StallingClient*>(user);
    {
      std::lock_guard<std::mutex> lock(self->mutex);
      self->samples.push_back(*sample);
    }
    self->cv.notify_all();
    const int stall = self->stall_ms.exchange(0);
    if (stall > 0) {
      std::this_thread::sleep_for(std::chrono::milliseconds(stall));
      self->stall_end_raw_ns.store(pelmor_test::raw_now_ns());
    }
  }

  bool wait_for(std::size_t count, std::chrono::seconds timeout) {
    std::unique_lock<std::mutex> lock(mutex);
    return cv.wait_for(lock, timeout, [&] { return samples.size() >= count; });
  }
  // Until a sample mapped after raw_ns arrives.
  bool wait_past(std::uint64_t raw_ns, std::chrono::seconds timeout) {
    std::unique_lock<std::mutex> lock(mutex);
    return cv.wait_for(lock, timeout,
                       [&] { return !samples.empty() && samples.back().mapped_timestamp_raw_ns > raw_ns; });
  }
  std::vector<pelmor_sample> copy() {
    std::lock_guard<std::mutex> lock(mutex);
    return samples;
  }

  pelmor_handle handle = nullptr;
  std::atomic<int> stall_ms{0};
  std::atomic<std::uint64_t> stall_end_raw_ns{0};
  std::mutex mutex;
  std::condition_variable cv;
  std::vector<pelmor_sample> samples;
};

// Every sample mapped after clean_from follows its predecessor without a drop or
// a resync between them and lies within its stated uncertainty of the truth.
void expect_clean_after(const std::vector<pelmor_sample>& samples, std::uint64_t clean_from, std::uint32_t rate_hz,
                        const std::string& log) {
  const std::vector<vb::SampleTruth> truth = vb::samples();
  std::size_t judged = 0;
  const pelmor_sample* previous = nullptr;
  for (const pelmor_sample& s : samples) {
    if (s.mapped_timestamp_raw_ns < clean_from) continue;
    if (previous != nullptr) {
      EXPECT_EQ(s.sample_index, previous->sample_index + 1) << log;
      EXPECT_EQ(s.total_drops, previous->total_drops) << "a drop after recovery at sample " << s.sample_index;
      EXPECT_EQ(s.boundary_resyncs, previous->boundary_resyncs) << "a resync after recovery";
    }
    const std::optional<vb::SampleTruth> t = pelmor_test::truth_for(truth, s);
    ASSERT_TRUE(t.has_value()) << s.sample_index;
    const std::uint64_t error = t->raw_ns > s.mapped_timestamp_raw_ns ? t->raw_ns - s.mapped_timestamp_raw_ns
                                                                      : s.mapped_timestamp_raw_ns - t->raw_ns;
    EXPECT_LE(error, std::uint64_t{s.phase_uncertainty_us} * 1000) << s.sample_index;
    previous = &s;
    ++judged;
  }
  EXPECT_GE(judged, rate_hz / 2) << log;
}

struct StallCase {
  std::uint32_t rate_hz;
  int stall_ms;
};

class HeldUpWorker : public testing::TestWithParam<StallCase> {};

TEST_P(HeldUpWorker, ReturnsToCleanDeliveryWithinTwoSeconds) {
  const StallCase c = GetParam();
  vb::reset(vb::Config::ideal());
  StallingClient client(c.rate_hz);
  testing::internal::CaptureStderr();
  ASSERT_EQ(pelmor_test::start_on_board(client.handle), PELMOR_OK);
  ASSERT_TRUE(client.wait_for(5, 10s));
  client.stall_ms.store(c.stall_ms);
  // The backlog of the hold-up, then three seconds of samples after it; a driver
  // stuck dropping never gets there.
  const std::size_t wanted =
      client.copy().size() + 1 + c.rate_hz * static_cast<std::uint32_t>(c.stall_ms + 999) / 1000 + 3 * c.rate_hz;
  const bool delivered = client.wait_for(wanted, std::chrono::seconds(20 + c.stall_ms / 1000));
  pelmor_stop(client.handle);
  const std::string log = testing::internal::GetCapturedStderr();
  ASSERT_TRUE(delivered) << log;

  expect_clean_after(client.copy(), client.stall_end_raw_ns.load() + 2'000'000'000, c.rate_hz, log);
}

INSTANTIATE_TEST_SUITE_P(BothRates, HeldUpWorker,
                         testing::Values(StallCase{25, 500}, StallCase{25, 1100}, StallCase{25, 3000},
                                         StallCase{30, 500}, StallCase{30, 1100}, StallCase{30, 3000}),
                         [](const testing::TestParamInfo<StallCase>& param_info) {
                           return std::to_string(param_info.param.rate_hz) + "Hz_" + std::to_string(param_info.param.stall_ms) +
                                  "ms";
                         });

// Every snapshot stretched for three seconds, its bracket still just under the
// gate, from just after the start or from within establishment (the map is then
// built mostly from stretched snapshots): samples drop while the map is that uncertain,
// and once snapshots are quick again the map is refreshed or rebuilt and
// delivery is clean within two seconds. A rebuild attempted while the stretch
// lasts may fail for good; the worker then ends with its fatal line instead.
struct StretchCase {
  std::uint32_t rate_hz;
  std::uint32_t flags;
  bool before_start;
};

class StretchedSnapshotPeriod : public testing::TestWithParam<StretchCase> {};

// One run of the case; true when a second of drops began more than 0.9 s
// after the stretch ended (late_line holds its resync line).
bool run_stretch_case(const StretchCase& c, std::string& late_line) {
  vb::reset(vb::Config::ideal());
  StallingClient client(c.rate_hz, c.flags);
  testing::internal::CaptureStderr();
  const auto stretch_snapshots = [](std::uint64_t from) {
    return vb::stretch_spi_message(vb::SpiMessageKind::tmst_snapshot, 190000, vb::Trigger::from(from));
  };
  std::optional<vb::FaultId> stretch;
  if (c.before_start) stretch = stretch_snapshots(4);
  const std::int32_t started = pelmor_start(client.handle);
  if (!c.before_start) stretch = stretch_snapshots(1);
  const std::uint64_t fault_end = pelmor_test::raw_now_ns() + 3'000'000'000;
  while (pelmor_test::raw_now_ns() < fault_end) std::this_thread::sleep_for(10ms);
  vb::clear_fault(*stretch);
  if (started != PELMOR_OK) {
    // Stretched from within establishment, the anchors may scatter too far
    // for any map: the start is refused, with its reason.
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(c.before_start) << log;
    EXPECT_EQ(started, PELMOR_ERR_IO);
    const std::vector<std::string> failed = pelmor_test::lines_starting_with(log, "ICM-42688 start failed: ");
    EXPECT_EQ(failed.size(), 1U) << log;
    if (!failed.empty()) {
      EXPECT_NE(failed[0].find("TMST to RAW anchor map"), std::string::npos) << failed[0];
    }
    return false;
  }
  // Clean delivery, or a worker that gave up with its fatal line; never a run
  // that goes on dropping.
  bool delivered = false;
  bool ended = false;
  for (int waits = 0; waits < 200 && !delivered && !ended; ++waits) {
    delivered = client.wait_past(fault_end + 3'000'000'000, 1s);
    ended = pelmor_is_running(client.handle) == 0;
  }
  pelmor_stop(client.handle);
  const std::string log = testing::internal::GetCapturedStderr();
  if (ended && !delivered) {
    EXPECT_EQ(pelmor_test::lines_starting_with(log, "imu worker fatal: ").size(), 1U) << log;
    return false;
  }
  EXPECT_TRUE(delivered) << log;
  if (!delivered) return false;
  expect_clean_after(client.copy(), fault_end + 2'000'000'000, c.rate_hz, log);
  for (const std::string& line :
       pelmor_test::lines_starting_with(log, "TIMING_BOUNDARY_RESYNC timing samples dropped for a second in a row")) {
    const std::string key = "spi_read_start_raw_ns=";
    const std::size_t at = line.find(key);
    EXPECT_NE(at, std::string::npos) << line;
    if (at != std::string::npos && std::stoull(line.substr(at + key.size())) >= fault_end + 900'000'000) {
      late_line = line;
      return true;
    }
  }
  return false;
}

// A map that refuses the quick snapshots is rebuilt at the first refusal, not
// after a second of drops that began once snapshots were quick again. On a
// loaded machine the "quick" snapshots can be preempted into brackets as wide
// as the map's, which then rightly refuses them: such a run is repeated.
TEST_P(StretchedSnapshotPeriod, EndsInCleanDeliveryWithinTwoSeconds) {
  std::string late_line;
  bool late = true;
  for (int attempt = 0; attempt < 3 && late && !HasFailure(); ++attempt) late = run_stretch_case(GetParam(), late_line);
  EXPECT_FALSE(late) << late_line;
}

INSTANTIATE_TEST_SUITE_P(BothRates, StretchedSnapshotPeriod,
                         testing::Values(StretchCase{25, 0, false}, StretchCase{30, 0, false},
                                         StretchCase{25, PELMOR_FLAG_BRACKET_FIT, false},
                                         StretchCase{30, PELMOR_FLAG_BRACKET_FIT, false}, StretchCase{25, 0, true},
                                         StretchCase{30, 0, true}),
                         [](const testing::TestParamInfo<StretchCase>& param_info) {
                           const StretchCase& c = param_info.param;
                           return std::to_string(c.rate_hz) + "Hz" + (c.flags != 0 ? "_bracket_fit" : "") +
                                  (c.before_start ? "_from_establishment" : "");
                         });

// A burst of lost edges (seen as gaps or not) and extra ones.
class EdgeBurst : public testing::TestWithParam<std::uint32_t> {};

TEST_P(EdgeBurst, EndsInCleanDeliveryWithinTwoSeconds) {
  const std::uint32_t rate = GetParam();
  vb::reset(vb::Config::ideal());
  StallingClient client(rate);
  testing::internal::CaptureStderr();
  ASSERT_EQ(pelmor_start(client.handle), PELMOR_OK);
  ASSERT_TRUE(client.wait_for(5, 10s));
  const std::uint64_t edges_before = vb::edges_produced();
  vb::drop_edges(vb::Trigger{2, 2});
  vb::suppress_edges(vb::Trigger{6, 3});
  vb::spurious_edges(vb::Trigger{10, 3});
  while (vb::edges_produced() < edges_before + 16) std::this_thread::sleep_for(5ms);
  const std::uint64_t burst_end = pelmor_test::raw_now_ns();
  const bool delivered = client.wait_past(burst_end + 3'000'000'000, 20s);
  pelmor_stop(client.handle);
  const std::string log = testing::internal::GetCapturedStderr();
  ASSERT_TRUE(delivered) << log;
  expect_clean_after(client.copy(), burst_end + 2'000'000'000, rate, log);
}

INSTANTIATE_TEST_SUITE_P(BothRates, EdgeBurst, testing::Values(25U, 30U),
                         [](const testing::TestParamInfo<std::uint32_t>& param_info) {
                           return std::to_string(param_info.param) + "Hz";
                         });

// Consecutive INT1 events whose clock bracket is too wide to bridge: no sample
// is mapped and no snapshot is taken meanwhile. A dozen stay short of the
// drop-run escalation; forty go past it at 25 Hz.
class BridgeOutage : public testing::TestWithParam<std::uint64_t> {};

TEST_P(BridgeOutage, EndsInCleanDeliveryWithinTwoSeconds) {
  const std::uint64_t events = GetParam();
  vb::reset(vb::Config::ideal());
  StallingClient client(25);
  testing::internal::CaptureStderr();
  ASSERT_EQ(pelmor_start(client.handle), PELMOR_OK);
  ASSERT_TRUE(client.wait_for(5, 10s));
  const vb::FaultId stretch = vb::stretch_bridge(250000, vb::Trigger{1, events});
  while (vb::fault_hits(stretch) < events) std::this_thread::sleep_for(5ms);
  const std::uint64_t outage_end = pelmor_test::raw_now_ns();
  const bool delivered = client.wait_past(outage_end + 3'000'000'000, 20s);
  pelmor_stop(client.handle);
  const std::string log = testing::internal::GetCapturedStderr();
  ASSERT_TRUE(delivered) << log;
  expect_clean_after(client.copy(), outage_end + 2'000'000'000, 25, log);

  const std::vector<std::string> metrics = pelmor_test::lines_starting_with(log, "GPIO395 bridge metrics: ");
  ASSERT_EQ(metrics.size(), 1U) << log;
  EXPECT_NE(metrics[0].find(", invalid=" + std::to_string(events) + ","), std::string::npos) << metrics[0];
}

INSTANTIATE_TEST_SUITE_P(At25Hz, BridgeOutage, testing::Values(std::uint64_t{12}, std::uint64_t{40}),
                         [](const testing::TestParamInfo<std::uint64_t>& param_info) {
                           return std::to_string(param_info.param) + "Events";
                         });

}  // namespace
