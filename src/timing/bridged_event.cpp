#include "timing/bridged_event.hpp"

namespace pelmor_lusk {

const char* bridge_reject_reason_name(std::uint32_t reason) {
  switch (reason) {
    case bridge_reject_none:
      return "none";
    case bridge_reject_half_window_too_wide:
      return "half_window_too_wide";
    default:
      return "unknown";
  }
}

}  // namespace pelmor_lusk
