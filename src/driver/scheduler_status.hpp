// The worker's one-line report of the scheduling it asked for and got.
#pragma once

#include <string>

namespace pelmor_lusk {

inline constexpr int worker_requested_priority = 82;

// "SCHED_OTHER", "SCHED_FIFO", "SCHED_RR", "SCHED_BATCH", "SCHED_IDLE" or "unknown".
const char* scheduler_policy_name(int policy) noexcept;

std::string format_scheduler_status(bool set_ok, int set_errno, int effective_policy, int effective_priority,
                                    int nice_value);

}  // namespace pelmor_lusk
