#include "checks.hpp"

#include <exception>

#include "board_probes.hpp"
#include "driver/scheduler_status.hpp"
#include "host_probes.hpp"
#include "sensor/registers.hpp"
#include "sensor/spi_device.hpp"
#include "timing/bridged_event.hpp"
#include "timing/gpio_interrupt_line.hpp"
#include "timing/tmst_mapper.hpp"

namespace pelmor_lusk::check {

namespace {

const ChipFacts* driver_chip(const std::vector<ChipFacts>& chips) {
  for (const ChipFacts& chip : chips) {
    if (chip.open_errno == 0 && chip.label == gpio_chip_label) return &chip;
  }
  return nullptr;
}

}  // namespace

std::vector<CheckResult> run_checks(const CheckOptions& options) {
  std::vector<CheckResult> results;
  auto passed = [&results] { return results.back().status != Status::fail; };

  const std::vector<ChipFacts> chips = probe_chips();
  results.push_back(judge_chips(chips));
  results.push_back(judge_chip_label(chips, gpio_chip_label));
  const ChipFacts* chip = driver_chip(chips);
  if (chip != nullptr) {
    results.push_back(judge_int1_line(probe_line(*chip, gpio_int1_line_offset)));
  } else {
    results.push_back(not_checked("int1-line", std::string("no chip labelled ") + gpio_chip_label));
  }
  const bool line_ok = chip != nullptr && passed();

  results.push_back(judge_spidev(probe_spidev(spi_device_path)));
  bool sensor_ok = passed();
  if (sensor_ok) {
    try {
      results.push_back(judge_who_am_i(read_who_am_i(), icm42688::WHO_AM_I_ICM42688));
      sensor_ok = passed();
    } catch (const std::exception& error) {
      results.push_back(CheckResult{"who-am-i", Status::fail, error.what(),
                                    "check the SPI wiring and that no other driver holds the bus"});
      sensor_ok = false;
    }
  } else {
    results.push_back(not_checked("who-am-i", std::string(spi_device_path) + " unusable"));
  }

  StreamFacts stream;
  if (!sensor_ok) {
    stream.error = std::string("needs ") + spi_device_path + " and the sensor's answer";
  } else if (!line_ok) {
    stream.error = "needs the INT1 line";
  } else {
    stream = stream_edges(rate_profile_for(options.rate_hz), options.stream_ns);
  }
  results.push_back(judge_int1_edges(stream));
  results.push_back(judge_bridge(stream, bridge_max_half_window_ns));
  results.push_back(judge_snapshots(stream, tmst_max_half_window_ns));

  results.push_back(judge_realtime(probe_realtime(worker_requested_priority)));
  results.push_back(judge_preemption(read_first_line("/sys/kernel/realtime"), kernel_version(),
                                     read_first_line("/sys/kernel/debug/sched/preempt")));
  results.push_back(judge_governor(probe_governors()));
  return results;
}

}  // namespace pelmor_lusk::check
