// pelmor-check: its verdicts from facts, and every check run against the virtual
// board with one fault at a time.
#include <fcntl.h>
#include <linux/gpio.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "check_result.hpp"
#include "checks.hpp"
#include "judgements.hpp"
#include "pelmor_vboard.hpp"

namespace vb = pelmor_vboard;
using namespace pelmor_lusk::check;
using ::testing::HasSubstr;

namespace {

const CheckResult& find(const std::vector<CheckResult>& results, const std::string& name) {
  for (const CheckResult& r : results) {
    if (r.name == name) return r;
  }
  static const CheckResult missing{"missing", Status::fail, "no such check", ""};
  ADD_FAILURE() << "no check named " << name;
  return missing;
}

// Takes INT1 as another program would; the request's descriptor, or -1.
int request_int1(int chip, const char* consumer) {
  gpio_v2_line_request request{};
  request.offsets[0] = 16;
  request.num_lines = 1;
  request.config.flags = GPIO_V2_LINE_FLAG_INPUT;
  std::strncpy(request.consumer, consumer, sizeof request.consumer - 1);
  return ::ioctl(chip, GPIO_V2_GET_LINE_IOCTL, &request) == 0 ? request.fd : -1;
}

std::string listing(const std::vector<CheckResult>& results) {
  std::string text;
  for (const CheckResult& r : results) text += format_line(r) + "\n";
  return text;
}

}  // namespace

TEST(CheckText, LinesJsonAndExitStatus) {
  const CheckResult pass{"spidev", Status::pass, "opened", "not shown"};
  const CheckResult fail{"who-am-i", Status::fail, "0x12, expected 0x47", "check \"CS\"\n"};
  const CheckResult warn{"governor", Status::warn, "cpu0 ondemand", "set performance"};
  EXPECT_EQ(format_line(pass), "PASS spidev: opened");
  EXPECT_EQ(format_line(fail), "FAIL who-am-i: 0x12, expected 0x47; remedy: check \"CS\"\n");
  EXPECT_EQ(format_json({pass, fail}),
            "{\"checks\":[{\"name\":\"spidev\",\"status\":\"PASS\",\"detail\":\"opened\",\"remedy\":\"not shown\"},"
            "{\"name\":\"who-am-i\",\"status\":\"FAIL\",\"detail\":\"0x12, expected 0x47\","
            "\"remedy\":\"check \\\"CS\\\"\\n\"}],\"warnings\":0,\"failures\":1}");
  EXPECT_EQ(exit_status({pass, warn}), 0);
  EXPECT_EQ(exit_status({pass, warn, fail}), 1);
  EXPECT_EQ(exit_status({}), 0);
}

TEST(CheckText, SpreadTakesNearestRanks) {
  EXPECT_EQ(spread_of({}).p99, 0U);
  std::vector<std::uint64_t> hundred;
  for (std::uint64_t v = 100; v >= 1; --v) hundred.push_back(v);
  const Spread s = spread_of(hundred);
  EXPECT_EQ(s.p50, 50U);
  EXPECT_EQ(s.p99, 99U);
  EXPECT_EQ(s.max, 100U);
  EXPECT_EQ(s.count, 100U);
  // Fewer than a hundred values: p99 is the largest.
  EXPECT_EQ(spread_of({5, 1, 9}).p99, 9U);
  EXPECT_EQ(spread_of({5, 1, 9}).p50, 5U);
}

TEST(CheckJudgements, EdgeCountsAgainstTheDataRate) {
  StreamFacts stream;
  stream.odr_hz = 200;
  stream.elapsed_ns = 1'000'000'000;
  stream.edges = 181;
  EXPECT_EQ(judge_int1_edges(stream).status, Status::pass);
  stream.edges = 179;
  EXPECT_EQ(judge_int1_edges(stream).status, Status::fail);
  stream.edges = 221;
  EXPECT_EQ(judge_int1_edges(stream).status, Status::fail);
  // Lost edges still arrived at the pin: the rate is right, the reader was late.
  stream.edges = 190;
  stream.missed_edges = 10;
  const CheckResult late = judge_int1_edges(stream);
  EXPECT_EQ(late.status, Status::warn);
  EXPECT_THAT(late.detail, HasSubstr("190 edges in 1.00 s, expected about 200; 10 lost"));
  stream.edges = 0;
  stream.missed_edges = 0;
  EXPECT_THAT(judge_int1_edges(stream).remedy, HasSubstr("INT1 is wired"));
  stream.error = "needs the INT1 line";
  EXPECT_THAT(format_line(judge_int1_edges(stream)), HasSubstr("WARN int1-edges: not checked: needs the INT1 line"));
}

