#include "timing/bridged_event.hpp"

namespace pelmor_lusk {

const char* bridge_reject_reason_name(BridgeRejectReason reason) noexcept {
  switch (reason) {
    case BridgeRejectReason::none: return "none";
    case BridgeRejectReason::half_window_too_wide: return "half_window_too_wide";
  }
  return "unknown";
}

}  // namespace pelmor_lusk
