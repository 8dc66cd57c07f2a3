#include "driver/driver.hpp"

#include <stdexcept>
#include <utility>

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

Driver::Impl::Impl(std::uint32_t sample_rate_hz, const RunOptions& options)
    : sample_rate_(sample_rate_hz), options_(options), profile_(rate_profile_for(sample_rate_hz)) {
  health_snapshot_.struct_size = sizeof(pelmor_runtime_health);
}

Driver::Impl::~Impl() {
  try {
    stop();
  } catch (...) {
  }
  std::lock_guard<std::mutex> lock(callback_mutex_);
  callback_slot_ = SampleCallback();
}

void Driver::Impl::install_callback(SampleCallback callback) {
  std::lock_guard<std::mutex> lock(callback_mutex_);
  std::swap(callback_slot_, callback);
  callback = SampleCallback();
}

SampleCallback Driver::Impl::copy_callback() {
  std::lock_guard<std::mutex> lock(callback_mutex_);
  return callback_slot_;
}

void Driver::Impl::deliver(const ImuSample& sample) {
  const SampleCallback callback = copy_callback();
  if (callback) callback(sample);
}

std::int32_t Driver::Impl::copy_health_snapshot(pelmor_runtime_health& out) {
  if (on_worker_thread()) return PELMOR_ERR_INVALID_STATE;  // the run is still open
  pelmor_runtime_health copy{};
  {
    std::lock_guard<std::mutex> lock(driver_mutex_);
    if (running_.load() || run_ || !snapshot_valid_) return PELMOR_ERR_INVALID_STATE;
    copy = health_snapshot_;
  }
  out = copy;
  return PELMOR_OK;
}

void Driver::Impl::start() {
  std::lock_guard<std::mutex> lock(driver_mutex_);
  if (running_.load()) throw std::runtime_error("IMU driver is already running");
  if (worker_.joinable()) {
    // The worker ended by itself; its epoch is still open.
    worker_.join();
    if (run_) close_epoch();
  }
  snapshot_valid_ = false;

  auto run = std::make_unique<Run>(profile_, sample_rate_, driver_mode_word, options_, running_,
                                   static_cast<SampleSink&>(*this));
  try {
    run->start();
    epoch_ = next_epoch(epoch_);
    running_.store(true);
    worker_ = std::thread(&Impl::run_worker, this, run.get());
  } catch (...) {
    running_.store(false);
    run->log_bridge_summaries();
    throw;  // the run closes its descriptors on the way out
  }
  run_ = std::move(run);
}

void Driver::Impl::stop() {
  std::lock_guard<std::mutex> lock(driver_mutex_);
  running_.store(false);
  if (worker_.joinable()) worker_.join();
  if (run_) close_epoch();
}

void Driver::Impl::close_epoch() {
  run_->write_final_summary();
  run_->log_bridge_summaries();
  health_snapshot_ = make_health_snapshot(epoch_, run_->samples_emitted(), run_->counters());
  snapshot_valid_ = true;
  run_.reset();
}

}  // namespace pelmor_lusk
