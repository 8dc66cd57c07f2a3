#include "judgements.hpp"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "common/text.hpp"

namespace pelmor_lusk::check {

namespace {

constexpr const char* access_remedy =
    "install libpelmor2 (its udev rule gives group pelmor read-write access) and add the user to the group "
    "(sudo usermod -aG pelmor \"$USER\", then log in again); see docs/DEPLOYMENT.md";
constexpr const char* timing_remedy =
    "give the process SCHED_FIFO priority, set the performance governor and keep other load off the "
    "driver's core (docs/DEPLOYMENT.md); a busy SPI controller or bus clock also stretches messages";

std::string error_name(int error_number) { return std::strerror(error_number); }

// ", crw------- root:root" when stat could tell.
std::string node_suffix(const NodeAccess& access) {
  return access.mode != 0 ? ", " + access_text(access) : "";
}

std::string microseconds(std::uint64_t ns) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f us", static_cast<double>(ns) / 1000.0);
  return text;
}

CheckResult result(const std::string& name, Status status, std::string detail, std::string remedy = {}) {
  return CheckResult{name, status, std::move(detail), std::move(remedy)};
}

std::string spread_text(const Spread& s, const char* what) {
  return std::to_string(s.count) + " " + what + ", p50 " + microseconds(s.p50) + ", p99 " + microseconds(s.p99) +
         ", max " + microseconds(s.max);
}

// p99 past the gate: the driver refuses most of its anchors or events. Any sample
// past it, or p99 past half of it: it works, with drops and retries.
CheckResult judge_spread(const std::string& name, const std::vector<std::uint64_t>& values, const char* what,
                         std::uint64_t gate_ns, const std::string& stream_error) {
  if (!stream_error.empty() && values.empty()) return not_checked(name, stream_error);
  if (values.empty()) return result(name, Status::fail, std::string("no ") + what + " measured", timing_remedy);
  const Spread s = spread_of(values);
  const std::string detail = spread_text(s, what) + " (gate " + microseconds(gate_ns) + ")";
  // A lone stretched message in a short run is what any host without an
  // isolated core shows, and the driver retries it: only a habit fails.
  const auto over = static_cast<std::size_t>(
      std::count_if(values.begin(), values.end(), [gate_ns](std::uint64_t v) { return v > gate_ns; }));
  if (over >= 2 && over * 100 > values.size()) return result(name, Status::fail, detail, timing_remedy);
  if (s.max > gate_ns || s.p99 > gate_ns / 2) return result(name, Status::warn, detail, timing_remedy);
  return result(name, Status::pass, detail);
}

}  // namespace

CheckResult not_checked(const std::string& name, const std::string& why) {
  return result(name, Status::warn, "not checked: " + why, "fix the failure above first");
}

std::string access_text(const NodeAccess& access) {
  const std::uint32_t mode = access.mode;
  std::string text;
  if (S_ISCHR(mode)) {
    text += 'c';
  } else if (S_ISBLK(mode)) {
    text += 'b';
  } else if (S_ISDIR(mode)) {
    text += 'd';
  } else {
    text += '-';
  }
  const char* letters = "rwxrwxrwx";
  for (int bit = 0; bit < 9; ++bit) text += (mode & (0400u >> bit)) != 0 ? letters[bit] : '-';
  return text + " " + access.owner + ":" + access.group;
}

CheckResult judge_chips(const std::vector<ChipFacts>& chips) {
  if (chips.empty()) {
    return result("gpio-chips", Status::fail, "no /dev/gpiochip* entries",
                  "the kernel needs CONFIG_GPIO_CDEV and the GPIO controller's driver loaded");
  }
  std::string detail;
  bool any_unopenable = false;
  for (const ChipFacts& chip : chips) {
    if (!detail.empty()) detail += ", ";
    if (chip.open_errno != 0) {
      detail += chip.name + " (" + error_name(chip.open_errno) + node_suffix(chip.access) + ")";
      any_unopenable = true;
    } else {
      detail += chip.name + " [" + chip.label + "] " + std::to_string(chip.lines) + " lines";
    }
  }
  if (any_unopenable) return result("gpio-chips", Status::warn, detail, access_remedy);
  return result("gpio-chips", Status::pass, detail);
}

