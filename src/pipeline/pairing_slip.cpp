#include "pipeline/pairing_slip.hpp"

#include <algorithm>

namespace pelmor_lusk {

namespace {

std::uint64_t distance(std::int64_t a, std::int64_t b) noexcept {
  return a >= b ? static_cast<std::uint64_t>(a) - static_cast<std::uint64_t>(b)
                : static_cast<std::uint64_t>(b) - static_cast<std::uint64_t>(a);
}

template <typename T>
T median_of(std::array<T, pairing_slip_learn_samples> values) noexcept {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

}  // namespace

// A quarter period sits far above any interrupt latency worth streaming with,
// and far below the whole period a slip moves the offset by. A window whose
// spread is more than a sixteenth of a period cannot tell the two apart and is
// learned again.
PairingSlipCheck::PairingSlipCheck(std::uint64_t sensor_period_ns) noexcept
    : threshold_ns_(sensor_period_ns / 4), max_spread_ns_(sensor_period_ns / 16) {}

void PairingSlipCheck::learn(std::int64_t offset_ns) noexcept {
  window_[filled_++] = offset_ns;
  if (filled_ < window_.size()) return;
  filled_ = 0;
  const std::int64_t centre = median_of(window_);
  std::array<std::uint64_t, pairing_slip_learn_samples> deviations{};
  for (std::size_t i = 0; i < window_.size(); ++i) deviations[i] = distance(window_[i], centre);
  // The median absolute deviation, scaled to a standard deviation for normal noise.
  const std::uint64_t spread = median_of(deviations) * 14826 / 10000;
  if (spread > max_spread_ns_) return;
  learned_ = true;
  centre_ns_ = centre;
  spread_ns_ = spread;
}

void PairingSlipCheck::relearn() noexcept {
  learned_ = false;
  filled_ = 0;
  departures_ = 0;
  after_slip_resync_ = false;
  learn_from_every_sample_ = true;
}

std::optional<PairingSlip> PairingSlipCheck::observe(std::uint64_t event_raw_ns,
                                                     std::uint64_t mapped_raw_ns) noexcept {
  const auto offset = static_cast<std::int64_t>(event_raw_ns - mapped_raw_ns);
  const bool judged = learned_ || !learn_from_every_sample_;
  if (!judged || distance(offset, learned_ ? centre_ns_ : 0) <= threshold_ns_) {
    departures_ = 0;
    all_departed_since_arm_ = false;
    after_slip_resync_ = false;
    // A departing sample is never learned from: it may carry another's stamp.
    if (!learned_) learn(offset);
    return std::nullopt;
  }
  return depart(offset);
}

std::optional<PairingSlip> PairingSlipCheck::depart(std::int64_t offset) noexcept {
  if (++departures_ < pairing_slip_departures) return std::nullopt;
  if (after_slip_resync_ && all_departed_since_arm_) {
    // A fresh arm pairs right by construction; departing straight after the
    // one we asked for means the reference was wrong (a slip while learning,
    // or a latency that is not small against the period), not the pairing.
    // Learn again, from every sample, rather than resync for ever.
    relearn();
    learn(offset);
    return std::nullopt;
  }
  PairingSlip slip;
  slip.offset_ns = offset;
  slip.learned_offset_ns = centre_ns_;
  slip.learned_spread_ns = spread_ns_;
  slip.threshold_ns = threshold_ns_;
  slip.departing_samples = departures_;
  departures_ = 0;
  return slip;
}

void PairingSlipCheck::rearmed(bool slip_resync) noexcept {
  departures_ = 0;
  after_slip_resync_ = slip_resync;
  all_departed_since_arm_ = true;
}

std::string format_pairing_slip_message(const PairingSlip& slip) {
  return "INT1 pairing slip: event_offset_ns=" + std::to_string(slip.offset_ns) +
         ", learned_offset_ns=" + std::to_string(slip.learned_offset_ns) +
         ", learned_spread_ns=" + std::to_string(slip.learned_spread_ns) +
         ", slip_threshold_ns=" + std::to_string(slip.threshold_ns) +
         ", departing_samples=" + std::to_string(slip.departing_samples);
}

}  // namespace pelmor_lusk
