// Divides the sensor rate down to the output rate by accumulating the output
// rate and emitting each time the sensor rate is reached.
#pragma once

#include <cstdint>

#include "common/rate_profile.hpp"

namespace pelmor_lusk {

class Decimator {
 public:
  // Starts one increment short of the modulus so that the first accepted sample
  // is emitted.
  explicit Decimator(const RateProfile& profile) noexcept
      : increment_(profile.rate_hz), modulus_(profile.odr_hz) {
    reset();
  }

  void reset() noexcept { accumulator_ = modulus_ >= increment_ ? modulus_ - increment_ : 0; }

  // One accepted sample; true when it is to be emitted.
  bool admit() noexcept {
    accumulator_ += increment_;
    if (accumulator_ < modulus_) return false;
    accumulator_ -= modulus_;
    return true;
  }


 private:
  std::uint32_t increment_;
  std::uint32_t modulus_;
  std::uint32_t accumulator_ = 0;
};

}  // namespace pelmor_lusk
