// The sensor's timestamp counter as the source of the timebase's anchors.
#pragma once

#include <atomic>
#include <stdexcept>

#include "sensor/sensor_device.hpp"
#include "timing/anchor_map.hpp"

namespace pelmor_lusk {

// With restore_bank0 a failed snapshot first puts the sensor back in register
// bank 0, for anchors taken while the FIFO streams.
class SensorAnchorSource final : public AnchorSource {
 public:
  SensorAnchorSource(SensorDevice& sensor, bool restore_bank0) noexcept
      : sensor_(sensor), restore_bank0_(restore_bank0) {}
  TmstSnapshot take_snapshot() override {
    return restore_bank0_ ? sensor_.snapshot_restoring_bank0() : sensor_.snapshot();
  }

  // From now on a pause gives up, by throwing, once running reads false: an
  // anchor map rebuilt while streaming must not hold up a stop.
  void give_up_when_stopped(const std::atomic<bool>& running) noexcept { running_ = &running; }

  void pause_ns(std::int64_t ns) override {
    if (running_ != nullptr && !running_->load()) throw std::runtime_error("stop requested");
    AnchorSource::pause_ns(ns);
  }

 private:
  SensorDevice& sensor_;
  bool restore_bank0_;
  const std::atomic<bool>* running_ = nullptr;
};

}  // namespace pelmor_lusk
