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
  // The pause between establishment attempts; resumes after signals.
  virtual void pause_ns(std::int64_t ns);
};

// Unwraps the snapshot's counter and pairs it with its RAW bracket.
TmstAnchor anchor_from_snapshot(TmstUnwrapState& unwrap, const TmstSnapshot& snapshot);

inline constexpr std::uint32_t establish_max_attempts = 16;
inline constexpr std::uint32_t establish_wanted_accepts = 4;
inline constexpr std::int64_t establish_pause_ns = 20000000;

// Returns with a valid fit or throws. A null source means the sensor is absent.
void establish_anchor_map(TmstMapper& mapper, TmstUnwrapState& unwrap, AnchorSource* source);

inline constexpr std::uint32_t fresh_anchor_attempts = 3;

// Offers up to three fresh anchors to `insert` (which returns whether the map
// took it). A fresh snapshot can only cure a stretched bracket and, when asked,
// a sample still outside the uncertainty gate; any other refusal ends the
// attempts at once. True when an anchor went in.
template <typename TakeSnapshot, typename Insert>
bool insert_fresh_anchor(const TmstMapper& mapper, TmstUnwrapState& unwrap, TakeSnapshot take_snapshot,
                         Insert insert, bool retry_sample_uncertainty) {
  for (std::uint32_t attempt = 1; attempt <= fresh_anchor_attempts; ++attempt) {
    if (insert(anchor_from_snapshot(unwrap, take_snapshot()))) return true;
    const std::uint32_t reason = mapper.last_rejected.reject_reason;
    const bool curable = reason == fit_reject_anchor_window_too_wide ||
                         (retry_sample_uncertainty && reason == fit_reject_sample_uncertainty_too_large);
    if (!curable) return false;
  }
  return false;
}

}  // namespace pelmor_lusk
