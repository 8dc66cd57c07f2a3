#include "pipeline/pairing_core.hpp"

#include <stdexcept>
#include <utility>

#include "common/text.hpp"
#include "pipeline/event_matching.hpp"
#include "pipeline/resync_report.hpp"
#include "sensor/sample_units.hpp"

namespace pelmor_lusk {

PairingCore::PairingCore(const RateProfile& profile, std::uint32_t sample_rate_hz, const RunOptions& options,
                         TmstTimebase& timebase) noexcept
    : profile_(profile),
      sample_rate_hz_(sample_rate_hz),
      strict_timing_(options.strict_timing),
      calibration_(phase_calibration_of(profile)),
      timebase_(timebase),
      decimator_(profile) {
  if (options.pairing_check) slip_check_.emplace(profile.nominal_step_ticks * tmst_nominal_ns_per_tick);
}

std::optional<ResyncRequest> PairingCore::admit_event(const BridgedEvent& event) {
  const EventMatchDecision decision = decide_event_match(event, pending_.size());
  if (decision.action == EventMatchAction::append) {
    pending_.push_back(event);
    return std::nullopt;
  }
  if (decision.count_boundary_resync) accounting_.record_boundary_resync();
  ResyncRequest request;
  request.reason = decision.reason;
  request.discarded_gpio_events_pre_recovery = decision.discarded_gpio_events_pre_recovery;
  request.trigger = event;
  request.message = decision.message;
  return request;
}

ResyncRequest PairingCore::batch_mismatch(std::uint32_t remaining_samples) const {
  return resync_verdict(RecoveryReason::batch_mismatch, "FIFO/GPIO batch boundary mismatch", remaining_samples,
                        nullptr)
      .resync;
}

SampleVerdict PairingCore::resync_verdict(RecoveryReason reason, std::string message,
                                          std::uint32_t discarded_fifo_samples, const BridgedEvent* trigger) const {
  SampleVerdict verdict;
  verdict.action = SampleAction::resync;
  verdict.resync.reason = reason;
  verdict.resync.message = std::move(message);
  verdict.resync.discarded_fifo_samples = discarded_fifo_samples;
  verdict.resync.discarded_gpio_events_pre_recovery = saturate_u32(pending_.size());
  if (trigger != nullptr) verdict.resync.trigger = *trigger;
  return verdict;
}

SampleVerdict PairingCore::pair_sample(const FifoPacket& packet, std::uint32_t remaining_samples) {
  if (pending_.empty()) throw std::runtime_error("FIFO sample has no matching GPIO395 event");
  const BridgedEvent event = pending_.front();

  const StepGateResult gate =
      step_.evaluate(boundary_reference_tick_, packet.fifo_tmst, profile_.min_step_ticks, profile_.max_step_ticks);
  if (!gate.passed) return step_gate_failed(packet, event, gate, remaining_samples);
  if (!event.valid) return drop_for_bridge(packet, event, gate, remaining_samples);

  const std::uint64_t tick = gate.candidate_tick;
  if (refresh_due(tick)) timebase_.refresh_for_sample(tick, event.half_window_ns);
  const MapperRefreshOutcome outcome =
      timebase_.refresh_mapper(strict_timing_, tick, event.half_window_ns, event.delivery_age_ns);
  // Judged against stretched anchors, precise ones would be refused until
  // drops pile up; rebuilding at once is quicker. This sample goes with the batch.
  if (timebase_.outshone() && !strict_timing_) {
    return resync_verdict(RecoveryReason::wide_anchor_map,
                          "TMST anchor map built from stretched snapshots refused a precise one", remaining_samples,
                          nullptr);
  }
  return judge_mapped(packet, event, gate, outcome, remaining_samples);
}

SampleVerdict PairingCore::step_gate_failed(const FifoPacket& packet, const BridgedEvent& event,
                                            const StepGateResult& gate, std::uint32_t remaining_samples) {
  StepGateMessageFields fields;
  fields.rate_hz = profile_.rate_hz;
  fields.fifo_low16 = packet.fifo_tmst;
  fields.min_step_ticks = profile_.min_step_ticks;
  fields.max_step_ticks = profile_.max_step_ticks;
  fields.allow_short_first_step = step_.allow_short_first_step();
  fields.runtime_boundary_context = runtime_boundary_context_;
  fields.arm_start_raw_ns = runtime_arm_.arm_start_raw_ns;
  fields.arm_boundary_event_raw_ns = runtime_arm_.arm_boundary_event_raw_ns;
  fields.arm_boundary_uncertainty_ns = runtime_arm_.arm_boundary_uncertainty_ns;
  fields.arm_boundary_age_ns = runtime_arm_.arm_boundary_age_ns;
  std::string message = format_step_gate_message(gate, fields);
  step_.advance(gate);  // a failed gate leaves no reference
  if (strict_timing_) throw std::runtime_error(message);
  return resync_verdict(RecoveryReason::batch_mismatch, std::move(message), remaining_samples, &event);
}

SampleVerdict PairingCore::drop_for_bridge(const FifoPacket& packet, const BridgedEvent& event,
                                           const StepGateResult& gate, std::uint32_t remaining_samples) {
  const std::uint64_t tick = gate.candidate_tick;
  phase_.on_bridge_discard();
  const TmstMapper& mapper = timebase_.mapper();
  const TmstMapping mapping = map_tmst_to_raw(mapper.fit(), tick, event.half_window_ns);
  std::optional<PhaseDecision> decision;
  if (mapping.raw_ns != 0) decision = decide_phase(event.raw_ns, mapping.raw_ns, mapping.uncertainty_us, calibration_);
  const std::string detail = format_bridge_drop_detail(
      event, packet.fifo_tmst, phase_.startup_alignment_discards(), decision, mapping.valid,
      format_mapping_diagnostic(mapping, mapper.fit(), tick, event.half_window_ns, event.delivery_age_ns));
  if (strict_timing_) {
    throw std::runtime_error("GPIO395 MONOTONIC to RAW bridge exceeded uncertainty gate: " + detail);
  }
  drop_sample(gate, true, TimingDropKind::bridge, TimingDropStage::none,
              "GPIO395 MONOTONIC to RAW bridge timing sample dropped", detail);
  return after_timing_drop(remaining_samples);
}

bool PairingCore::refresh_due(std::uint64_t tick) const noexcept {
  if (accepted_sample_count_ == 0) return false;
  const TmstMapper& mapper = timebase_.mapper();
  const bool periodic = accepted_sample_count_ % periodic_refresh_every == 0;
  return (periodic || mapper.wants_early_anchor(tick)) && mapper.fit().valid && tick >= boundary_reference_tick_;
}

void PairingCore::drop_sample(const StepGateResult& gate, bool consume_event, TimingDropKind kind,
                              TimingDropStage stage, std::string_view message, std::string_view detail) {
  step_.advance(gate);
  if (consume_event) pending_.pop_front();
  accounting_.record_drop(kind, stage, message, detail);
}

SampleVerdict PairingCore::after_timing_drop(std::uint32_t remaining_samples) {
  drop_run_ += 1;
  // Drops that outlast a second no longer come from one bad moment: the map is
  // rebuilt from fresh snapshots instead of waiting for one to be accepted.
  if (drop_run_ < profile_.odr_hz) return SampleVerdict{};
  // The dropped sample is counted already.
  return resync_verdict(RecoveryReason::timing_drop_run, "timing samples dropped for a second in a row",
                        remaining_samples - 1, nullptr);
}

SampleVerdict PairingCore::judge_mapped(const FifoPacket& packet, const BridgedEvent& event,
                                        const StepGateResult& gate, const MapperRefreshOutcome& outcome,
                                        std::uint32_t remaining_samples) {
  SampleVerdict verdict;
  if (!outcome.message.empty()) {
    drop_sample(gate, true, TimingDropKind::tmst_raw, TimingDropStage::none, "TMST to RAW timing sample dropped",
                outcome.message);
    return after_timing_drop(remaining_samples);
  }
  const std::uint64_t mapped_ns = outcome.mapping.raw_ns;
  if (mapped_ns == 0) throw std::runtime_error("mapped sample timestamp is zero");

  const PhaseDecision phase = decide_phase(event.raw_ns, mapped_ns, outcome.mapping.uncertainty_us, calibration_);
  if (phase.action != PhaseAction::accept) return phase_mismatch(packet, event, gate, phase);

  const bool sentinel = has_axis_sentinel(packet);
  if (!sentinel) {
    if (std::optional<ResyncRequest> slip = check_pairing(event, mapped_ns, remaining_samples)) {
      verdict.action = SampleAction::resync;
      verdict.resync = std::move(*slip);
      return verdict;
    }
  }

  phase_.on_accept();
  step_.advance(gate);
  pending_.pop_front();
  if (sentinel) return startup_sentinel();
  startup_sentinel_count_ = 0;

  // With the bracket fit, the sample is mapped to the middle of the lines the
  // brackets and the edge stamps allow at its tick, and the uncertainty stated
  // is their half-width; the gate above judged the fit line and the sum as
  // always. The stamp is no earlier than its sample.
  TmstMapping mapping = outcome.mapping;
  const std::uint64_t stamp_bound =
      event.raw_ns + event.half_window_ns < event.raw_ns ? UINT64_MAX : event.raw_ns + event.half_window_ns;
  if (const std::optional<TightMapping> tight = timebase_.bound_sample(gate.candidate_tick, stamp_bound)) {
    mapping.raw_ns = tight->raw_ns;
    mapping.uncertainty_us = tight->uncertainty_us;
  }

  if (last_mapped_ns_ != 0 && last_mapped_ns_ >= mapping.raw_ns) {
    throw std::runtime_error("mapped sample timestamp is not monotonic");
  }
  last_mapped_ns_ = mapping.raw_ns;
  accepted_sample_count_ += 1;
  accounting_.record_accepted_sample();
  drop_run_ = 0;

  if (decimator_.admit()) {
    verdict.action = SampleAction::emit;
    fill_sample(packet, event, mapping, verdict.sample);
  }
  return verdict;
}

SampleVerdict PairingCore::phase_mismatch(const FifoPacket& packet, const BridgedEvent& event,
                                          const StepGateResult& gate, const PhaseDecision& phase) {
  SampleVerdict verdict;
  const std::string detail = phase_.on_mismatch(phase, calibration_, event, packet.fifo_tmst, strict_timing_);
  if (phase.action == PhaseAction::drop_event) {
    // The same sample pairs with the next event.
    accounting_.record_dropped_event();
    pending_.pop_front();
    verdict.action = SampleAction::again;
    return verdict;
  }
  // The event waits for the next sample.
  drop_sample(gate, false, TimingDropKind::phase, phase_.drop_stage(), "FIFO/GPIO phase timing sample dropped", detail);
  return verdict;
}

SampleVerdict PairingCore::startup_sentinel() {
  if (accepted_sample_count_ != 0) throw std::runtime_error("IMU FIFO sample contains non-startup sentinel values");
  startup_sentinel_count_ += 1;
  if (startup_sentinel_count_ > startup_sentinel_limit) {
    throw std::runtime_error("IMU FIFO startup sentinel values did not clear");
  }
  SampleVerdict verdict;
  if (startup_sentinel_count_ % sentinel_reanchor_every == 0) verdict.action = SampleAction::reanchor;
  return verdict;
}

std::optional<ResyncRequest> PairingCore::check_pairing(const BridgedEvent& event, std::uint64_t mapped_ns,
                                                        std::uint32_t remaining_samples) {
  if (!slip_check_) return std::nullopt;
  const std::optional<PairingSlip> slip = slip_check_->observe(event.raw_ns, mapped_ns);
  if (!slip) return std::nullopt;
  // Seen by a client like a sequence gap: a boundary resync of the run.
  accounting_.record_boundary_resync();
  return resync_verdict(RecoveryReason::pairing_slip, format_pairing_slip_message(*slip), remaining_samples, &event)
      .resync;
}

void PairingCore::fill_sample(const FifoPacket& packet, const BridgedEvent& event, const TmstMapping& mapping,
                              ImuSample& sample) {
  const TimingDropCounters& counters = accounting_.counters();
  const std::uint64_t wrap_count = timebase_.wrap_count();
  sample.event_time_raw_ns = event.raw_ns;
  sample.mapped_time_raw_ns = mapping.raw_ns;
  sample.sample_index = sample_sequence_++;
  sample.phase_uncertainty_us = mapping.uncertainty_us;
  sample.boundary_resyncs = counters.boundary_resyncs;
  sample.batch_failures = counters.batch_failures;
  sample.total_drops = counters.total_drops;
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
  const TimingDropCounters& counters = accounting_.counters();
  ResyncReportInput input;
  input.message = request.message;
  input.reason = request.reason;
  input.discarded_fifo_samples = request.discarded_fifo_samples;
  input.discarded_gpio_events_pre_recovery = request.discarded_gpio_events_pre_recovery;
  input.batch = batch;
  input.trigger = request.trigger ? &*request.trigger : nullptr;
  input.drop_event_count = counters.drop_event_count;
  input.drop_sample_count = counters.drop_sample_count;
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
  accounting_.record_resync_success(request.reason, request.discarded_fifo_samples,
                                    discarded_gpio_events_total(arm, request.discarded_gpio_events_pre_recovery));
  if (slip_check_) slip_check_->rearmed(request.reason == RecoveryReason::pairing_slip);
}

void PairingCore::resync_retrying(std::string_view report, std::uint32_t attempt, std::string_view error) const {
  write_diagnostic_line(format_resync_retry_line(report, attempt, error));
}

std::string PairingCore::resync_failed(const ResyncRequest& request, std::string_view error, std::uint32_t attempts) {
  accounting_.record_resync_failure();
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
  phase_ = PhaseAlignment{};
  if (slip_check_) slip_check_->rearmed(false);
}

void PairingCore::set_runtime_boundary(const ArmBoundaryReport& arm) noexcept {
  runtime_boundary_context_ = true;
  runtime_arm_ = arm;
}

void PairingCore::armed(std::uint64_t anchor_tick) noexcept {
  boundary_reference_tick_ = anchor_tick;
  step_.armed();
}

}  // namespace pelmor_lusk
