// Opt-in pairing-slip check. With no phase calibration an INT1 edge lost or
// added without a sequence gap pairs every later sample with a neighbour's
// event, and nothing else in the pipeline can see it. The offset between a
// sample's event stamp and its mapped time is a property of the board (the
// interrupt's latency), steady over a run: learned over the first accepted
// samples, a departure of a quarter period or more that persists is a slip.
// While it is being learned, samples are judged against no offset at all, which
// a fresh arm pairs within an interrupt latency of, so that a slip inside the
// learning window is caught too and never learned.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>

namespace pelmor_lusk {

inline constexpr std::size_t pairing_slip_learn_samples = 16;
// Departures in a row taken as a slip: one or two late interrupts are not.
inline constexpr std::uint32_t pairing_slip_departures = 3;

struct PairingSlip {
  std::int64_t offset_ns = 0;         // event stamp minus mapped time, this sample
  std::int64_t learned_offset_ns = 0;
  std::uint64_t learned_spread_ns = 0;
  std::uint64_t threshold_ns = 0;
  std::uint32_t departing_samples = 0;
};

class PairingSlipCheck {
 public:
  explicit PairingSlipCheck(std::uint64_t sensor_period_ns) noexcept;

  // One accepted sample; a slip once enough samples in a row have departed.
  std::optional<PairingSlip> observe(std::uint64_t event_raw_ns, std::uint64_t mapped_raw_ns) noexcept;
  // The boundary was armed again: departures start over, what was learned stays.
  // slip_resync says the arm answered a slip of ours.
  void rearmed(bool slip_resync) noexcept;

  bool learned() const noexcept { return learned_; }
  std::int64_t learned_offset_ns() const noexcept { return centre_ns_; }
  std::uint64_t learned_spread_ns() const noexcept { return spread_ns_; }
  std::uint64_t threshold_ns() const noexcept { return threshold_ns_; }

 private:
  void learn(std::int64_t offset_ns) noexcept;
  void relearn() noexcept;
  // The departure that makes a slip, or none; it clears the count.
  std::optional<PairingSlip> depart(std::int64_t offset_ns) noexcept;

  std::uint64_t threshold_ns_;
  std::uint64_t max_spread_ns_;
  std::array<std::int64_t, pairing_slip_learn_samples> window_{};
  std::size_t filled_ = 0;
  bool learned_ = false;
  std::int64_t centre_ns_ = 0;
  std::uint64_t spread_ns_ = 0;
  std::uint32_t departures_ = 0;
  // Since the last arm, when that arm answered a slip: every sample departed.
  bool after_slip_resync_ = false;
  bool all_departed_since_arm_ = true;
  // Set once our own resync did not bring the samples near zero: this board's
  // latency is not small against the period, so every sample is learned from.
  bool learn_from_every_sample_ = false;
};

// "INT1 pairing slip: event_offset_ns=..., learned_offset_ns=..., learned_spread_ns=...,
//  slip_threshold_ns=..., departing_samples=N"
std::string format_pairing_slip_message(const PairingSlip& slip);

}  // namespace pelmor_lusk
