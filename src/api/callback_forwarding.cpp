#include "api/callback_forwarding.hpp"

#include <exception>
#include <string>

#include "common/text.hpp"

namespace pelmor_lusk {

void fill_pelmor_sample(const ImuSample& sample, pelmor_sample& out) noexcept {
  out.struct_size = sizeof(pelmor_sample);
  out.tmst_wrap_count = sample.tmst_wrap_count;
  out.event_timestamp_raw_ns = sample.event_time_raw_ns;
  out.temperature_c = sample.temperature_c;
  for (int axis = 0; axis < 3; ++axis) {
    out.accel_mps2[axis] = sample.accel_mps2[axis];
    out.gyro_radps[axis] = sample.gyro_radps[axis];
  }
  for (int word = 0; word < 7; ++word) out.raw_words[word] = sample.raw_words[word];
  out.fifo_timestamp_low16 = sample.fifo_timestamp_low16;
  out.mapped_timestamp_raw_ns = sample.mapped_time_raw_ns;
  out.sample_index = sample.sample_index;
  out.phase_uncertainty_us = sample.phase_uncertainty_us;
  out.boundary_resyncs = sample.boundary_resyncs;
  out.batch_failures = sample.batch_failures;
  out.total_drops = sample.total_drops;
}

void deliver_sample(PelmorCallbackState& state, const ImuSample& sample) {
  pelmor_sample_callback callback = nullptr;
  void* user_data = nullptr;
  {
    std::lock_guard<std::mutex> lock(state.mutex);
    callback = state.callback;
    user_data = state.user_data;
  }
  if (callback == nullptr) return;

  pelmor_sample record{};
  fill_pelmor_sample(sample, record);
  try {
    callback(&record, user_data);
    return;
  } catch (const std::exception& error) {
    write_diagnostic_line(std::string("ICM-42688 callback threw an exception and was disabled: ") + error.what());
  } catch (...) {
    write_diagnostic_line("ICM-42688 callback threw an unknown exception and was disabled");
  }
  std::lock_guard<std::mutex> lock(state.mutex);
  // A callback the client replaced meanwhile stays in force.
  if (state.callback == callback && state.user_data == user_data) {
    state.callback = nullptr;
    state.user_data = nullptr;
  }
}

}  // namespace pelmor_lusk
