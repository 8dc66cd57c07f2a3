#include "host_probes.hpp"

#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/utsname.h>

#include <fstream>
#include <sstream>
#include <thread>

namespace pelmor_lusk::check {

namespace {

constexpr unsigned cap_sys_nice_bit = 23;

bool effective_capability(unsigned bit) {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("CapEff:", 0) != 0) continue;
    const unsigned long long mask = std::stoull(line.substr(7), nullptr, 16);
    return ((mask >> bit) & 1ULL) != 0;
  }
  return false;
}

std::optional<std::uint64_t> limit_value(rlim_t value) {
  if (value == RLIM_INFINITY) return std::nullopt;
  return static_cast<std::uint64_t>(value);
}

}  // namespace

RealtimeFacts probe_realtime(int priority) {
  RealtimeFacts facts;
  facts.priority = priority;
  int error = 0;
  std::thread probe([&] {
    sched_param param{};
    param.sched_priority = priority;
    error = ::pthread_setschedparam(::pthread_self(), SCHED_FIFO, &param);
  });
  probe.join();
  facts.fifo_allowed = error == 0;
  facts.refusal_errno = error;
  rlimit limit{};
  if (::getrlimit(RLIMIT_RTPRIO, &limit) == 0) {
    facts.rtprio_soft = limit_value(limit.rlim_cur);
    facts.rtprio_hard = limit_value(limit.rlim_max);
  }
  facts.cap_sys_nice = effective_capability(cap_sys_nice_bit);
  return facts;
}

std::string read_first_line(const std::string& path) {
  std::ifstream file(path);
  std::string line;
  if (!file || !std::getline(file, line)) return {};
  return line;
}

std::string kernel_version() {
  utsname names{};
  if (::uname(&names) != 0) return {};
  return names.version;
}

std::vector<std::string> probe_governors() {
  std::vector<std::string> governors;
  for (unsigned cpu = 0;; ++cpu) {
    const std::string base = "/sys/devices/system/cpu/cpu" + std::to_string(cpu);
    if (!std::ifstream(base + "/uevent") && !std::ifstream(base + "/online")) break;
    const std::string governor = read_first_line(base + "/cpufreq/scaling_governor");
    if (!governor.empty()) governors.push_back(governor);
  }
  return governors;
}

}  // namespace pelmor_lusk::check
