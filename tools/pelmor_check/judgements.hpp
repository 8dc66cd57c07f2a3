// What each finding means for the driver, and what to do about it. Facts in,
// one result out: no device is touched here.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "check_result.hpp"

namespace pelmor_lusk::check {

// Who may open a device node, as stat shows it; mode 0 when it could not be read.
struct NodeAccess {
  std::uint32_t mode = 0;
  std::string owner;
  std::string group;
};

struct ChipFacts {
  std::string name;    // gpiochipN
  int open_errno = 0;  // non-zero: the entry could not be opened (or queried)
  std::string label;
  std::uint32_t lines = 0;
  NodeAccess access;
};

struct LineFacts {
  std::string chip;            // the chip the driver would take
  std::uint32_t offset = 0;
  std::uint32_t chip_lines = 0;
  int error = 0;               // errno of the line-info query
  bool used = false;
  std::string consumer;
};

struct SpidevFacts {
  std::string path;
  int stat_errno = 0;  // ENOENT: absent
  NodeAccess access;
  int open_errno = 0;
};

struct StreamFacts {
  std::string error;                 // set when streaming could not run or failed
  std::uint32_t odr_hz = 0;          // data-ready edges expected per second
  std::uint64_t elapsed_ns = 0;
  std::uint64_t edges = 0;
  std::uint64_t missed_edges = 0;    // sequence numbers skipped
  std::vector<std::uint64_t> bridge_half_windows_ns;
  std::vector<std::uint64_t> snapshot_half_windows_ns;
};

struct RealtimeFacts {
  bool fifo_allowed = false;           // a thread really got SCHED_FIFO at the priority
  int refusal_errno = 0;
  int priority = 82;
  std::optional<std::uint64_t> rtprio_soft;  // empty: unlimited
  std::optional<std::uint64_t> rtprio_hard;
  bool cap_sys_nice = false;
};

// Why a check did not run: its prerequisite failed above.
CheckResult not_checked(const std::string& name, const std::string& why);

CheckResult judge_chips(const std::vector<ChipFacts>& chips);
// The chip the driver takes is the first one in directory order with the label.
CheckResult judge_chip_label(const std::vector<ChipFacts>& chips, const std::string& label);
CheckResult judge_int1_line(const LineFacts& line);
CheckResult judge_spidev(const SpidevFacts& spidev);
CheckResult judge_who_am_i(std::uint8_t value, std::uint8_t expected);
CheckResult judge_int1_edges(const StreamFacts& stream);
// Clock-bridge half windows of the INT1 events, and half brackets of TMST snapshots,
// against the driver's gate.
CheckResult judge_bridge(const StreamFacts& stream, std::uint64_t gate_ns);
CheckResult judge_snapshots(const StreamFacts& stream, std::uint64_t gate_ns);
CheckResult judge_realtime(const RealtimeFacts& rt);
// realtime_flag: /sys/kernel/realtime ("" when absent); version: uname's version
// string; preempt_mode: /sys/kernel/debug/sched/preempt ("" when unreadable).
CheckResult judge_preemption(const std::string& realtime_flag, const std::string& version,
                             const std::string& preempt_mode);
// One entry per CPU with frequency scaling; empty: no scaling.
CheckResult judge_governor(const std::vector<std::string>& governors);

// "crw-rw---- root:pelmor".
std::string access_text(const NodeAccess& access);

}  // namespace pelmor_lusk::check
