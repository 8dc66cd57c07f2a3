#include "driver/driver.hpp"

#include <stdexcept>
#include <utility>

#include "common/clock.hpp"
#include "sensor/register_access.hpp"
#include "sensor/registers.hpp"
#include "sensor/spi_device.hpp"
#include "sensor/tmst_snapshot.hpp"

namespace pelmor_lusk {

pelmor_runtime_health make_health_snapshot(std::uint32_t epoch, std::uint64_t samples_delivered,
                                           const TimingDropCounters& drops) noexcept {
  pelmor_runtime_health health{};
  health.struct_size = sizeof(pelmor_runtime_health);
  health.epoch = epoch;
  health.samples_delivered = samples_delivered;
  health.boundary_resyncs = drops.boundary_resyncs;
  health.batch_failures = drops.batch_failures;
  health.total_drops = drops.total_drops;
  health.uncertainty_over_200_drops = drops.uncertainty_over_200_drops;
  health.max_consecutive_drops = drops.max_consecutive_drops;
  return health;
}

TmstSnapshot Driver::Impl::SpiAnchorSource::take_snapshot() { return read_tmst_snapshot(spi_.get()); }

Driver::Impl::Impl(std::uint32_t sample_rate_hz, ModeStrictPair mode_strict)
    : sample_rate(sample_rate_hz),
      strict_timing(mode_strict.strict_timing),
      profile(&rate_profile_for(sample_rate_hz)),
      output_rate(profile->rate_hz),
      sensor_rate(profile->odr_hz),
      decimation(*profile) {
  health_snapshot.struct_size = sizeof(pelmor_runtime_health);
}

Driver::Impl::~Impl() {
  try {
    stop();
  } catch (...) {
  }
  pending_events.clear();
  {
    std::lock_guard<std::mutex> lock(callback_mutex);
    callback_slot = SampleCallback();
  }
  release_devices();
}

void Driver::Impl::install_callback(SampleCallback callback) {
  std::lock_guard<std::mutex> lock(callback_mutex);
  std::swap(callback_slot, callback);
  callback = SampleCallback();
}

SampleCallback Driver::Impl::copy_callback() {
  std::lock_guard<std::mutex> lock(callback_mutex);
  return callback_slot;
}

std::int32_t Driver::Impl::copy_health_snapshot(pelmor_runtime_health& out) {
  pelmor_runtime_health copy{};
  {
    std::lock_guard<std::mutex> lock(driver_mutex);
    if (running.load() || epoch_active || !snapshot_valid) return PELMOR_ERR_INVALID_STATE;
    copy = health_snapshot;
  }
  out = copy;
  return PELMOR_OK;
}

void Driver::Impl::start() {
  std::lock_guard<std::mutex> lock(driver_mutex);
  if (running.load()) throw std::runtime_error("IMU driver is already running");
  if (worker.joinable()) {
    // The worker ended by itself; its epoch is still open.
    worker.join();
    if (epoch_active) close_epoch();
  }
  snapshot_valid = false;
  reset_run_state();
  try {
    start_locked();
  } catch (...) {
    running.store(false);
    if (worker.joinable()) worker.join();
    log_bridge_summaries();
    release_devices();
    reset_run_state();
    throw;
  }
}

void Driver::Impl::start_locked() {
  spi = open_spi_device();
  sensor.reset();
  sensor.emplace(spi, sample_rate, mode, strict_timing);
  configure_sensor(*sensor);

  interrupt_line.reset();
  interrupt_line = std::make_unique<GpioInterruptLine>();
  interrupt_line->open_interrupt_line();

  if (!sensor || !interrupt_line) throw std::runtime_error("sensor/GPIO not initialized for final producer epoch");
  pending_events.clear();
  reset_worker_pairing_state();

  write_register_verified(spi, icm42688::PWR_MGMT0_SAMPLE_OFF);
  sleep_settle_ms(profile->sample_off_settle_ms);
  write_register_masked(spi, icm42688::INT_SOURCE0_DRDY_DISABLE);
  write_register_verified(spi, icm42688::FIFO_CONFIG_BYPASS_MODE);
  flush_fifo(spi.get());

  // Events queued before the flush belong to no sample of this epoch.
  BridgedEvent stale;
  while (interrupt_line->read_line_event(stale, 0)) {
  }
  interrupt_line->forget_last_sequence();

  state = WorkerState{};
  reset_unwrap();

  write_register_verified(spi, icm42688::PWR_MGMT0_6AXIS_LOW_NOISE);
  sleep_settle_ms(profile->low_noise_settle_ms);

  SpiAnchorSource source(spi);
  establish_anchor_map(mapper, unwrap, &source);
  arm_fifo_boundary();

  epoch = next_epoch(epoch);
  running.store(true);
  worker = std::thread(&Impl::run_worker, this);
  epoch_active = true;
}

void Driver::Impl::stop() {
  std::lock_guard<std::mutex> lock(driver_mutex);
  running.store(false);
  if (worker.joinable()) worker.join();
  if (epoch_active) close_epoch();
  release_devices();
  reset_run_state();
}

void Driver::Impl::close_epoch() {
  if (!drops.final_summary_done) print_final_timing_drop_summary(drops);
  log_bridge_summaries();
  health_snapshot = make_health_snapshot(epoch, state.sample_sequence, drops);
  epoch_active = false;
  snapshot_valid = true;
}

void Driver::Impl::log_bridge_summaries() const {
  if (!interrupt_line) return;
  interrupt_line->log_bridge_metrics();
  if (interrupt_line->trace_stored() > 0) interrupt_line->log_bridge_trace();
}

void Driver::Impl::release_devices() noexcept {
  sensor.reset();
  if (interrupt_line) interrupt_line->close();
  interrupt_line.reset();
  spi.reset();
}

void Driver::Impl::reset_run_state() noexcept {
  pending_events.clear();
  state = WorkerState{};
  decimation.reset();
  reset_unwrap();
  mapper = TmstMapper{};
  drops = TimingDropCounters{};
}

void Driver::Impl::reset_unwrap() noexcept {
  // The width is the sensor's and stays as constructed.
  unwrap.have_previous = false;
  unwrap.previous = 0;
  unwrap.wrap_count = 0;
}

}  // namespace pelmor_lusk