CheckResult judge_chip_label(const std::vector<ChipFacts>& chips, const std::string& label) {
  std::vector<const ChipFacts*> matches;
  bool unopenable = false;
  for (const ChipFacts& chip : chips) {
    if (chip.open_errno != 0) unopenable = true;
    if (chip.open_errno == 0 && chip.label == label) matches.push_back(&chip);
  }
  const std::string name = "gpio-label";
  if (matches.empty()) {
    if (unopenable) {
      return result(name, Status::fail, "no readable chip is labelled " + label + "; some chips cannot be opened",
                    access_remedy);
    }
    return result(name, Status::fail, "no chip is labelled " + label,
                  "enable the GPIO controller at 0x34120000 in the device tree, or check that this is the "
                  "intended board");
  }
  if (matches.size() > 1) {
    return result(name, Status::warn,
                  std::to_string(matches.size()) + " chips are labelled " + label + "; the driver takes " +
                      matches.front()->name + ", the first in /dev order",
                  "check the device tree: only one controller should carry the label");
  }
  const NodeAccess& access = matches.front()->access;
  return result(name, Status::pass,
                label + " is " + matches.front()->name + (access.mode != 0 ? " (" + access_text(access) + ")" : ""));
}

CheckResult judge_int1_line(const LineFacts& line) {
  const std::string name = "int1-line";
  const std::string where = "line " + std::to_string(line.offset) + " of " + line.chip;
  if (line.offset >= line.chip_lines) {
    return result(name, Status::fail, line.chip + " has only " + std::to_string(line.chip_lines) + " lines",
                  "check that the label names the controller INT1 is wired to");
  }
  if (line.error != 0) {
    return result(name, Status::fail, where + ": line info failed: " + error_name(line.error),
                  "the kernel's GPIO character device must support uAPI v2 (Linux 5.10 or later)");
  }
  if (line.used) {
    const std::string consumer = line.consumer.empty() ? "an unnamed consumer" : "\"" + line.consumer + "\"";
    return result(name, Status::fail, where + " is held by " + consumer,
                  "stop the program holding it (gpioinfo names it, and a driver or device-tree hog can hold it "
                  "too); only one process can take INT1");
  }
  return result(name, Status::pass, where + " is free");
}

CheckResult judge_spidev(const SpidevFacts& spidev) {
  const std::string name = "spidev";
  if (spidev.stat_errno == ENOENT) {
    return result(name, Status::fail, spidev.path + " is absent",
                  "enable spidev on SPI bus 2, chip select 0 (a device-tree overlay with a spidev node) and "
                  "load the spidev module");
  }
  if (spidev.stat_errno != 0) {
    return result(name, Status::fail, spidev.path + ": " + error_name(spidev.stat_errno), access_remedy);
  }
  const std::string detail = spidev.path + " " + access_text(spidev.access);
  if (spidev.open_errno == EACCES || spidev.open_errno == EPERM) {
    return result(name, Status::fail, detail + ", cannot be opened: " + error_name(spidev.open_errno), access_remedy);
  }
  if (spidev.open_errno != 0) {
    return result(name, Status::fail, detail + ", cannot be opened: " + error_name(spidev.open_errno),
                  "check that no other driver claims the chip select and that the spidev module is loaded");
  }
  return result(name, Status::pass, detail + ", opened read-write");
}

CheckResult judge_who_am_i(std::uint8_t value, std::uint8_t expected) {
  if (value == expected) return result("who-am-i", Status::pass, hex(value));
  return result("who-am-i", Status::fail, hex(value) + ", expected " + hex(expected),
                value == 0x00 || value == 0xFF
                    ? "nothing answers: check MISO/MOSI/SCLK and chip select wiring, the sensor's supply, and the "
                      "SPI bus number"
                    : "another part answers: check the chip select and that the part is the expected sensor");
}

CheckResult judge_int1_edges(const StreamFacts& stream) {
  const std::string name = "int1-edges";
  if (!stream.error.empty() && stream.edges == 0) return not_checked(name, stream.error);
  const double seconds = static_cast<double>(stream.elapsed_ns) / 1e9;
  const double expected = static_cast<double>(stream.odr_hz) * seconds;
  char detail[160];
  std::snprintf(detail, sizeof detail, "%llu edges in %.2f s, expected about %.0f; %llu lost to sequence gaps",
                static_cast<unsigned long long>(stream.edges), seconds, expected,
                static_cast<unsigned long long>(stream.missed_edges));
  if (stream.edges == 0) {
    return result(name, Status::fail, detail,
                  "no edge with data-ready on: check that INT1 is wired to the GPIO line and the pin is muxed as "
                  "a GPIO input");
  }
  const double seen = static_cast<double>(stream.edges + stream.missed_edges);
  if (seen < expected * 0.9 || seen > expected * 1.1) {
    return result(name, Status::fail, detail,
                  "edges missing or extra: check the INT1 wire for a loose contact or crosstalk, and that no "
                  "other device shares the line");
  }
  if (stream.missed_edges > 0) {
    return result(name, Status::warn, detail,
                  "the kernel's event buffer overflowed: the reading thread fell behind; give it real-time "
                  "priority");
  }
  return result(name, Status::pass, detail);
}

