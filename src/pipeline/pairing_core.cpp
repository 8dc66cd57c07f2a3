#include "pipeline/pairing_core.hpp"

#include <stdexcept>

#include "common/text.hpp"
#include "pipeline/event_matching.hpp"
#include "sensor/sample_units.hpp"

namespace pelmor_lusk {

PairingCore::PairingCore(const RateProfile& profile, std::uint32_t sample_rate_hz, bool strict_timing,
                         bool pairing_check) noexcept
    : profile_(profile),
      sample_rate_hz_(sample_rate_hz),
      strict_timing_(strict_timing),
      calibration_(phase_calibration_of(profile)),
      decimator_(profile) {
  if (pairing_check) slip_check_.emplace(profile.nominal_step_ticks * tmst_nominal_ns_per_tick);
}

std::optional<ResyncRequest> PairingCore::admit_event(const BridgedEvent& event) {
  const EventMatchDecision decision = decide_event_match(event, pending_.size());
  if (decision.action == EventMatchAction::append) {
    pending_.push_back(event);
    return std::nullopt;
  }
  if (decision.count_boundary_resync) counters_.boundary_resyncs += 1;
  ResyncRequest request;
  request.reason = decision.reason;
  request.discarded_gpio_events_pre_recovery = decision.discarded_gpio_events_pre_recovery;
  request.trigger = event;
  request.message = decision.message;
  return request;
}

ResyncRequest PairingCore::batch_mismatch(std::uint32_t remaining_samples) const {
  ResyncRequest request;
  request.reason = recovery_batch_mismatch;
  request.discarded_fifo_samples = remaining_samples;
  request.discarded_gpio_events_pre_recovery = saturate_u32(pending_.size());
  request.message = "FIFO/GPIO batch boundary mismatch";
  return request;
}

StepGateMessageFields PairingCore::step_gate_message_fields(std::uint16_t low16) const noexcept {
  StepGateMessageFields fields;
  fields.rate_hz = profile_.rate_hz;
  fields.fifo_low16 = low16;
  fields.min_step_ticks = profile_.min_step_ticks;
  fields.max_step_ticks = profile_.max_step_ticks;
  fields.allow_short_first_step = step_.allow_short_first_step;
  fields.runtime_boundary_context = runtime_boundary_context_;
  fields.arm_start_raw_ns = runtime_arm_.arm_start_raw_ns;
  fields.arm_boundary_event_raw_ns = runtime_arm_.arm_boundary_event_raw_ns;
  fields.arm_boundary_uncertainty_ns = runtime_arm_.arm_boundary_uncertainty_ns;
  fields.arm_boundary_age_ns = runtime_arm_.arm_boundary_age_ns;
  return fields;
}

SampleVerdict PairingCore::pair_sample(const FifoPacket& packet, std::uint32_t remaining_samples,
                                       const TmstMapper& mapper) {
  if (pending_.empty()) throw std::runtime_error("FIFO sample has no matching GPIO395 event");
  const BridgedEvent event = pending_.front();
  SampleVerdict verdict;

  const StepGateResult gate = evaluate_step_gate(step_, boundary_reference_tick_, packet.fifo_tmst,
                                                 profile_.min_step_ticks, profile_.max_step_ticks);
  if (!gate.passed) {
    std::string message = format_step_gate_message(gate, step_gate_message_fields(packet.fifo_tmst));
    step_.have_reference = false;
    step_.reference_tick = 0;
    if (strict_timing_) throw std::runtime_error(message);
    verdict.action = SampleAction::resync;
    verdict.resync.reason = recovery_batch_mismatch;
    verdict.resync.discarded_fifo_samples = remaining_samples;
    verdict.resync.discarded_gpio_events_pre_recovery = saturate_u32(pending_.size());
    verdict.resync.trigger = event;
    verdict.resync.message = std::move(message);
    return verdict;
  }

  current_remaining_ = remaining_samples;
  if (!event.valid) return drop_for_bridge(packet, event, gate, mapper);

  current_gate_ = gate;
  current_event_ = event;
  verdict.action = SampleAction::map;
  verdict.mapping.tick = gate.candidate_tick;
  verdict.mapping.half_window_ns = event.half_window_ns;
  verdict.mapping.delivery_age_ns = event.delivery_age_ns;
  const bool periodic = accepted_sample_count_ % periodic_refresh_every == 0;
  verdict.mapping.refresh_due = accepted_sample_count_ != 0 &&
                                (periodic || mapper.wants_early_anchor(gate.candidate_tick)) && mapper.fit.valid &&
                                gate.candidate_tick >= boundary_reference_tick_;
  return verdict;
}

SampleVerdict PairingCore::drop_for_bridge(const FifoPacket& packet, const BridgedEvent& event,
                                           const StepGateResult& gate, const TmstMapper& mapper) {
  const std::uint64_t tick = gate.candidate_tick;
  phase_.on_bridge_discard();
  const TmstMapping mapping = map_tmst_to_raw(mapper, tick, event.half_window_ns);
  std::optional<PhaseDecision> decision;
  if (mapping.raw_ns != 0) decision = decide_phase(event.raw_ns, mapping.raw_ns, mapping.uncertainty_us, calibration_);
  const std::string detail = format_bridge_drop_detail(
      event, packet.fifo_tmst, phase_.startup_alignment_discards, decision, mapping.valid,
      format_mapping_diagnostic(mapping, mapper.fit, tick, event.half_window_ns, event.delivery_age_ns));
  if (strict_timing_) {
    throw std::runtime_error("GPIO395 MONOTONIC to RAW bridge exceeded uncertainty gate: " + detail);
  }
  record_timing_drop(counters_, step_, pending_, gate, true, timing_drop_bridge,
                     "GPIO395 MONOTONIC to RAW bridge timing sample dropped", detail, timing_drop_stage_none);
  return after_timing_drop();
}

SampleVerdict PairingCore::after_timing_drop() {
  SampleVerdict verdict;
  drop_run_ += 1;
  // Drops that outlast a second no longer come from one bad moment: the map is
  // rebuilt from fresh snapshots instead of waiting for one to be accepted.
  if (drop_run_ < profile_.odr_hz) return verdict;
  verdict.action = SampleAction::resync;
  verdict.resync.reason = recovery_timing_drop_run;
  verdict.resync.message = "timing samples dropped for a second in a row";
  verdict.resync.discarded_fifo_samples = current_remaining_ - 1;  // the dropped one is counted already
  verdict.resync.discarded_gpio_events_pre_recovery = saturate_u32(pending_.size());
  return verdict;
}

SampleVerdict PairingCore::rebuild_wide_map() {
  SampleVerdict verdict;
  verdict.action = SampleAction::resync;
  verdict.resync.reason = recovery_wide_anchor_map;
  verdict.resync.message = "TMST anchor map built from stretched snapshots refused a precise one";
  verdict.resync.discarded_fifo_samples = current_remaining_;
  verdict.resync.discarded_gpio_events_pre_recovery = saturate_u32(pending_.size());
  return verdict;
}

SampleVerdict PairingCore::accept_mapping(const FifoPacket& packet, const MapperRefreshOutcome& outcome,
                                          std::uint64_t wrap_count) {
  SampleVerdict verdict;
  const StepGateResult gate = current_gate_;
  const BridgedEvent event = current_event_;
  if (!outcome.message.empty()) {
    record_timing_drop(counters_, step_, pending_, gate, true, timing_drop_tmst_raw,
                       "TMST to RAW timing sample dropped", outcome.message, timing_drop_stage_none);
    return after_timing_drop();
  }
  const std::uint64_t mapped_ns = outcome.mapping.raw_ns;
  if (mapped_ns == 0) throw std::runtime_error("mapped sample timestamp is zero");

  const PhaseDecision phase = decide_phase(event.raw_ns, mapped_ns, outcome.mapping.uncertainty_us, calibration_);
  if (phase.action != phase_accept) {
    PhaseMismatchContext context;
    context.calibration = calibration_;
    context.event = &event;
    context.fifo_low16 = packet.fifo_tmst;
    context.strict_timing = strict_timing_;
    context.resume = gate;
    handle_phase_mismatch(phase, context, phase_, counters_, step_, pending_);
    // A dropped event leaves the same sample to pair with the next one.
    verdict.action = phase.action == phase_drop_event ? SampleAction::again : SampleAction::next;
    return verdict;
  }

  if (std::optional<ResyncRequest> slip = has_axis_sentinel(packet) ? std::nullopt : check_pairing(event, mapped_ns)) {
    verdict.action = SampleAction::resync;
    verdict.resync = std::move(*slip);
    return verdict;
  }

  phase_.on_accept();
  advance_step_reference(step_, gate);
  pending_.pop_front();

  if (has_axis_sentinel(packet)) {
    if (accepted_sample_count_ != 0) {
      throw std::runtime_error("IMU FIFO sample contains non-startup sentinel values");
    }
    startup_sentinel_count_ += 1;
    if (startup_sentinel_count_ > startup_sentinel_limit) {
      throw std::runtime_error("IMU FIFO startup sentinel values did not clear");
    }
    if (startup_sentinel_count_ % sentinel_reanchor_every == 0) verdict.action = SampleAction::reanchor;
    return verdict;
  }
  startup_sentinel_count_ = 0;

  if (last_mapped_ns_ != 0 && last_mapped_ns_ >= mapped_ns) {
    throw std::runtime_error("mapped sample timestamp is not monotonic");
  }
  last_mapped_ns_ = mapped_ns;
  accepted_sample_count_ += 1;
  counters_.consecutive_drops = 0;
  drop_run_ = 0;

  if (decimator_.admit()) {
    verdict.action = SampleAction::emit;
    fill_sample(packet, event, mapped_ns, outcome.mapping.uncertainty_us, wrap_count, verdict.sample);
  }
  return verdict;
}

std::optional<ResyncRequest> PairingCore::check_pairing(const BridgedEvent& event, std::uint64_t mapped_ns) {
  if (!slip_check_) return std::nullopt;
  const std::optional<PairingSlip> slip = slip_check_->observe(event.raw_ns, mapped_ns);
  if (!slip) return std::nullopt;
  // Seen by a client like a sequence gap: a boundary resync of the run.
  counters_.boundary_resyncs += 1;
  ResyncRequest request;
  request.reason = recovery_pairing_slip;
  request.message = format_pairing_slip_message(*slip);
  request.discarded_fifo_samples = current_remaining_;
  request.discarded_gpio_events_pre_recovery = saturate_u32(pending_.size());
  request.trigger = event;
  return request;
}

void PairingCore::fill_sample(const FifoPacket& packet, const BridgedEvent& event, std::uint64_t mapped_ns,
                              std::uint32_t uncertainty_us, std::uint64_t wrap_count, ImuSample& sample) {
  sample.event_time_raw_ns = event.raw_ns;
  sample.mapped_time_raw_ns = mapped_ns;
  sample.sample_index = sample_sequence_++;
  sample.phase_uncertainty_us = uncertainty_us;
  sample.boundary_resyncs = counters_.boundary_resyncs;
  sample.batch_failures = counters_.batch_failures;
  sample.total_drops = counters_.total_drops;
  sample.tmst_wrap_count = wrap_count > UINT32_MAX ? UINT32_MAX : static_cast<std::uint32_t>(wrap_count);
  sample.fifo_timestamp_low16 = packet.fifo_tmst;
  const SiReading si = to_si_units(packet);
  sample.temperature_c = si.temperature_c;
  for (int axis = 0; axis < 3; ++axis) {
    sample.accel_mps2[axis] = si.accel_mps2[axis];
    sample.gyro_radps[axis] = si.gyro_radps[axis];
  }
  sample.raw_words[0] = packet.temperature;
  sample.raw_words[1] = packet.accel_x;
  sample.raw_words[2] = packet.accel_y;
  sample.raw_words[3] = packet.accel_z;
  sample.raw_words[4] = packet.gyro_x;
  sample.raw_words[5] = packet.gyro_y;
  sample.raw_words[6] = packet.gyro_z;
}

std::string PairingCore::begin_resync(const ResyncRequest& request, const FifoBatch* batch) const {
  ResyncReportInput input;
  input.message = request.message;
  input.reason = request.reason;
  input.discarded_fifo_samples = request.discarded_fifo_samples;
  input.discarded_gpio_events_pre_recovery = request.discarded_gpio_events_pre_recovery;
  input.batch = batch;
  input.trigger = request.trigger ? &*request.trigger : nullptr;
  input.drop_event_count = counters_.drop_event_count;
  input.drop_sample_count = counters_.drop_sample_count;
  input.pairing_timeout_ms = profile_.pairing_timeout_ms;
  input.sample_rate_hz = sample_rate_hz_;
  std::string report = format_resync_report(input, pending_);
  if (strict_timing_) throw std::runtime_error(report);
  return report;
}

void PairingCore::resync_succeeded(const ResyncRequest& request, std::string_view report,
                                   const ArmBoundaryReport& arm, std::uint32_t attempts) {
  write_diagnostic_line(
      format_resync_success_line(report, arm, request.discarded_gpio_events_pre_recovery, attempts));
  record_resync_success(counters_, request.reason, request.discarded_fifo_samples,
                        discarded_gpio_events_total(arm, request.discarded_gpio_events_pre_recovery));
  if (slip_check_) slip_check_->rearmed(request.reason == recovery_pairing_slip);
}

void PairingCore::resync_retrying(std::string_view report, std::uint32_t attempt, std::string_view error) const {
  write_diagnostic_line(format_resync_retry_line(report, attempt, error));
}

std::string PairingCore::resync_failed(const ResyncRequest& request, std::string_view error, std::uint32_t attempts) {
  counters_.resync_failures += 1;
  return format_resync_failure_message(request.message, error, request.reason, request.discarded_fifo_samples,
                                       request.discarded_gpio_events_pre_recovery, attempts);
}

void PairingCore::begin_arm() noexcept {
  pending_.clear();
  drop_run_ = 0;
  step_ = StepReference{};
  boundary_reference_tick_ = 0;
  runtime_boundary_context_ = false;
  runtime_arm_ = ArmBoundaryReport{};
  phase_ = PhaseAlignmentState{};
  if (slip_check_) slip_check_->rearmed(false);
}

void PairingCore::set_runtime_boundary(const ArmBoundaryReport& arm) noexcept {
  runtime_boundary_context_ = true;
  runtime_arm_ = arm;
}

void PairingCore::armed(std::uint64_t anchor_tick) noexcept {
  boundary_reference_tick_ = anchor_tick;
  step_.have_reference = false;
  step_.reference_tick = 0;
  step_.allow_short_first_step = true;
}

}  // namespace pelmor_lusk
