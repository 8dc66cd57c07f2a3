// One driver instance: its configuration, the lifecycle of its runs, the worker
// thread, the callback slot and the health record of the last finished run.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <thread>

#include "common/rate_profile.hpp"
#include "common/run_options.hpp"
#include "driver/sample_callback.hpp"
#include "pelmor.h"
#include "pipeline/drop_accounting.hpp"
#include "run/run.hpp"
#include "run/sample_sink.hpp"

namespace pelmor_lusk {

// The configuration's mode word: always 1, and also the FIFO watermark.
inline constexpr std::uint32_t driver_mode_word = 1;

class Driver {
 public:
  class Impl;
};

class Driver::Impl final : private SampleSink {
 public:
  // Throws std::invalid_argument for a rate other than 25 or 30.
  Impl(std::uint32_t sample_rate_hz, const RunOptions& options);
  ~Impl();
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  void start();
  void stop();

  bool is_running() const noexcept { return running_.load(); }

  // True on the worker thread, which is where the callback runs: start, stop,
  // destroy and the health record are refused there, since each of them waits
  // for the worker or for a thread that does.
  bool on_worker_thread() const noexcept { return worker_id_.load() == std::this_thread::get_id(); }

  // PELMOR_OK with the last finished run's record, or PELMOR_ERR_INVALID_STATE.
  // A failure to lock propagates.
  std::int32_t copy_health_snapshot(pelmor_runtime_health& out);

  // Swaps a new function object into the callback slot; the replaced one is
  // destroyed while the lock is still held.
  void install_callback(SampleCallback callback);
  // Copies the slot's function object out under the callback mutex.
  SampleCallback copy_callback();

 private:
  void deliver(const ImuSample& sample) override;
  void run_worker(Run* run) noexcept;
  void stream_until_stopped(Run& run) noexcept;
  void close_epoch();

  const std::uint32_t sample_rate_;
  const RunOptions options_;
  const RateProfile& profile_;

  std::mutex driver_mutex_;
  std::atomic<bool> running_{false};
  std::unique_ptr<Run> run_;  // from a successful start until its epoch closes
  std::thread worker_;
  std::atomic<std::thread::id> worker_id_{};

  std::mutex callback_mutex_;
  SampleCallback callback_slot_;

  std::uint32_t epoch_ = 0;
  pelmor_runtime_health health_snapshot_{};
  bool snapshot_valid_ = false;
};

// Next epoch number: wraps from 0xFFFFFFFF to 1, never 0.
constexpr std::uint32_t next_epoch(std::uint32_t epoch) noexcept { return epoch == 0xFFFFFFFFU ? 1U : epoch + 1U; }

// The health record of a finished run, from its counters.
pelmor_runtime_health make_health_snapshot(std::uint32_t epoch, std::uint64_t samples_delivered,
                                           const TimingDropCounters& drops) noexcept;

}  // namespace pelmor_lusk