TEST(CheckJudgements, TimingSpreadsAgainstTheGate) {
  StreamFacts stream;
  stream.edges = 100;
  stream.snapshot_half_windows_ns.assign(100, 10'000);
  EXPECT_EQ(judge_snapshots(stream, 100'000).status, Status::pass);
  stream.snapshot_half_windows_ns.back() = 100'001;  // one past the gate
  EXPECT_EQ(judge_snapshots(stream, 100'000).status, Status::warn);
  stream.snapshot_half_windows_ns.assign(100, 50'001);  // p99 past half the gate
  EXPECT_EQ(judge_snapshots(stream, 100'000).status, Status::warn);
  stream.snapshot_half_windows_ns.assign(100, 50'000);
  EXPECT_EQ(judge_snapshots(stream, 100'000).status, Status::pass);
  stream.snapshot_half_windows_ns[98] = 100'001;
  stream.snapshot_half_windows_ns[99] = 100'001;
  const CheckResult wide = judge_snapshots(stream, 100'000);
  EXPECT_EQ(wide.status, Status::fail);
  EXPECT_THAT(wide.detail, HasSubstr("p99 100.0 us, max 100.0 us (gate 100.0 us)"));
  stream.snapshot_half_windows_ns[98] = 100'000;  // at the gate is within it
  stream.snapshot_half_windows_ns[99] = 100'000;
  EXPECT_EQ(judge_snapshots(stream, 100'000).status, Status::warn);
  // A lone stretched message in a short run warns; a second one fails.
  stream.snapshot_half_windows_ns.assign(30, 20'000);
  stream.snapshot_half_windows_ns[7] = 174'000;
  EXPECT_EQ(judge_snapshots(stream, 100'000).status, Status::warn);
  stream.snapshot_half_windows_ns[8] = 100'001;
  EXPECT_EQ(judge_snapshots(stream, 100'000).status, Status::fail);
  // The edges' windows are judged, also when the stream broke off after them.
  stream.bridge_half_windows_ns.assign(5, 1'000);
  const std::string bridge_line =
      "PASS clock-bridge: 5 event half windows, p50 1.0 us, p99 1.0 us, max 1.0 us (gate 100.0 us)";
  EXPECT_EQ(format_line(judge_bridge(stream, 100'000)), bridge_line);
  stream.error = "FIFO read failed";
  EXPECT_EQ(format_line(judge_bridge(stream, 100'000)), bridge_line);
  // No edge, no bridge to judge; snapshots do not need edges.
  stream.error.clear();
  stream.edges = 0;
  EXPECT_THAT(judge_bridge(stream, 100'000).detail, HasSubstr("not checked: no INT1 edge"));
}

TEST(CheckJudgements, DevicesAndAccess) {
  std::vector<ChipFacts> chips{{"gpiochip0", 0, "1000.gpio", 8, {}}, {"gpiochip1", 0, "34120000.gpio", 32, {}},
                               {"gpiochip2", 0, "34120000.gpio", 32, {}}};
  const CheckResult twice = judge_chip_label(chips, "34120000.gpio");
  EXPECT_EQ(twice.status, Status::warn);
  EXPECT_THAT(twice.detail, HasSubstr("the driver takes gpiochip1"));
  chips.pop_back();
  EXPECT_EQ(format_line(judge_chip_label(chips, "34120000.gpio")), "PASS gpio-label: 34120000.gpio is gpiochip1");
  // Who may open the chip shows, so a udev rule that did not match is seen from root.
  chips[1].access = {020600, "root", "root"};
  EXPECT_EQ(format_line(judge_chip_label(chips, "34120000.gpio")),
            "PASS gpio-label: 34120000.gpio is gpiochip1 (crw------- root:root)");
  chips[1].open_errno = EACCES;
  const CheckResult hidden = judge_chip_label(chips, "34120000.gpio");
  EXPECT_EQ(hidden.status, Status::fail);
  EXPECT_THAT(hidden.remedy, HasSubstr("usermod -aG pelmor"));
  EXPECT_EQ(judge_chips(chips).status, Status::warn);
  EXPECT_THAT(judge_chips(chips).detail, HasSubstr("gpiochip1 (Permission denied, crw------- root:root)"));

  SpidevFacts spidev{"/dev/spidev2.0", 0, {020660, "root", "pelmor"}, EACCES};
  const CheckResult refused = judge_spidev(spidev);
  EXPECT_THAT(format_line(refused),
              ::testing::StartsWith("FAIL spidev: /dev/spidev2.0 crw-rw---- root:pelmor, cannot be opened: Permission denied; remedy: "));
  EXPECT_THAT(refused.remedy, HasSubstr("group pelmor"));
  spidev.open_errno = 0;
  EXPECT_EQ(judge_spidev(spidev).status, Status::pass);

  EXPECT_THAT(judge_who_am_i(0xFF, 0x47).remedy, HasSubstr("nothing answers"));
  EXPECT_THAT(judge_who_am_i(0x12, 0x47).remedy, HasSubstr("another part"));
  EXPECT_THAT(judge_int1_line({"gpiochip0", 16, 16, 0, false, ""}).detail, HasSubstr("has only 16 lines"));
  EXPECT_THAT(judge_int1_line({"gpiochip0", 16, 32, 0, true, ""}).detail, HasSubstr("held by an unnamed consumer"));
}

TEST(CheckJudgements, RealTimeAndKernel) {
  RealtimeFacts rt;
  rt.refusal_errno = EPERM;
  rt.rtprio_soft = 0;
  rt.rtprio_hard = 0;
  // The driver runs on without it, but its timestamps lose their footing under load.
  const CheckResult refused = judge_realtime(rt);
  EXPECT_EQ(refused.status, Status::fail);
  EXPECT_EQ(refused.detail,
            "SCHED_FIFO 82 refused (Operation not permitted; RLIMIT_RTPRIO 0/0, CAP_SYS_NICE absent): the driver "
            "runs on at normal priority and says so at start");
  EXPECT_THAT(refused.remedy, HasSubstr("LimitRTPRIO=82"));
  rt.fifo_allowed = true;
  rt.rtprio_soft.reset();
  rt.rtprio_hard.reset();
  EXPECT_EQ(format_line(judge_realtime(rt)),
            "PASS realtime: SCHED_FIFO 82 allowed (RLIMIT_RTPRIO unlimited/unlimited, CAP_SYS_NICE absent)");

  EXPECT_EQ(judge_preemption("1", "", "").detail, "PREEMPT_RT");
  EXPECT_EQ(judge_preemption("", "#1 SMP PREEMPT_RT Debian", "").status, Status::pass);
  EXPECT_EQ(judge_preemption("", "#1 SMP PREEMPT_DYNAMIC", "none voluntary (full)").status, Status::pass);
  EXPECT_EQ(judge_preemption("", "#1 SMP PREEMPT_DYNAMIC", "none (voluntary) full").detail,
            "dynamic preemption, voluntary");
  EXPECT_EQ(judge_preemption("", "#1 SMP PREEMPT_DYNAMIC", "").status, Status::warn);
  EXPECT_EQ(judge_preemption("", "#1 SMP PREEMPT_DYNAMIC", "none voluntary (full").status, Status::warn);
  EXPECT_EQ(judge_preemption("", "#1 SMP PREEMPT Debian", "").status, Status::pass);
  EXPECT_EQ(judge_preemption("0", "#1 SMP Debian", "").status, Status::warn);

  EXPECT_EQ(judge_governor({}).status, Status::pass);
  EXPECT_EQ(judge_governor({"performance", "performance"}).status, Status::pass);
  const CheckResult mixed = judge_governor({"performance", "schedutil"});
  EXPECT_EQ(mixed.status, Status::warn);
  EXPECT_EQ(mixed.detail, "cpu0 performance, cpu1 schedutil");
}

// Every check against the board; each case one fault.
class CheckBoard : public ::testing::Test {
 protected:
  void SetUp() override { vb::reset(); }
  void TearDown() override { vb::reset(); }

  static std::vector<CheckResult> run() {
    CheckOptions options;
    options.rate_hz = 30;  // 200 edges a second: a short watch still counts many
    options.stream_ns = 300'000'000;
    return run_checks(options);
  }

  // Timing checks judge real clock brackets, which a loaded machine can stretch;
  // a healthy board gets three tries, as a user would rerun.
  static std::vector<CheckResult> run_until_timing_holds() {
    std::vector<CheckResult> results;
    for (int attempt = 0; attempt < 3; ++attempt) {
      results = run();
      if (find(results, "clock-bridge").status != Status::fail && find(results, "snapshots").status != Status::fail) {
        break;
      }
    }
    return results;
  }
};

TEST_F(CheckBoard, HealthyBoardPassesAndLeavesTheSensorQuiet) {
  const std::vector<CheckResult> results = run_until_timing_holds();
  for (const char* name : {"gpio-chips", "gpio-label", "int1-line", "spidev", "who-am-i", "int1-edges"}) {
    EXPECT_EQ(find(results, name).status, Status::pass) << listing(results);
  }
  // Nothing fails, unless this machine itself refuses real-time priority.
  for (const CheckResult& r : results) {
    if (r.name != "realtime") {
      EXPECT_NE(r.status, Status::fail) << listing(results);
    }
  }
  if (find(results, "realtime").status == Status::pass) {
    EXPECT_EQ(exit_status(results), 0);
  }
  EXPECT_EQ(find(results, "who-am-i").detail, "0x47");
  EXPECT_THAT(find(results, "int1-line").detail, HasSubstr("line 16 of gpiochip0 is free"));
  EXPECT_THAT(find(results, "snapshots").detail, HasSubstr("(gate 100.0 us)"));
  // Data-ready off, FIFO in bypass and empty, the INT1 line released, bank 0.
  EXPECT_EQ(vb::register_value(0, 0x65) & 0x08, 0);
  EXPECT_EQ(vb::register_value(0, 0x16) & 0xC0, 0);
  EXPECT_EQ(vb::fifo_level_bytes(), 0U);
  EXPECT_EQ(vb::active_bank(), 0);
  const int chip = ::open("/dev/gpiochip0", O_RDONLY | O_CLOEXEC);
  const int line = request_int1(chip, "after-check");
  EXPECT_GE(line, 0) << "the check kept INT1";
  ::close(line);
  ::close(chip);
}

TEST_F(CheckBoard, DeviceFaultsFailTheirCheckAndSkipWhatNeedsThem) {
  struct Case {
    const char* what;
    void (*inject)();
    const char* failing;
    const char* line;
    std::vector<const char*> skipped;
  };
  const std::vector<Case> cases{
      {"no chip with the label", [] { vb::set_chips({vb::ChipConfig{"gpiochip0", "1000.gpio", 32, 16, 0}}); },
       "gpio-label", "FAIL gpio-label: no chip is labelled 34120000.gpio; remedy: enable the GPIO controller",
       {"int1-line", "int1-edges", "clock-bridge", "snapshots"}},
      {"no spidev", [] { vb::set_spidev_present(false); }, "spidev",
       "FAIL spidev: /dev/spidev2.0 is absent; remedy: enable spidev on SPI bus 2",
       {"who-am-i", "int1-edges", "clock-bridge", "snapshots"}},
      {"wrong WHO_AM_I", [] { vb::set_who_am_i(0x12); }, "who-am-i", "FAIL who-am-i: 0x12, expected 0x47; remedy: ",
       {"int1-edges", "clock-bridge", "snapshots"}},
      {"dead INT1", [] { vb::set_chips({vb::ChipConfig{"gpiochip0", "34120000.gpio", 32, -1, 0}}); }, "int1-edges",
       "FAIL int1-edges: 0 edges in 0.30 s, expected about 60; 0 lost to sequence gaps; remedy: no edge",
       {"clock-bridge"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    vb::reset();
    c.inject();
    const std::vector<CheckResult> results = run();
    EXPECT_EQ(exit_status(results), 1);
    EXPECT_THAT(format_line(find(results, c.failing)), ::testing::StartsWith(c.line)) << listing(results);
    for (const char* name : c.skipped) {
      EXPECT_THAT(format_line(find(results, name)), HasSubstr("WARN " + std::string(name) + ": not checked"))
          << listing(results);
    }
    for (const CheckResult& r : results) {
      if (r.status != Status::pass) {
        EXPECT_FALSE(r.remedy.empty()) << r.name;
      }
    }
  }
}

TEST_F(CheckBoard, HeldLineNamesItsConsumer) {
  const int chip = ::open("/dev/gpiochip0", O_RDONLY | O_CLOEXEC);
  ASSERT_GE(chip, 0);
  const int line = request_int1(chip, "imu-other");
  ASSERT_GE(line, 0);

  const std::vector<CheckResult> results = run();
  EXPECT_THAT(format_line(find(results, "int1-line")),
              ::testing::StartsWith("FAIL int1-line: line 16 of gpiochip0 is held by \"imu-other\"; remedy: stop"));
  EXPECT_THAT(find(results, "int1-edges").detail, HasSubstr("not checked: needs the INT1 line"));
  EXPECT_EQ(exit_status(results), 1);
  ::close(line);
  ::close(chip);
}

TEST_F(CheckBoard, StretchedSnapshotsFailTheTimingCheck) {
  vb::stretch_spi_message(vb::SpiMessageKind::tmst_snapshot, 250'000, vb::Trigger::from());
  const std::vector<CheckResult> results = run();
  const CheckResult& snapshots = find(results, "snapshots");
  EXPECT_EQ(snapshots.status, Status::fail) << listing(results);
  EXPECT_THAT(snapshots.remedy, HasSubstr("performance governor"));
  EXPECT_EQ(find(results, "int1-edges").status, Status::pass) << listing(results);
  EXPECT_EQ(exit_status(results), 1);
}
