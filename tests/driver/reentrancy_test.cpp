// Calls into the driver from its own callback and from competing threads: each
// answers at once or does its job, and nothing waits forever. A hang ends the
// test process through the watchdog instead of the CTest timeout.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "pelmor.h"
#include "pelmor_vboard.hpp"
#include "support/board_client.hpp"

namespace {

using namespace std::chrono_literals;
namespace vb = pelmor_vboard;

// Runs body on its own thread; exits the process if it has not returned in time.
void within(std::chrono::seconds limit, const std::function<void()>& body) {
  std::mutex mutex;
  std::condition_variable done_cv;
  bool done = false;
  std::thread runner([&] {
    body();
    std::lock_guard<std::mutex> lock(mutex);
    done = true;
    done_cv.notify_all();
  });
  std::unique_lock<std::mutex> lock(mutex);
  if (!done_cv.wait_for(lock, limit, [&] { return done; })) {
    std::fprintf(stderr, "deadlock: the scenario did not finish within %llds\n",
                 static_cast<long long>(limit.count()));
    std::_Exit(3);
  }
  lock.unlock();
  runner.join();
}

pelmor_handle make_handle(std::uint32_t rate_hz) {
  pelmor_config config{};
  config.struct_size = sizeof config;
  config.sample_rate_hz = rate_hz;
  config.mode = 1;
  pelmor_handle handle = nullptr;
  EXPECT_EQ(pelmor_create(&config, &handle), PELMOR_OK);
  return handle;
}

// What the callback saw when it called every exported function once.
struct InsideCalls {
  pelmor_handle handle = nullptr;
  std::atomic<int> samples{0};
  std::mutex mutex;
  std::condition_variable cv;
  bool recorded = false;
  std::int32_t start = 99, stop = 99, health = 99, set_callback = 99, is_running = 99;
  std::string version, status;
};

void call_everything_once(const pelmor_sample*, void* user) {
  auto* calls = static_cast<InsideCalls*>(user);
  if (calls->samples.fetch_add(1) == 0) {
    pelmor_runtime_health health{};
    health.struct_size = sizeof health;
    const std::int32_t start = pelmor_start(calls->handle);
    const std::int32_t stop = pelmor_stop(calls->handle);
    const std::int32_t health_status = pelmor_get_runtime_health(calls->handle, &health);
    pelmor_destroy(calls->handle);
    const std::int32_t set = pelmor_set_callback(calls->handle, &call_everything_once, calls);
    const std::int32_t running = pelmor_is_running(calls->handle);
    std::lock_guard<std::mutex> lock(calls->mutex);
    calls->start = start;
    calls->stop = stop;
    calls->health = health_status;
    calls->set_callback = set;
    calls->is_running = running;
    calls->version = pelmor_get_version();
    calls->status = pelmor_status_message(stop);
    calls->recorded = true;
  }
  calls->cv.notify_all();
}

TEST(ReentrantCalls, FromTheCallbackEachAnswersAtOnceAndTheRunGoesOn) {
  vb::reset(vb::Config::ideal());
  InsideCalls calls;
  calls.handle = make_handle(30);
  ASSERT_EQ(pelmor_set_callback(calls.handle, &call_everything_once, &calls), PELMOR_OK);
  testing::internal::CaptureStderr();
  ASSERT_EQ(pelmor_test::start_on_board(calls.handle), PELMOR_OK);

  within(30s, [&] {
    std::unique_lock<std::mutex> lock(calls.mutex);
    // Samples after the one that called stop and destroy prove the worker lived on.
    calls.cv.wait(lock, [&] { return calls.recorded && calls.samples.load() >= 4; });
  });
  EXPECT_EQ(calls.start, PELMOR_ERR_INVALID_STATE);
  EXPECT_EQ(calls.stop, PELMOR_ERR_INVALID_STATE);
  EXPECT_EQ(calls.health, PELMOR_ERR_INVALID_STATE);
  EXPECT_EQ(calls.set_callback, PELMOR_OK);
  EXPECT_EQ(calls.is_running, 1);
  EXPECT_EQ(calls.version, "1.1.0");
  EXPECT_EQ(calls.status, "invalid state");
  EXPECT_EQ(pelmor_is_running(calls.handle), 1);

  within(30s, [&] { EXPECT_EQ(pelmor_stop(calls.handle), PELMOR_OK); });
  const std::string log = testing::internal::GetCapturedStderr();
  EXPECT_EQ(log.find("start failed"), std::string::npos) << log;
  EXPECT_EQ(pelmor_test::lines_starting_with(log, "TIMING_DROP_SUMMARY label=final").size(), 1U) << log;
  pelmor_runtime_health health{};
  health.struct_size = sizeof health;
  EXPECT_EQ(pelmor_get_runtime_health(calls.handle, &health), PELMOR_OK);
  EXPECT_EQ(health.samples_delivered, static_cast<std::uint64_t>(calls.samples.load()));
  pelmor_destroy(calls.handle);
}

// A callback that keeps calling into the driver on every sample, while other
// threads stop, start and read the health record in a tight race.
struct Busy {
  pelmor_handle handle = nullptr;
  std::atomic<int> samples{0};
  std::atomic<int> unexpected{0};
};

void call_into_the_driver(const pelmor_sample*, void* user) {
  auto* busy = static_cast<Busy*>(user);
  busy->samples.fetch_add(1);
  pelmor_runtime_health health{};
  health.struct_size = sizeof health;
  if (pelmor_get_runtime_health(busy->handle, &health) != PELMOR_ERR_INVALID_STATE) busy->unexpected.fetch_add(1);
  if (pelmor_start(busy->handle) != PELMOR_ERR_INVALID_STATE) busy->unexpected.fetch_add(1);
  if (pelmor_stop(busy->handle) != PELMOR_ERR_INVALID_STATE) busy->unexpected.fetch_add(1);
  pelmor_destroy(busy->handle);
  if (pelmor_set_callback(busy->handle, &call_into_the_driver, busy) != PELMOR_OK) busy->unexpected.fetch_add(1);
}

TEST(ReentrantCalls, CompetingThreadsAndACallingCallbackNeverDeadlock) {
  vb::reset(vb::Config::ideal());
  Busy busy;
  busy.handle = make_handle(30);
  ASSERT_EQ(pelmor_set_callback(busy.handle, &call_into_the_driver, &busy), PELMOR_OK);
  testing::internal::CaptureStderr();

  constexpr int cycles = 4;
  int started = 0;
  within(120s, [&] {
    std::atomic<bool> done{false};
    std::atomic<int> health_reads{0};
    std::thread reader([&] {
      while (!done.load()) {
        pelmor_runtime_health health{};
        health.struct_size = sizeof health;
        const std::int32_t status = pelmor_get_runtime_health(busy.handle, &health);
        if (status != PELMOR_OK && status != PELMOR_ERR_INVALID_STATE) busy.unexpected.fetch_add(1);
        health_reads.fetch_add(1);
        std::this_thread::yield();
      }
    });
    for (int cycle = 0; cycle < cycles; ++cycle) {
      if (pelmor_test::start_on_board(busy.handle) != PELMOR_OK) continue;
      ++started;
      const int target = busy.samples.load() + 3;
      while (busy.samples.load() < target && pelmor_is_running(busy.handle) == 1) std::this_thread::sleep_for(5ms);
      // Two stoppers and a starter at once: one stop does the work, the others
      // wait for it or find nothing to do.
      std::thread second_stop([&] { pelmor_stop(busy.handle); });
      std::thread racing_start([&] { pelmor_start(busy.handle); });
      EXPECT_EQ(pelmor_stop(busy.handle), PELMOR_OK);
      second_stop.join();
      racing_start.join();
      EXPECT_EQ(pelmor_stop(busy.handle), PELMOR_OK);  // whatever the racing start did
    }
    done.store(true);
    reader.join();
    EXPECT_GT(health_reads.load(), 0);
  });
  testing::internal::GetCapturedStderr();
  EXPECT_GT(started, 0);
  EXPECT_GT(busy.samples.load(), 0);
  EXPECT_EQ(busy.unexpected.load(), 0);
  pelmor_destroy(busy.handle);
}

// A stop during a resync whose anchor map cannot be rebuilt (every snapshot
// stretched) ends it at the next pause instead of after all its attempts.
TEST(PromptStop, EndsAnAnchorMapRebuildAtItsNextPause) {
  vb::reset(vb::Config::ideal());
  pelmor_test::BoardClient client(25);
  testing::internal::CaptureStderr();
  ASSERT_EQ(pelmor_test::start_on_board(client.handle), PELMOR_OK);
  ASSERT_TRUE(client.wait_for_samples(2, 10s));

  const auto snapshots_since = [](std::uint64_t mark) {
    std::size_t n = 0;
    for (const auto& m : vb::spi_log(mark)) n += m.kind == vb::SpiMessageKind::tmst_snapshot ? 1U : 0U;
    return n;
  };
  vb::stretch_spi_message(vb::SpiMessageKind::tmst_snapshot, 300000, vb::Trigger::from());
  const std::uint64_t mark = vb::spi_log_mark();
  vb::drop_edges(vb::Trigger::once());  // a sequence gap: resync, and the map is rebuilt
  within(30s, [&] {
    // Past any periodic refresh (three snapshots at most): the rebuild is under way.
    while (snapshots_since(mark) < 6) std::this_thread::sleep_for(1ms);
  });
  const std::size_t before_stop = snapshots_since(mark);
  within(30s, [&] { EXPECT_EQ(pelmor_stop(client.handle), PELMOR_OK); });
  const std::size_t during_stop = snapshots_since(mark) - before_stop;
  const std::string log = testing::internal::GetCapturedStderr();

  // The rebuild would go on for up to 16 attempts; at most the one under way
  // and one more may follow the stop.
  EXPECT_LE(during_stop, 2U) << log;
  EXPECT_EQ(log.find("imu worker fatal"), std::string::npos) << log;
  EXPECT_EQ(pelmor_test::lines_starting_with(log, "TIMING_DROP_SUMMARY label=final").size(), 1U) << log;
}

}  // namespace
