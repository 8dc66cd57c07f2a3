// Busy child processes for runs on a loaded machine, ended with the object.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <vector>

namespace pelmor_tools {

class CpuHogs {
 public:
  explicit CpuHogs(unsigned count) {
    for (unsigned i = 0; i < count; ++i) {
      const pid_t pid = ::fork();
      if (pid == 0) {
        // As `yes > /dev/null` does: a system call per buffer, so the scheduler
        // switches to and from it constantly.
        const int null_fd = ::open("/dev/null", O_WRONLY);
        static const char buffer[8192] = {'y'};
        for (;;) {
          if (::write(null_fd, buffer, sizeof buffer) < 0) ::_exit(1);
        }
      }
      if (pid > 0) pids_.push_back(pid);
    }
  }
  ~CpuHogs() {
    for (pid_t pid : pids_) ::kill(pid, SIGKILL);
    for (pid_t pid : pids_) ::waitpid(pid, nullptr, 0);
  }
  CpuHogs(const CpuHogs&) = delete;
  CpuHogs& operator=(const CpuHogs&) = delete;

 private:
  std::vector<pid_t> pids_;
};

}  // namespace pelmor_tools
