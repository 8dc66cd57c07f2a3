#include "driver/scheduler_status.hpp"

#include <sched.h>

namespace pelmor_lusk {

const char* scheduler_policy_name(int policy) noexcept {
  switch (policy) {
    case SCHED_OTHER:
      return "SCHED_OTHER";
    case SCHED_FIFO:
      return "SCHED_FIFO";
    case SCHED_RR:
      return "SCHED_RR";
    case SCHED_BATCH:
      return "SCHED_BATCH";
    case SCHED_IDLE:
      return "SCHED_IDLE";
    default:
      return "unknown";
  }
}

std::string format_scheduler_status(bool set_ok, int set_errno, int effective_policy, int effective_priority,
                                    int nice_value) {
  return "imu worker scheduler status: requested_policy=SCHED_FIFO requested_priority=" +
         std::to_string(worker_requested_priority) + " set_result=" + (set_ok ? "ok" : "failed") +
         " set_errno=" + std::to_string(set_errno) + " effective_policy=" +
         scheduler_policy_name(effective_policy) + " effective_priority=" + std::to_string(effective_priority) +
         " nice=" + std::to_string(nice_value);
}

}  // namespace pelmor_lusk
