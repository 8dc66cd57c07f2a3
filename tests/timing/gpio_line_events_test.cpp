// The event reader on a pipe standing in for the line descriptor, for wake-ups
// and records a real line cannot be made to produce on demand.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <linux/gpio.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstring>
#include <stdexcept>
#include <string>
#include <thread>

#include "common/clock.hpp"
#include "timing/gpio_interrupt_line.hpp"
#include "timing_test_support.hpp"

namespace pelmor_lusk {
namespace {

using testing_support::error_of;

struct Pipe {
  UniqueFd reader, writer;
};
Pipe make_pipe() {
  int fds[2];
  EXPECT_EQ(::pipe2(fds, O_CLOEXEC), 0);
  return Pipe{UniqueFd(fds[0]), UniqueFd(fds[1])};
}
GpioInterruptLine line_on(UniqueFd& fd) { return GpioInterruptLine(UniqueFd(), std::move(fd)); }

void write_event(const UniqueFd& fd, std::uint32_t id, std::uint32_t line_seqno) {
  gpio_v2_line_event e;
  std::memset(&e, 0, sizeof e);
  e.timestamp_ns = static_cast<std::uint64_t>(read_clock_ns(CLOCK_MONOTONIC, "CLOCK_MONOTONIC"));
  e.id = id;
  e.line_seqno = line_seqno;
  ASSERT_EQ(::write(fd.get(), &e, sizeof e), static_cast<ssize_t>(sizeof e));
}

TEST(GpioLineEvents, RisingEdgesAreBridgedAndSequencedOthersLeaveNoTrace) {
  Pipe p = make_pipe();
  const UniqueFd& w = p.writer;
  GpioInterruptLine line = line_on(p.reader);
  BridgedEvent e;
  EXPECT_FALSE(line.read_line_event(e, 0));

  write_event(w, GPIO_V2_LINE_EVENT_RISING_EDGE, 5);
  write_event(w, GPIO_V2_LINE_EVENT_FALLING_EDGE, 6);
  write_event(w, GPIO_V2_LINE_EVENT_RISING_EDGE, 7);
  const std::uint64_t written = read_raw_ns();
  ASSERT_TRUE(line.read_line_event(e, 0));
  EXPECT_FALSE(e.seqno_gap);
  EXPECT_LE(e.raw_ns, written + e.half_window_ns);  // stamped before `written`

  EXPECT_FALSE(line.read_line_event(e, 0));  // the falling edge, consumed and ignored
  EXPECT_EQ(line.last_line_seqno(), 5U);
  EXPECT_EQ(line.metrics().events, 1U);
  ASSERT_TRUE(line.read_line_event(e, 0));
  EXPECT_EQ(e.missed_line_events, 1U);

  line.forget_last_sequence();
  write_event(w, GPIO_V2_LINE_EVENT_RISING_EDGE, 100);
  ASSERT_TRUE(line.read_line_event(e, 0));
  EXPECT_FALSE(e.seqno_gap);
}

TEST(GpioLineEvents, HangUpAloneIsNoEventButShortOrFailedReadsAreErrors) {
  BridgedEvent e;
  // Writer gone, nothing buffered: only POLLHUP. A read would return 0 and fail as
  // short, so a plain false shows nothing was read.
  Pipe p = make_pipe();
  GpioInterruptLine hung_up = line_on(p.reader);
  p.writer.reset();
  EXPECT_FALSE(hung_up.read_line_event(e, 1000));

  p = make_pipe();
  GpioInterruptLine partial = line_on(p.reader);
  const char bytes[47] = {};
  ASSERT_EQ(::write(p.writer.get(), bytes, sizeof bytes), 47);
  EXPECT_EQ(error_of<std::runtime_error>([&] { partial.read_line_event(e, 0); }), "short GPIO395 line event read");

  // A peer that shut down polls readable and reads nothing: short too, not an errno.
  int pair[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
  UniqueFd ended(pair[0]);
  UniqueFd peer(pair[1]);
  GpioInterruptLine at_end = line_on(ended);
  peer.reset();
  EXPECT_EQ(error_of<std::runtime_error>([&] { at_end.read_line_event(e, 0); }), "short GPIO395 line event read");

  // A write end without reader polls as POLLERR and cannot be read.
  p = make_pipe();
  p.reader.reset();
  GpioInterruptLine unreadable = line_on(p.writer);
  EXPECT_EQ(error_of<std::runtime_error>([&] { unreadable.read_line_event(e, 0); }),
            "read GPIO395 line event, errno=9 (Bad file descriptor)");
}

extern "C" void ignore_signal(int) {}

TEST(GpioLineEvents, ASignalDuringTheWaitIsAnEmptyWaitNotAnError) {
  struct sigaction action {};
  action.sa_handler = ignore_signal;  // no SA_RESTART: poll returns EINTR
  struct sigaction previous {};
  ASSERT_EQ(::sigaction(SIGUSR1, &action, &previous), 0);
  Pipe p = make_pipe();
  GpioInterruptLine line = line_on(p.reader);
  std::atomic<bool> done{false};
  std::string error = "not run";
  bool got_event = true;
  std::thread waiter([&] {
    BridgedEvent e;
    error = error_of<std::runtime_error>([&] { got_event = line.read_line_event(e, 60000); });
    done.store(true);
  });
  // Signals that land before the wait begins are simply handled; keep sending.
  while (!done.load()) {
    ::pthread_kill(waiter.native_handle(), SIGUSR1);
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  waiter.join();
  ::sigaction(SIGUSR1, &previous, nullptr);
  EXPECT_EQ(error, "");
  EXPECT_FALSE(got_event);
}

}  // namespace
}  // namespace pelmor_lusk
