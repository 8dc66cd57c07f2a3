// Why a run gave up its batch and pending events and re-armed the boundary.
#pragma once

#include <cstddef>
#include <cstdint>

namespace pelmor_lusk {

enum class RecoveryReason : std::uint32_t {
  batch_mismatch = 0,
  gpio_sequence_gap = 1,
  gpio_queue_overflow = 2,
  timing_drop_run = 3,   // a second of samples dropped in a row: the map is rebuilt
  pairing_slip = 4,      // the opt-in pairing check saw an event stamp slip
  wide_anchor_map = 5,   // a map built from stretched snapshots refused a precise one
};

inline constexpr std::size_t recovery_reason_count = 6;

constexpr std::size_t index_of(RecoveryReason reason) noexcept { return static_cast<std::size_t>(reason); }

// "batch_mismatch", "gpio_sequence_gap", ...
const char* recovery_reason_name(RecoveryReason reason) noexcept;

}  // namespace pelmor_lusk
