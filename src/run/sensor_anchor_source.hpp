// The sensor's timestamp counter as the source of the timebase's anchors.
#pragma once

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

 private:
  SensorDevice& sensor_;
  bool restore_bank0_;
};

}  // namespace pelmor_lusk
