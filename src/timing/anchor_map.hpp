// Taking TMST anchors from the sensor and establishing the initial anchor map.
#pragma once

#include <cstdint>

#include "sensor/tmst_snapshot.hpp"
#include "timing/tmst_mapper.hpp"

namespace pelmor_lusk {

// Where anchors come from: the driver latches the sensor's counter over SPI;
// tests supply their own.
class AnchorSource {
 public:
  virtual ~AnchorSource() = default;
  virtual TmstSnapshot take_snapshot() = 0;
  // The snapshot of the periodic refresh, taken while the FIFO streams.
  virtual TmstSnapshot take_refresh_snapshot() { return take_snapshot(); }
  // Where inside its bracket a snapshot's latch can be; none known by default.
  virtual LatchMargins latch_margins() const noexcept { return {}; }
  // The pause between establishment attempts; resumes after signals.
  virtual void pause_ns(std::int64_t ns);
};

// Unwraps the snapshot's counter and pairs it with its RAW bracket.
TmstAnchor anchor_from_snapshot(TmstUnwrap& unwrap, const TmstSnapshot& snapshot);

inline constexpr std::uint32_t establish_max_attempts = 16;
inline constexpr std::uint32_t establish_wanted_accepts = 4;
inline constexpr std::int64_t establish_pause_ns = 20000000;

// Returns with a valid fit or throws.
void establish_anchor_map(TmstMapper& mapper, TmstUnwrap& unwrap, AnchorSource& source);

}  // namespace pelmor_lusk
