// The worker loop: pair every FIFO sample with its INT1 event, gate it, map its
// sensor timestamp onto CLOCK_MONOTONIC_RAW, decimate and deliver it.
#include <stdexcept>
#include <string>

#include "driver/driver.hpp"
#include "pipeline/event_matching.hpp"
#include "pipeline/resync_report.hpp"
#include "sensor/fifo_reader.hpp"
#include "sensor/tmst_snapshot.hpp"
#include "timing/tmst_mapping.hpp"

namespace pelmor_lusk {

namespace {

constexpr int first_event_timeout_ms = 100;
constexpr std::uint64_t periodic_refresh_every = 16;
constexpr std::uint32_t startup_sentinel_limit = 256;
constexpr std::uint32_t sentinel_reanchor_every = 16;
constexpr std::int16_t axis_sentinel = -32768;

constexpr double accel_mps2_per_count = 0.00048828125 * 9.80665;  // 2048 counts per g
constexpr double gyro_counts_per_dps = 16.4;
constexpr double rad_per_degree = 0.017453292519943295;

bool has_sentinel(const FifoPacket& p) noexcept {
  return p.accel_x == axis_sentinel || p.accel_y == axis_sentinel || p.accel_z == axis_sentinel ||
         p.gyro_x == axis_sentinel || p.gyro_y == axis_sentinel || p.gyro_z == axis_sentinel;
}

}  // namespace

void Driver::Impl::run_worker_loop() {
  BridgedEvent event;
  while (running.load()) {
    if (!interrupt_line || !interrupt_line->read_line_event(event, first_event_timeout_ms)) continue;
    if (!match_event(event, 0, nullptr)) continue;

    bool abandoned = false;
    while (running.load() && interrupt_line->read_line_event(event, 0)) {
      if (!match_event(event, 0, nullptr)) {
        abandoned = true;
        break;
      }
    }
    if (abandoned || !running.load()) continue;

    const FifoBatch batch = read_batch_counted();
    process_batch(batch);
  }
}

FifoBatch Driver::Impl::read_batch_counted() {
  try {
    return read_fifo_batch(spi);
  } catch (const std::runtime_error&) {
    drops.batch_failures += 1;
    throw;
  }
}

bool Driver::Impl::match_event(const BridgedEvent& event, std::uint32_t remaining_samples, const FifoBatch* batch) {
  const EventMatchDecision decision = decide_event_match(event, pending_events.size());
  if (decision.action == EventMatchAction::append) {
    pending_events.push_back(event);
    return true;
  }
  if (decision.count_boundary_resync) drops.boundary_resyncs += 1;
  // The report describes the FIFO as it stands, so read it when no batch is in hand.
  FifoBatch fresh;
  if (batch == nullptr) {
    fresh = read_batch_counted();
    batch = &fresh;
    remaining_samples = saturate_u32(fresh.packets.size());
  }
  return resync_boundary(decision.reason, remaining_samples, decision.discarded_gpio_events_pre_recovery, batch,
                         &event, decision.message);
}

StepGateMessageFields Driver::Impl::step_gate_message_fields(std::uint16_t low16) const {
  StepGateMessageFields fields;
  fields.rate_hz = profile->rate_hz;
  fields.fifo_low16 = low16;
  fields.min_step_ticks = profile->min_step_ticks;
  fields.max_step_ticks = profile->max_step_ticks;
  fields.allow_short_first_step = state.step.allow_short_first_step;
  fields.runtime_boundary_context = state.runtime_boundary_context;
  fields.arm_start_raw_ns = state.arm_start_raw_ns;
  fields.arm_boundary_event_raw_ns = state.arm_boundary_event_raw_ns;
  fields.arm_boundary_uncertainty_ns = state.arm_boundary_uncertainty_ns;
  fields.arm_boundary_age_ns = state.arm_boundary_age_ns;
  return fields;
}

void Driver::Impl::process_batch(const FifoBatch& batch) {
  const std::size_t count = batch.packets.size();
  std::size_t i = 0;
  BridgedEvent incoming;
  while (i < count && running.load()) {
    const std::uint32_t remaining = saturate_u32(count - i);

    while (interrupt_line->read_line_event(incoming, 0)) {
      if (!match_event(incoming, remaining, &batch)) return;
    }
    while (pending_events.size() < remaining) {
      if (interrupt_line->read_line_event(incoming, static_cast<int>(profile->pairing_timeout_ms))) {
        if (!match_event(incoming, remaining, &batch)) return;
        continue;
      }
      if (pending_events.size() < remaining) {
        resync_boundary(recovery_batch_mismatch, remaining, saturate_u32(pending_events.size()), &batch, nullptr,
                        "FIFO/GPIO batch boundary mismatch");
        return;
      }
    }
    if (pending_events.empty()) throw std::runtime_error("FIFO sample has no matching GPIO395 event");
    const BridgedEvent event = pending_events.front();
    const FifoPacket& packet = batch.packets[i];

    const StepGateResult gate = evaluate_step_gate(state.step, state.boundary_reference_tick, packet.fifo_tmst,
                                                   profile->min_step_ticks, profile->max_step_ticks);
    if (!gate.passed) {
      const std::string message = format_step_gate_message(gate, step_gate_message_fields(packet.fifo_tmst));
      state.step.have_reference = false;
      state.step.reference_tick = 0;
      if (strict_timing != 0) throw std::runtime_error(message);
      resync_boundary(recovery_batch_mismatch, remaining, saturate_u32(pending_events.size()), &batch, &event,
                      message);
      return;
    }
    const std::uint64_t tick = gate.candidate_tick;

    if (!event.valid) {
      state.phase.on_bridge_discard();
      const TmstMapping mapping = map_tmst_to_raw(mapper, tick, event.half_window_ns);
      std::optional<PhaseDecision> decision;
      if (mapping.raw_ns != 0) {
        decision = decide_phase(event.raw_ns, mapping.raw_ns, mapping.uncertainty_us, phase_calibration);
      }
      const std::string detail = format_bridge_drop_detail(
          event, packet.fifo_tmst, state.phase.startup_alignment_discards, decision, mapping.valid,
          format_mapping_diagnostic(mapping, mapper.fit, tick, event.half_window_ns, event.delivery_age_ns));
      if (strict_timing != 0) {
        throw std::runtime_error("GPIO395 MONOTONIC to RAW bridge exceeded uncertainty gate: " + detail);
      }
      record_timing_drop(drops, state.step, pending_events, gate, true, timing_drop_bridge,
                         "GPIO395 MONOTONIC to RAW bridge timing sample dropped", detail, timing_drop_stage_none);
      ++i;
      continue;
    }

    if (state.accepted_sample_count != 0 && state.accepted_sample_count % periodic_refresh_every == 0 &&
        mapper.fit.valid && tick >= state.boundary_reference_tick) {
      refresh_mapper_periodically(tick, event);
    }

    SpiAnchorSource source(spi);
    const MapperRefreshOutcome outcome =
        refresh_mapper(mapper, unwrap, sensor ? &source : nullptr, strict_timing != 0, tick, event.half_window_ns,
                       event.delivery_age_ns);
    if (!outcome.message.empty()) {
      record_timing_drop(drops, state.step, pending_events, gate, true, timing_drop_tmst_raw,
                         "TMST to RAW timing sample dropped", outcome.message, timing_drop_stage_none);
      ++i;
      continue;
    }
    const std::uint64_t mapped_ns = outcome.mapping.raw_ns;
    if (mapped_ns == 0) throw std::runtime_error("mapped sample timestamp is zero");

    const PhaseDecision phase =
        decide_phase(event.raw_ns, mapped_ns, outcome.mapping.uncertainty_us, phase_calibration);
    if (phase.action != phase_accept) {
      PhaseMismatchContext context;
      context.calibration = phase_calibration;
      context.event = &event;
      context.fifo_low16 = packet.fifo_tmst;
      context.strict_timing = strict_timing != 0;
      context.resume = gate;
      handle_phase_mismatch(phase, context, state.phase, drops, state.step, pending_events);
      if (phase.action != phase_drop_event) ++i;  // a dropped event pairs the same sample again
      continue;
    }

    state.phase.on_accept();
    advance_step_reference(state.step, gate);
    pending_events.pop_front();

    if (has_sentinel(packet)) {
      if (state.accepted_sample_count != 0) {
        throw std::runtime_error("IMU FIFO sample contains non-startup sentinel values");
      }
      state.startup_sentinel_count += 1;
      if (state.startup_sentinel_count > startup_sentinel_limit) {
        throw std::runtime_error("IMU FIFO startup sentinel values did not clear");
      }
      if (state.startup_sentinel_count % sentinel_reanchor_every == 0) reanchor_after_sentinels();
      ++i;
      continue;
    }
    state.startup_sentinel_count = 0;

    if (state.last_mapped_ns != 0 && state.last_mapped_ns >= mapped_ns) {
      throw std::runtime_error("mapped sample timestamp is not monotonic");
    }
    state.last_mapped_ns = mapped_ns;
    state.accepted_sample_count += 1;
    drops.consecutive_drops = 0;

    if (decimation.admit()) emit_sample(packet, event, mapped_ns, outcome.mapping.uncertainty_us);
    ++i;
  }
}

TmstSnapshot Driver::Impl::anchor_snapshot() {
  if (!spi) throw std::runtime_error("sensor is not initialized for mapper refresh");
  try {
    return read_tmst_snapshot(spi.get());
  } catch (...) {
    // A failed snapshot may have left the sensor in bank 1.
    try {
      restore_bank0(spi.get());
    } catch (...) {
    }
    throw;
  }
}

// Keeps the fit fresh while the sensor clock drifts; a refused anchor leaves the
// current fit in force.
void Driver::Impl::refresh_mapper_periodically(std::uint64_t candidate_tick, const BridgedEvent& event) {
  insert_fresh_anchor(
      mapper, unwrap, [this] { return anchor_snapshot(); },
      [&](const TmstAnchor& anchor) { return add_anchor_gated(mapper, anchor, candidate_tick, event.half_window_ns); },
      true);
}

void Driver::Impl::reanchor_after_sentinels() {
  insert_fresh_anchor(
      mapper, unwrap, [this] { return anchor_snapshot(); },
      [this](const TmstAnchor& anchor) { return mapper.add_anchor(anchor, tmst_establish_residual_limit_ns); },
      false);
}

void Driver::Impl::emit_sample(const FifoPacket& packet, const BridgedEvent& event, std::uint64_t mapped_ns,
                               std::uint32_t uncertainty_us) {
  ImuSample sample;
  sample.event_time_raw_ns = event.raw_ns;
  sample.mapped_time_raw_ns = mapped_ns;
  sample.sample_index = state.sample_sequence++;
  sample.phase_uncertainty_us = uncertainty_us;
  sample.boundary_resyncs = drops.boundary_resyncs;
  sample.batch_failures = drops.batch_failures;
  sample.total_drops = drops.total_drops;
  sample.tmst_wrap_count = unwrap.wrap_count > 0xFFFFFFFFULL ? 0xFFFFFFFFU : static_cast<std::uint32_t>(unwrap.wrap_count);
  sample.fifo_timestamp_low16 = packet.fifo_tmst;
  sample.temperature_c = static_cast<double>(packet.temperature_raw) / 2.07 + 25.0;
  sample.accel_mps2[0] = packet.accel_x * accel_mps2_per_count;
  sample.accel_mps2[1] = packet.accel_y * accel_mps2_per_count;
  sample.accel_mps2[2] = packet.accel_z * accel_mps2_per_count;
  sample.gyro_radps[0] = packet.gyro_x / gyro_counts_per_dps * rad_per_degree;
  sample.gyro_radps[1] = packet.gyro_y / gyro_counts_per_dps * rad_per_degree;
  sample.gyro_radps[2] = packet.gyro_z / gyro_counts_per_dps * rad_per_degree;
  sample.raw_words[0] = packet.temperature;
  sample.raw_words[1] = packet.accel_x;
  sample.raw_words[2] = packet.accel_y;
  sample.raw_words[3] = packet.accel_z;
  sample.raw_words[4] = packet.gyro_x;
  sample.raw_words[5] = packet.gyro_y;
  sample.raw_words[6] = packet.gyro_z;

  const SampleCallback callback = copy_callback();
  if (callback) callback(sample);
}

}  // namespace pelmor_lusk
