// The callback slot's function object. Unlike std::function, copying it never
// allocates (a shared context plus a plain function pointer), so the worker can
// copy it out of the slot for every sample.
#pragma once

#include <memory>
#include <utility>

#include "pipeline/imu_sample.hpp"

namespace pelmor_lusk {

class SampleCallback {
 public:
  SampleCallback() = default;

  // Binds `Invoke(*context, sample)`; the callback keeps one shared reference.
  template <typename Context, void (*Invoke)(Context&, const ImuSample&)>
  static SampleCallback bind(std::shared_ptr<Context> context) {
    SampleCallback callback;
    callback.context_ = std::move(context);
    callback.invoke_ = [](void* raw, const ImuSample& sample) { Invoke(*static_cast<Context*>(raw), sample); };
    return callback;
  }

  explicit operator bool() const noexcept { return invoke_ != nullptr; }

  void operator()(const ImuSample& sample) const { invoke_(context_.get(), sample); }

  long use_count() const noexcept { return context_.use_count(); }

 private:
  std::shared_ptr<void> context_;
  void (*invoke_)(void*, const ImuSample&) = nullptr;
};

}  // namespace pelmor_lusk
