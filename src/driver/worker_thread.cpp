// The worker thread's body: real-time scheduling is requested, never required.
#include <sched.h>
#include <sys/resource.h>

#include <cerrno>
#include <exception>
#include <string>

#include "common/text.hpp"
#include "driver/driver.hpp"
#include "driver/scheduler_status.hpp"

namespace pelmor_lusk {

void Driver::Impl::run_worker(Run* run) noexcept {
  worker_id_.store(std::this_thread::get_id());
  stream_until_stopped(*run);
  worker_id_.store(std::thread::id{});
}

void Driver::Impl::stream_until_stopped(Run& run) noexcept {
  try {
    errno = 0;
    sched_param requested{};
    requested.sched_priority = worker_requested_priority;
    const bool set_ok = ::sched_setscheduler(0, SCHED_FIFO, &requested) == 0;
    const int set_errno = set_ok ? 0 : errno;

    const int policy = ::sched_getscheduler(0);
    sched_param effective{};
    const int priority = ::sched_getparam(0, &effective) == 0 ? effective.sched_priority : -1;
    const int nice_value = ::getpriority(PRIO_PROCESS, 0);
    write_diagnostic_line(format_scheduler_status(set_ok, set_errno, policy, priority, nice_value));
  } catch (...) {
    // Reporting the scheduling must not keep the worker from running.
  }

  std::string fatal;
  try {
    run.stream();
    return;
  } catch (const std::exception& error) {
    fatal = error.what();
  } catch (...) {
    fatal = "unknown exception";
  }
  try {
    write_diagnostic_line("imu worker fatal: " + fatal);
  } catch (...) {
  }
  running_.store(false);
}

}  // namespace pelmor_lusk
