// Forwarding of internal samples to the client's C callback.
#pragma once

#include <mutex>

#include "pipeline/imu_sample.hpp"
#include "pelmor.h"

namespace pelmor_lusk {

// Shared by the handle and every installed forwarder, so it outlives the handle
// while a delivery is in progress.
struct PelmorCallbackState {
  std::mutex mutex;
  pelmor_sample_callback callback = nullptr;
  void* user_data = nullptr;
};

// Field-by-field copy into the public record.
void fill_pelmor_sample(const ImuSample& sample, pelmor_sample& out) noexcept;

// Calls the client's callback outside every lock; a callback that throws is
// reported and disabled (unless the client replaced it meanwhile).
void deliver_sample(PelmorCallbackState& state, const ImuSample& sample);

}  // namespace pelmor_lusk
