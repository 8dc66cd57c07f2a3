// One driver instance: configuration, devices, worker thread, locks, callback
// slot, counters and the health snapshot. The member functions are spread over
// the subsystem folders: lifecycle in src/driver, boundary arming in src/sensor,
// the worker loop and its recovery in src/pipeline.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "common/unique_fd.hpp"
#include "driver/rate_profile.hpp"
#include "driver/sample_callback.hpp"
#include "pelmor.h"
#include "pipeline/decimator.hpp"
#include "pipeline/drop_accounting.hpp"
#include "pipeline/pending_event_queue.hpp"
#include "pipeline/phase_alignment.hpp"
#include "pipeline/step_gate.hpp"
#include "sensor/arm_report.hpp"
#include "sensor/fifo_batch.hpp"
#include "sensor/sensor_config.hpp"
#include "timing/anchor_map.hpp"
#include "timing/bridged_event.hpp"
#include "timing/gpio_interrupt_line.hpp"
#include "timing/tmst_mapper.hpp"

namespace pelmor_lusk {

// The configuration word pair the driver keeps: `mode` (always 1; also the FIFO
// watermark) and `strict_timing`.
struct ModeStrictPair {
  std::uint32_t mode = 1;
  std::uint32_t strict_timing = 0;
};

// Per-run pipeline state; zeroed at start, at every arm and at stop.
struct WorkerState {
  StepReference step;                        // last accepted tick and first-sample rule
  std::uint64_t boundary_reference_tick = 0; // the arm's anchor tick
  bool runtime_boundary_context = false;     // set by a run-time re-arm
  bool boundary_armed = false;
  std::uint64_t arm_start_raw_ns = 0;
  std::uint64_t arm_boundary_event_raw_ns = 0;
  std::uint64_t arm_boundary_uncertainty_ns = 0;
  std::int64_t arm_boundary_age_ns = 0;
  PhaseAlignmentState phase;
  std::uint64_t accepted_sample_count = 0;
  std::uint32_t startup_sentinel_count = 0;
  std::uint64_t sample_sequence = 0;         // next emitted sample index
  std::uint64_t last_mapped_ns = 0;          // 0 = none yet
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

  // Worker thread body and loop.
  void run_worker() noexcept;
  void run_worker_loop();

  // FIFO/GPIO boundary.
  void quiesce_fifo() noexcept;
  void arm_fifo_boundary();
  ArmBoundaryReport rearm_fifo_boundary();

  // Configuration.
  const std::uint32_t sample_rate;
  const std::uint32_t mode = 1;
  const std::uint32_t strict_timing;
  const RateProfile* const profile;
  const std::uint32_t output_rate;
  const std::uint32_t sensor_rate;
  Decimator decimation;

  std::mutex driver_mutex;
  std::atomic<bool> running{false};
  std::thread worker;

  UniqueFd spi;
  std::unique_ptr<GpioInterruptLine> interrupt_line;
  std::optional<SensorRecord> sensor;

  std::mutex callback_mutex;
  SampleCallback callback_slot;

  PendingEventQueue pending_events;
  WorkerState state;
  PhaseCalibration phase_calibration;  // zero: the shipped profiles are uncalibrated
  TmstUnwrapState unwrap;
  TmstMapper mapper;
  TimingDropCounters drops;

  bool epoch_active = false;
  std::uint32_t epoch = 0;
  pelmor_runtime_health health_snapshot{};
  bool snapshot_valid = false;

 private:
  class SpiAnchorSource final : public AnchorSource {
   public:
    explicit SpiAnchorSource(const UniqueFd& spi_fd) : spi_(spi_fd) {}
    TmstSnapshot take_snapshot() override;

   private:
    const UniqueFd& spi_;
  };

  void start_locked();
  void close_epoch();
  void log_bridge_summaries() const;
  void release_devices() noexcept;
  void reset_run_state() noexcept;
  void reset_unwrap() noexcept;

  // Boundary helpers.
  GpioDrainStats drain_interrupt_line();
  void refresh_boundary_anchor(const char* failure_prefix);
  void reset_worker_pairing_state() noexcept;

  // Worker loop pieces.
  bool match_event(const BridgedEvent& event, std::uint32_t remaining_samples, const FifoBatch* batch);
  bool resync_boundary(std::uint32_t reason, std::uint32_t discarded_fifo_samples,
                       std::uint32_t discarded_gpio_events_pre_recovery, const FifoBatch* batch,
                       const BridgedEvent* trigger, const std::string& message);
  FifoBatch read_batch_counted();
  void process_batch(const FifoBatch& batch);
  // A snapshot for a new anchor; a failure has first put the sensor back in bank 0.
  TmstSnapshot anchor_snapshot();
  void refresh_mapper_periodically(std::uint64_t candidate_tick, const BridgedEvent& event);
  void reanchor_after_sentinels();
  void emit_sample(const FifoPacket& packet, const BridgedEvent& event, std::uint64_t mapped_ns,
                   std::uint32_t uncertainty_us);
  StepGateMessageFields step_gate_message_fields(std::uint16_t low16) const;
};

// Next epoch number: wraps from 0xFFFFFFFF to 1, never 0.
constexpr std::uint32_t next_epoch(std::uint32_t epoch) noexcept { return epoch == 0xFFFFFFFFU ? 1U : epoch + 1U; }

// The health record of a finished run, from its counters.
pelmor_runtime_health make_health_snapshot(std::uint32_t epoch, std::uint64_t samples_delivered,
                                           const TimingDropCounters& drops) noexcept;

}  // namespace pelmor_lusk
