#include "driver/driver.hpp"

#include <fcntl.h>

#include <stdexcept>
#include <utility>

#include "common/system_error_text.hpp"

namespace pelmor_lusk {

namespace {
constexpr const char* spi_device_path = "/dev/spidev2.0";
}

Driver::Impl::Impl(std::uint32_t sample_rate_hz, ModeStrictPair mode_strict)
    : sample_rate(sample_rate_hz),
      strict_timing(mode_strict.strict_timing),
      profile(&rate_profile_for(sample_rate_hz)),
      output_rate(profile->rate_hz),
      sensor_rate(profile->odr_hz),
      decimation_accumulator(profile->odr_hz - profile->rate_hz) {
  health_snapshot.struct_size = sizeof(pelmor_runtime_health);
}

Driver::Impl::~Impl() {
  try {
    stop();
  } catch (...) {
  }
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
    worker.join();
    // Closing the dead worker's epoch comes with the worker itself.
  }
  snapshot_valid = false;
  reset_run_state();
  try {
    start_locked();
  } catch (...) {
    running.store(false);
    release_devices();
    reset_run_state();
    throw;
  }
}

void Driver::Impl::start_locked() {
  UniqueFd fd(::open(spi_device_path, O_RDWR | O_CLOEXEC));
  if (!fd) throw_errno_error(std::string("failed to open SPI device ") + spi_device_path);
  spi = std::move(fd);
  throw std::runtime_error("sensor/GPIO not initialized for final producer epoch");
}

void Driver::Impl::stop() {
  std::lock_guard<std::mutex> lock(driver_mutex);
  running.store(false);
  if (worker.joinable()) worker.join();
  if (epoch_active) {
    health_snapshot = pelmor_runtime_health{};
    health_snapshot.struct_size = sizeof(pelmor_runtime_health);
    health_snapshot.epoch = epoch;
    epoch_active = false;
    snapshot_valid = true;
  }
  release_devices();
  reset_run_state();
}

void Driver::Impl::release_devices() noexcept { spi.reset(); }

void Driver::Impl::reset_run_state() noexcept {
  decimation_accumulator = sensor_rate - output_rate;
  final_summary_done = false;
}

}  // namespace pelmor_lusk
