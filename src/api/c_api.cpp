// The nine exported functions. Argument checks answer directly; everything after
// them runs inside a catch-all so that no exception crosses the C boundary
// (except a lock failure in pelmor_get_runtime_health, as pelmor.h says).
#include <exception>
#include <memory>
#include <new>
#include <string>

#include "api/callback_forwarding.hpp"
#include "api/handle.hpp"
#include "api/status.hpp"
#include "common/run_options.hpp"
#include "common/text.hpp"
#include "driver/driver.hpp"
#include "pelmor.h"

using pelmor_lusk::Driver;
using pelmor_lusk::PelmorCallbackState;

namespace {

void forward_sample(PelmorCallbackState& state, const pelmor_lusk::ImuSample& sample) {
  pelmor_lusk::deliver_sample(state, sample);
}

static_assert(PELMOR_FLAG_PAIRING_CHECK == pelmor_lusk::run_flag_pairing_check &&
              PELMOR_FLAG_BRACKET_FIT == pelmor_lusk::run_flag_bracket_fit);

bool config_is_valid(const pelmor_config& config) {
  if (config.struct_size != sizeof(pelmor_config)) return false;
  if (config.sample_rate_hz != 30 && config.sample_rate_hz != 25) return false;
  if (config.mode != 1) return false;
  if ((config.flags & ~pelmor_lusk::run_known_flags) != 0) return false;
  if (config.strict_timing > 1) return false;
  for (std::uint32_t word : config.reserved) {
    if (word != 0) return false;
  }
  return true;
}

}  // namespace

extern "C" {

int32_t pelmor_create(const pelmor_config* config, pelmor_handle* out_handle) {
  if (out_handle == nullptr) return PELMOR_ERR_INVALID_ARGUMENT;
  *out_handle = nullptr;
  if (config == nullptr || !config_is_valid(*config)) return PELMOR_ERR_INVALID_ARGUMENT;
  try {
    auto handle = std::make_unique<pelmor_driver>();
    handle->impl = std::make_unique<Driver::Impl>(
        config->sample_rate_hz, pelmor_lusk::RunOptions::from_config(config->flags, config->strict_timing != 0));
    handle->callback_state = std::make_shared<PelmorCallbackState>();
    *out_handle = handle.release();
    return PELMOR_OK;
  } catch (...) {
    return pelmor_lusk::translate_exception();
  }
}

int32_t pelmor_start(pelmor_handle handle) {
  if (handle == nullptr) return PELMOR_ERR_INVALID_ARGUMENT;
  if (handle->impl->is_running() || handle->impl->on_worker_thread()) return PELMOR_ERR_INVALID_STATE;
  try {
    handle->impl->start();
    return PELMOR_OK;
  } catch (const std::exception& error) {
    try {
      pelmor_lusk::write_diagnostic_line(std::string("ICM-42688 start failed: ") + error.what());
    } catch (...) {
    }
    return pelmor_lusk::translate_exception();
  } catch (...) {
    try {
      pelmor_lusk::write_diagnostic_line("ICM-42688 start failed: unknown exception");
    } catch (...) {
    }
    return PELMOR_ERR_INTERNAL;
  }
}

int32_t pelmor_stop(pelmor_handle handle) {
  if (handle == nullptr) return PELMOR_ERR_INVALID_ARGUMENT;
  if (handle->impl->on_worker_thread()) return PELMOR_ERR_INVALID_STATE;  // it would wait for itself
  try {
    handle->impl->stop();
    return PELMOR_OK;
  } catch (...) {
    return pelmor_lusk::translate_exception();
  }
}

void pelmor_destroy(pelmor_handle handle) {
  if (handle == nullptr || handle->impl->on_worker_thread()) return;
  try {
    handle->impl->stop();
  } catch (...) {
  }
  handle->callback_state.reset();
  handle->impl.reset();  // its destructor stops again and closes every descriptor
  delete handle;
}

int32_t pelmor_set_callback(pelmor_handle handle, pelmor_sample_callback callback, void* user_data) {
  if (handle == nullptr) return PELMOR_ERR_INVALID_ARGUMENT;
  try {
    std::shared_ptr<PelmorCallbackState> state = handle->callback_state;
    handle->impl->install_callback(
        pelmor_lusk::SampleCallback::bind<PelmorCallbackState, forward_sample>(state));
    std::lock_guard<std::mutex> lock(handle->callback_state->mutex);
    handle->callback_state->callback = callback;
    handle->callback_state->user_data = user_data;
    return PELMOR_OK;
  } catch (...) {
    return pelmor_lusk::translate_exception();
  }
}

int32_t pelmor_is_running(pelmor_handle handle) {
  if (handle == nullptr) return 0;
  return handle->impl->is_running() ? 1 : 0;
}

const char* pelmor_get_version(void) { return "1.1.0"; }

const char* pelmor_status_message(int32_t status) { return pelmor_lusk::status_text(status); }

int32_t pelmor_get_runtime_health(pelmor_handle handle, pelmor_runtime_health* out) {
  if (handle == nullptr || out == nullptr || out->struct_size != sizeof(pelmor_runtime_health)) {
    return PELMOR_ERR_INVALID_ARGUMENT;
  }
  return handle->impl->copy_health_snapshot(*out);
}

}  // extern "C"
