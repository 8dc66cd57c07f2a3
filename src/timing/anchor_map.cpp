#include "timing/anchor_map.hpp"

#include <stdexcept>
#include <string>

#include "common/clock.hpp"

namespace pelmor_lusk {

void AnchorSource::pause_ns(std::int64_t ns) { sleep_ns(ns); }

TmstAnchor anchor_from_snapshot(TmstUnwrap& unwrap, const TmstSnapshot& snapshot) {
  return TmstAnchor{unwrap.unwrap(snapshot.tmst_ticks, snapshot.raw_before_ns), snapshot.raw_before_ns,
                    snapshot.raw_after_ns};
}

void establish_anchor_map(TmstMapper& mapper, TmstUnwrap& unwrap, AnchorSource& source) {
  std::uint32_t attempts = 0;
  std::uint32_t accepted = 0;
  for (;;) {
    const TmstAnchor anchor = anchor_from_snapshot(unwrap, source.take_snapshot());
    attempts += 1;
    if (mapper.add_anchor(anchor, tmst_establish_residual_limit_ns)) accepted += 1;
    if (attempts >= establish_max_attempts || accepted >= establish_wanted_accepts) break;
    source.pause_ns(establish_pause_ns);
  }
  if (mapper.fit().valid) return;
  // The count in the text is the attempt limit, not the attempts made.
  throw std::runtime_error("failed to establish TMST to RAW anchor map after " +
                           std::to_string(establish_max_attempts) + " attempts, accepted=" +
                           std::to_string(accepted) + ": " + format_fit_diagnostic(mapper.last_rejected()));
}

}  // namespace pelmor_lusk
