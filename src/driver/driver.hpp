// One driver instance: configuration, devices, worker thread, locks, callback
// slot, counters and the health snapshot.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <thread>

#include "common/unique_fd.hpp"
#include "driver/rate_profile.hpp"
#include "driver/sample_callback.hpp"
#include "pelmor.h"

namespace pelmor_lusk {

// The configuration word pair the driver keeps: `mode` (always 1; also the FIFO
// watermark) and `strict_timing`.
struct ModeStrictPair {
  std::uint32_t mode = 1;
  std::uint32_t strict_timing = 0;
};

class Driver {
 public:
  struct Impl;
};

struct Driver::Impl {
  Impl(std::uint32_t sample_rate_hz, ModeStrictPair mode_strict);
  ~Impl();
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  void start();
  void stop();

  bool is_running() const noexcept { return running.load(); }

  // PELMOR_OK with the last finished run's snapshot, or PELMOR_ERR_INVALID_STATE.
  // A failure to lock propagates.
  std::int32_t copy_health_snapshot(pelmor_runtime_health& out);

  // Swaps a new function object into the callback slot; the replaced one is
  // destroyed while the lock is still held.
  void install_callback(SampleCallback callback);
  // Copies the slot's function object out under the callback mutex.
  SampleCallback copy_callback();

  // Configuration.
  const std::uint32_t sample_rate;
  const std::uint32_t mode = 1;
  const std::uint32_t strict_timing;
  const RateProfile* const profile;
  const std::uint32_t output_rate;
  const std::uint32_t sensor_rate;
  std::uint32_t decimation_accumulator;

  std::mutex driver_mutex;
  std::atomic<bool> running{false};
  std::thread worker;

  UniqueFd spi;

  std::mutex callback_mutex;
  SampleCallback callback_slot;

  bool final_summary_done = false;
  bool epoch_active = false;
  std::uint32_t epoch = 0;
  pelmor_runtime_health health_snapshot{};
  bool snapshot_valid = false;

 private:
  void start_locked();
  void release_devices() noexcept;
  void reset_run_state() noexcept;
};

// Next epoch number: wraps from 0xFFFFFFFF to 1, never 0.
constexpr std::uint32_t next_epoch(std::uint32_t epoch) noexcept { return epoch == 0xFFFFFFFFU ? 1U : epoch + 1U; }

}  // namespace pelmor_lusk
