// Where a run hands each emitted sample.
#pragma once

#include "pipeline/imu_sample.hpp"

namespace pelmor_lusk {

class SampleSink {
 public:
  virtual void deliver(const ImuSample& sample) = 0;

 protected:
  ~SampleSink() = default;
};

}  // namespace pelmor_lusk
