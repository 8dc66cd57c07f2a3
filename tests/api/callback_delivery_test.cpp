// Delivery of internal samples through the callback slot to the client.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "api/callback_forwarding.hpp"
#include "api/handle.hpp"
#include "pelmor.h"

namespace {

using pelmor_lusk::ImuSample;

struct HandleFixture : testing::Test {
  void SetUp() override {
    pelmor_config config{};
    config.struct_size = sizeof config;
    config.sample_rate_hz = 30;
    config.mode = 1;
    ASSERT_EQ(pelmor_create(&config, &handle), PELMOR_OK);
  }
  void TearDown() override { pelmor_destroy(handle); }

  // What the worker does for each emitted sample.
  void deliver(const ImuSample& sample) {
    pelmor_lusk::SampleCallback copy = handle->impl->copy_callback();
    if (copy) copy(sample);
  }

  pelmor_handle handle = nullptr;
};

ImuSample distinct_sample() {
  ImuSample s;
  s.event_time_raw_ns = 0x1122334455667788ULL;
  s.mapped_time_raw_ns = 0x0102030405060708ULL;
  s.sample_index = 77;
  s.phase_uncertainty_us = 199;
  s.boundary_resyncs = 3;
  s.batch_failures = 4;
  s.total_drops = 5;
  s.tmst_wrap_count = 0xFFFFFFFFU;
  s.fifo_timestamp_low16 = 0xBEEF;
  s.temperature_c = 26.5;
  s.accel_mps2[0] = 1.5;
  s.accel_mps2[1] = -2.5;
  s.accel_mps2[2] = 9.80665;
  s.gyro_radps[0] = 0.125;
  s.gyro_radps[1] = -0.25;
  s.gyro_radps[2] = 3.0;
  const int16_t words[7] = {-3, 100, -200, 2048, -32767, 32767, 1};
  std::memcpy(s.raw_words, words, sizeof words);
  return s;
}

TEST(SampleConversion, CopiesEveryFieldToItsPublicPlace) {
  const ImuSample s = distinct_sample();
  pelmor_sample out;
  std::memset(&out, 0xCD, sizeof out);
  pelmor_lusk::fill_pelmor_sample(s, out);
  EXPECT_EQ(out.struct_size, 120U);
  EXPECT_EQ(out.tmst_wrap_count, 0xFFFFFFFFU);
  EXPECT_EQ(out.event_timestamp_raw_ns, 0x1122334455667788ULL);
  EXPECT_EQ(out.temperature_c, 26.5);
  EXPECT_EQ(out.accel_mps2[0], 1.5);
  EXPECT_EQ(out.accel_mps2[1], -2.5);
  EXPECT_EQ(out.accel_mps2[2], 9.80665);
  EXPECT_EQ(out.gyro_radps[0], 0.125);
  EXPECT_EQ(out.gyro_radps[1], -0.25);
  EXPECT_EQ(out.gyro_radps[2], 3.0);
  const int16_t words[7] = {-3, 100, -200, 2048, -32767, 32767, 1};
  for (int i = 0; i < 7; ++i) EXPECT_EQ(out.raw_words[i], words[i]) << i;
  EXPECT_EQ(out.fifo_timestamp_low16, 0xBEEF);
  EXPECT_EQ(out.mapped_timestamp_raw_ns, 0x0102030405060708ULL);
  EXPECT_EQ(out.sample_index, 77U);
  EXPECT_EQ(out.phase_uncertainty_us, 199U);
  EXPECT_EQ(out.boundary_resyncs, 3U);
  EXPECT_EQ(out.batch_failures, 4U);
  EXPECT_EQ(out.total_drops, 5U);
}

struct Recorder {
  std::atomic<int> calls{0};
  uint64_t last_index = 0;
  static void record(const pelmor_sample* s, void* user) {
    auto* self = static_cast<Recorder*>(user);
    self->last_index = s->sample_index;
    self->calls.fetch_add(1);
  }
};

TEST_F(HandleFixture, EmptySlotDeliversNothingAndACallbackSetBeforeStartIsUsed) {
  EXPECT_FALSE(handle->impl->copy_callback());
  Recorder recorder;
  ASSERT_EQ(pelmor_set_callback(handle, &Recorder::record, &recorder), PELMOR_OK);
  deliver(distinct_sample());
  EXPECT_EQ(recorder.calls.load(), 1);
  EXPECT_EQ(recorder.last_index, 77U);
}

TEST_F(HandleFixture, NullCallbackStopsDeliveryAndANewOneResumesIt) {
  Recorder recorder;
  ASSERT_EQ(pelmor_set_callback(handle, &Recorder::record, &recorder), PELMOR_OK);
  ASSERT_EQ(pelmor_set_callback(handle, nullptr, &recorder), PELMOR_OK);
  deliver(distinct_sample());
  EXPECT_EQ(recorder.calls.load(), 0);
  ASSERT_EQ(pelmor_set_callback(handle, &Recorder::record, &recorder), PELMOR_OK);
  deliver(distinct_sample());
  EXPECT_EQ(recorder.calls.load(), 1);
}

int throw_calls = 0;
void throws_standard(const pelmor_sample*, void*) {
  ++throw_calls;
  throw std::runtime_error("boom");
}
void throws_other(const pelmor_sample*, void*) {
  ++throw_calls;
  throw 42;
}

TEST_F(HandleFixture, ThrowingCallbacksAreReportedAndDisabled) {
  struct Case {
    pelmor_sample_callback callback;
    const char* line;
  };
  const Case cases[] = {
      {&throws_standard, "ICM-42688 callback threw an exception and was disabled: boom\n"},
      {&throws_other, "ICM-42688 callback threw an unknown exception and was disabled\n"},
  };
  for (const Case& c : cases) {
    throw_calls = 0;
    ASSERT_EQ(pelmor_set_callback(handle, c.callback, nullptr), PELMOR_OK);
    testing::internal::CaptureStderr();
    EXPECT_NO_THROW(deliver(distinct_sample()));
    EXPECT_NO_THROW(deliver(distinct_sample()));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), c.line);
    EXPECT_EQ(throw_calls, 1);
    EXPECT_EQ(handle->callback_state->callback, nullptr);
    EXPECT_EQ(handle->callback_state->user_data, nullptr);
  }
}

