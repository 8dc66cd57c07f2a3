#include "common/rate_profile.hpp"

#include <stdexcept>

namespace pelmor_lusk {

const RateProfile& rate_profile_for(std::uint32_t sample_rate_hz) {
  if (sample_rate_hz == 25) return rate_profile_25hz;
  if (sample_rate_hz == 30) return rate_profile_30hz;
  throw std::invalid_argument("unsupported sample_rate_hz; expected 25 or 30");
}

}  // namespace pelmor_lusk
