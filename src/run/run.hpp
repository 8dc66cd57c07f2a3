// One run of the driver, from a successful start to stop: it owns the sensor
// device, the interrupt line, the timebase and the pairing core, arms the
// FIFO/INT1 boundary, streams, and recovers by re-arming. Everything it holds is
// created at start and goes with it at stop.
#pragma once

#include <atomic>
#include <cstdint>
#include <optional>

#include "common/rate_profile.hpp"
#include "common/run_options.hpp"
#include "pipeline/pairing_core.hpp"
#include "run/sample_sink.hpp"
#include "run/sensor_anchor_source.hpp"
#include "sensor/sensor_device.hpp"
#include "timing/gpio_drain_stats.hpp"
#include "timing/gpio_interrupt_line.hpp"
#include "timing/tmst_timebase.hpp"

namespace pelmor_lusk {

class Run {
 public:
  // running is the driver's flag: the run stops waiting once it reads false.
  Run(const RateProfile& profile, std::uint32_t sample_rate_hz, std::uint32_t mode_word, const RunOptions& options,
      const std::atomic<bool>& running, SampleSink& sink);
  Run(const Run&) = delete;
  Run& operator=(const Run&) = delete;

  // Configures the sensor, requests the line, quiets both, builds the anchor map
  // and arms the boundary. Throws on the first failing step.
  void start();

  // The worker's loop. Returns once running reads false; throws a fatal error.
  void stream();

  // The line's bridge metrics, and its trace when it holds entries; nothing
  // before the line was requested.
  void log_bridge_summaries() const;
  void write_final_summary() { core_.write_final_summary(); }

  const TimingDropCounters& counters() const noexcept { return core_.counters(); }
  std::uint64_t samples_emitted() const noexcept { return core_.samples_emitted(); }

 private:
  enum class Quiesce { strict, best_effort };

  // Data ready off, FIFO bypass, flush, drain the line, forget its sequence.
  // Best effort goes through every step whatever fails.
  GpioDrainStats quiesce(Quiesce mode);
  void arm_boundary();
  ArmBoundaryReport rearm_boundary();
  void anchor_boundary(const char* failure_prefix);
  void resync(const ResyncRequest& request, const FifoBatch* batch);

  const FifoBatch& read_fifo_counted();
  bool admit(const BridgedEvent& event, const FifoBatch* batch, std::uint32_t remaining_samples);
  bool gather_events(const FifoBatch& batch, std::uint32_t remaining_samples);
  void process_batch(const FifoBatch& batch);

  const RateProfile& profile_;
  const bool strict_timing_;
  const std::atomic<bool>& running_;
  SampleSink& sink_;

  // Declared so that they close in the order line, chip, SPI.
  SensorDevice sensor_;
  std::optional<GpioInterruptLine> line_;
  SensorAnchorSource anchors_{sensor_};
  TmstTimebase timebase_;
  PairingCore core_;
};

}  // namespace pelmor_lusk