struct Replacer {
  pelmor_handle handle;
  Recorder replacement;
  static void replace_then_throw(const pelmor_sample*, void* user) {
    auto* self = static_cast<Replacer*>(user);
    pelmor_set_callback(self->handle, &Recorder::record, &self->replacement);
    throw std::runtime_error("late");
  }
};

TEST_F(HandleFixture, ACallbackReplacedDuringTheFailingCallStaysInForce) {
  Replacer replacer{handle, {}};
  ASSERT_EQ(pelmor_set_callback(handle, &Replacer::replace_then_throw, &replacer), PELMOR_OK);
  testing::internal::CaptureStderr();
  deliver(distinct_sample());
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "ICM-42688 callback threw an exception and was disabled: late\n");
  deliver(distinct_sample());
  EXPECT_EQ(replacer.replacement.calls.load(), 1);
}

TEST_F(HandleFixture, ForwarderKeepsTheStateAliveAfterTheHandleDropsIt) {
  Recorder recorder;
  ASSERT_EQ(pelmor_set_callback(handle, &Recorder::record, &recorder), PELMOR_OK);
  pelmor_lusk::SampleCallback held = handle->impl->copy_callback();
  // Handle reference + slot + our copy.
  EXPECT_EQ(handle->callback_state.use_count(), 3);
  handle->callback_state.reset();
  held(distinct_sample());
  EXPECT_EQ(recorder.calls.load(), 1);
}

TEST_F(HandleFixture, ConcurrentSetCallbackWhileDelivering) {
  Recorder a;
  Recorder b;
  std::atomic<bool> stop{false};
  std::thread worker([&] {
    const ImuSample sample = distinct_sample();
    while (!stop.load()) deliver(sample);
  });
  std::vector<std::thread> clients;
  for (int t = 0; t < 3; ++t) {
    clients.emplace_back([&, t] {
      for (int i = 0; i < 2000; ++i) {
        Recorder* target = ((i + t) % 3 == 0) ? nullptr : ((i % 2) ? &a : &b);
        pelmor_set_callback(handle, target ? &Recorder::record : nullptr, target);
      }
    });
  }
  for (auto& c : clients) c.join();
  ASSERT_EQ(pelmor_set_callback(handle, &Recorder::record, &a), PELMOR_OK);
  const int before = a.calls.load();
  while (a.calls.load() < before + 10) std::this_thread::yield();
  stop.store(true);
  worker.join();
  EXPECT_GT(a.calls.load() + b.calls.load(), 0);
}

}  // namespace
