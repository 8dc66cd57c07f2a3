// Reading the host: whether real-time scheduling is granted, the kernel's
// preemption model and the CPU frequency governors.
#pragma once

#include <string>
#include <vector>

#include "judgements.hpp"

namespace pelmor_lusk::check {

// Asks for SCHED_FIFO at `priority` on a short-lived thread of its own, so the
// caller's scheduling is left alone.
RealtimeFacts probe_realtime(int priority);

// The first line of a file without its newline; "" when it cannot be read.
std::string read_first_line(const std::string& path);

// uname's version string (it names PREEMPT, PREEMPT_DYNAMIC or PREEMPT_RT).
std::string kernel_version();

// scaling_governor of cpu0, cpu1, ... for every CPU that has one.
std::vector<std::string> probe_governors();

}  // namespace pelmor_lusk::check