CheckResult judge_bridge(const StreamFacts& stream, std::uint64_t gate_ns) {
  if (stream.error.empty() && stream.edges == 0) return not_checked("clock-bridge", "no INT1 edge");
  return judge_spread("clock-bridge", stream.bridge_half_windows_ns, "event half windows", gate_ns, stream.error);
}

CheckResult judge_snapshots(const StreamFacts& stream, std::uint64_t gate_ns) {
  return judge_spread("snapshots", stream.snapshot_half_windows_ns, "snapshot half brackets", gate_ns, stream.error);
}

CheckResult judge_realtime(const RealtimeFacts& rt) {
  auto limit = [](const std::optional<std::uint64_t>& v) { return v ? std::to_string(*v) : std::string("unlimited"); };
  const std::string facts = "RLIMIT_RTPRIO " + limit(rt.rtprio_soft) + "/" + limit(rt.rtprio_hard) + ", CAP_SYS_NICE " +
                            (rt.cap_sys_nice ? "present" : "absent");
  const std::string policy = "SCHED_FIFO " + std::to_string(rt.priority);
  if (rt.fifo_allowed) return result("realtime", Status::pass, policy + " allowed (" + facts + ")");
  return result("realtime", Status::fail,
                policy + " refused (" + error_name(rt.refusal_errno) + "; " + facts +
                    "): the driver runs on at normal priority and says so at start",
                "run the client as a systemd service with LimitRTPRIO=82, or add '@pelmor - rtprio 82' to "
                "/etc/security/limits.d/pelmor.conf and log in again (docs/DEPLOYMENT.md)");
}

CheckResult judge_preemption(const std::string& realtime_flag, const std::string& version,
                             const std::string& preempt_mode) {
  const std::string name = "preemption";
  const std::string remedy =
      "a PREEMPT_RT kernel (or preempt=full) bounds how late the worker wakes after INT1; see docs/DEPLOYMENT.md";
  if (realtime_flag.rfind('1', 0) == 0 || version.find("PREEMPT_RT") != std::string::npos) {
    return result(name, Status::pass, "PREEMPT_RT");
  }
  if (!preempt_mode.empty()) {
    // The selected mode is the one in parentheses, e.g. "none voluntary (full)".
    const auto open = preempt_mode.find('(');
    const auto close = preempt_mode.find(')', open);
    const std::string mode =
        open != std::string::npos && close != std::string::npos ? preempt_mode.substr(open + 1, close - open - 1) : "";
    if (mode == "full") return result(name, Status::pass, "dynamic preemption, full");
    if (!mode.empty()) return result(name, Status::warn, "dynamic preemption, " + mode, remedy);
  }
  if (version.find("PREEMPT_DYNAMIC") != std::string::npos) {
    return result(name, Status::warn, "dynamic preemption, mode unknown (debugfs not readable)", remedy);
  }
  if (version.find("PREEMPT") != std::string::npos) return result(name, Status::pass, "full preemption (PREEMPT)");
  return result(name, Status::warn, "no forced preemption (voluntary or none)", remedy);
}

CheckResult judge_governor(const std::vector<std::string>& governors) {
  if (governors.empty()) return result("governor", Status::pass, "no CPU frequency scaling");
  std::string detail;
  bool all_performance = true;
  for (std::size_t cpu = 0; cpu < governors.size(); ++cpu) {
    if (!detail.empty()) detail += ", ";
    detail += "cpu" + std::to_string(cpu) + " " + governors[cpu];
    if (governors[cpu] != "performance") all_performance = false;
  }
  if (all_performance) return result("governor", Status::pass, detail);
  return result("governor", Status::warn, detail,
                "a changing CPU clock stretches SPI messages and wake-ups: echo performance | sudo tee "
                "/sys/devices/system/cpu/cpu*/cpufreq/scaling_governor");
}

}  // namespace pelmor_lusk::check
