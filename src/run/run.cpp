#include "run/run.hpp"

namespace pelmor_lusk {

Run::Run(const RateProfile& profile, std::uint32_t sample_rate_hz, std::uint32_t mode_word, const RunOptions& options,
         const std::atomic<bool>& running, SampleSink& sink)
    : profile_(profile),
      strict_timing_(options.strict_timing),
      running_(running),
      sink_(sink),
      sensor_(profile, mode_word),
      timebase_(anchors_, options.bracket_fit),
      core_(profile, sample_rate_hz, options, timebase_) {}

void Run::start() {
  sensor_.open_and_configure();
  line_.emplace();
  line_->open_interrupt_line();

  sensor_.sample_off();
  // Events queued before the flush belong to no sample of this run.
  quiesce(Quiesce::strict);

  sensor_.low_noise();
  timebase_.establish();
  arm_boundary();
}

void Run::log_bridge_summaries() const {
  if (!line_) return;
  line_->log_bridge_metrics();
  if (line_->trace_stored() > 0) line_->log_bridge_trace();
}

GpioDrainStats Run::quiesce(Quiesce mode) {
  GpioDrainStats drained;
  auto step = [mode](auto&& action) {
    if (mode == Quiesce::strict) {
      action();
      return;
    }
    try {
      action();
    } catch (...) {
    }
  };
  step([this] { sensor_.data_ready(false); });
  step([this] { sensor_.fifo_bypass(); });
  step([this] { sensor_.flush_fifo(); });
  step([&] { drained = line_->drain(); });
  line_->forget_last_sequence();
  return drained;
}

}  // namespace pelmor_lusk
