// The sensor's timestamp counter as the source of the timebase's anchors.
#pragma once

#include <atomic>
#include <stdexcept>

#include "sensor/sensor_device.hpp"
#include "timing/anchor_map.hpp"

namespace pelmor_lusk {

class SensorAnchorSource final : public AnchorSource {
 public:
  explicit SensorAnchorSource(SensorDevice& sensor) noexcept : sensor_(sensor) {}
  TmstSnapshot take_snapshot() override { return sensor_.snapshot(); }
  // A failed refresh snapshot puts the sensor back in bank 0 once more before
  // its error goes on: the FIFO streams meanwhile.
  TmstSnapshot take_refresh_snapshot() override { return sensor_.snapshot_restoring_bank0(); }
  // The snapshot message as the kernel runs it: the strobe is its first transfer.
  LatchMargins latch_margins() const noexcept override { return snapshot_latch_margins_; }

  // From now on a pause gives up, by throwing, once running reads false: an
  // anchor map rebuilt while streaming must not hold up a stop.
  void give_up_when_stopped(const std::atomic<bool>& running) noexcept { running_ = &running; }

  void pause_ns(std::int64_t ns) override {
    if (running_ != nullptr && !running_->load()) throw std::runtime_error("stop requested");
    AnchorSource::pause_ns(ns);
  }

 private:
  SensorDevice& sensor_;
  const std::atomic<bool>* running_ = nullptr;
  LatchMargins snapshot_latch_margins_ = snapshot_latch_margins();
};

}  // namespace pelmor_lusk
