#include "timing/gpio_interrupt_line.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <linux/gpio.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>

#include "common/clock.hpp"
#include "common/system_error_text.hpp"

namespace pelmor_lusk {

// The library depends on these exact kernel layouts.
static_assert(sizeof(gpiochip_info) == 68);
static_assert(offsetof(gpiochip_info, label) == 32);
static_assert(offsetof(gpiochip_info, lines) == 64);
static_assert(sizeof(gpio_v2_line_request) == 592);
static_assert(offsetof(gpio_v2_line_request, offsets) == 0);
static_assert(offsetof(gpio_v2_line_request, consumer) == 256);
static_assert(offsetof(gpio_v2_line_request, config) == 288);
static_assert(offsetof(gpio_v2_line_request, config.flags) == 288);
static_assert(offsetof(gpio_v2_line_request, config.num_attrs) == 296);
static_assert(offsetof(gpio_v2_line_request, config.padding) == 300);
static_assert(offsetof(gpio_v2_line_request, config.attrs) == 320);
static_assert(sizeof(gpio_v2_line_config_attribute) == 24);
static_assert(offsetof(gpio_v2_line_request, num_lines) == 560);
static_assert(offsetof(gpio_v2_line_request, event_buffer_size) == 564);
static_assert(offsetof(gpio_v2_line_request, padding) == 568);
static_assert(offsetof(gpio_v2_line_request, fd) == 588);
static_assert(sizeof(gpio_v2_line_event) == 48);
static_assert(offsetof(gpio_v2_line_event, id) == 8);
static_assert(offsetof(gpio_v2_line_event, offset) == 12);
static_assert(offsetof(gpio_v2_line_event, seqno) == 16);
static_assert(offsetof(gpio_v2_line_event, line_seqno) == 20);
static_assert(offsetof(gpio_v2_line_event, padding) == 24);
static_assert(GPIO_GET_CHIPINFO_IOCTL == 0x8044B401UL);
static_assert(GPIO_V2_GET_LINE_IOCTL == 0xC250B407UL);
static_assert(sizeof(gpio_chip_label) == 14);
static_assert(sizeof(gpio_consumer_label) <= GPIO_MAX_NAME_SIZE);

namespace {

constexpr short wanted_poll_events = POLLIN | POLLPRI | POLLERR;
static_assert(wanted_poll_events == 11);
constexpr std::uint64_t line_request_flags = GPIO_V2_LINE_FLAG_INPUT | GPIO_V2_LINE_FLAG_EDGE_RISING;
static_assert(line_request_flags == 0x14);

struct DirCloser {
  void operator()(DIR* dir) const noexcept { ::closedir(dir); }
};

UniqueFd find_gpio_chip() {
  std::unique_ptr<DIR, DirCloser> dir(::opendir("/dev"));
  if (!dir) throw_errno_error("failed to open /dev while locating GPIO chip");
  // First match in directory order wins; unopenable or unqueryable entries are skipped.
  while (const dirent* entry = ::readdir(dir.get())) {
    if (std::strncmp(entry->d_name, "gpiochip", 8) != 0) continue;
    const std::string path = std::string("/dev/") + entry->d_name;
    UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd) continue;
    gpiochip_info info;
    std::memset(&info, 0, sizeof info);
    if (::ioctl(fd.get(), GPIO_GET_CHIPINFO_IOCTL, &info) == 0 &&
        std::memcmp(info.label, gpio_chip_label, sizeof gpio_chip_label) == 0) {
      return fd;
    }
  }
  throw std::runtime_error(std::string("failed to locate GPIO chip label ") + gpio_chip_label);
}

}  // namespace

void apply_line_sequence(LineSequenceState& state, std::uint32_t line_seqno, BridgedEvent& event) {
  event.line_seqno = line_seqno;
  if (state.have_last && line_seqno != state.last + 1U) {
    event.missed_line_events = line_seqno - 1U - state.last;
    event.seqno_gap = true;
  } else {
    event.missed_line_events = 0;
    event.seqno_gap = false;
  }
  state.last = line_seqno;
  state.have_last = true;
}

void GpioInterruptLine::open_interrupt_line() {
  trace_ = BridgeTrace{};
  metrics_ = BridgeMetrics{};
  sequence_ = LineSequenceState{};

  chip_fd_ = find_gpio_chip();

  gpio_v2_line_request request;
  std::memset(&request, 0, sizeof request);
  request.offsets[0] = gpio_int1_line_offset;
  std::memcpy(request.consumer, gpio_consumer_label, sizeof gpio_consumer_label);
  request.config.flags = line_request_flags;
  request.num_lines = 1;
  request.event_buffer_size = gpio_event_buffer_size;
  if (::ioctl(chip_fd_.get(), GPIO_V2_GET_LINE_IOCTL, &request) != 0) {
    // The chip descriptor stays stored; teardown closes it.
    throw_errno_error("failed to request GPIO395 INT1 rising-edge events");
  }
  line_fd_.reset(request.fd);
  if (request.fd < 0) throw std::runtime_error("GPIO395 line request returned an invalid fd");
}

bool GpioInterruptLine::read_line_event(BridgedEvent& event, int timeout_ms) {
  pollfd pfd{line_fd_.get(), wanted_poll_events, 0};
  const std::uint64_t poll_start = read_raw_ns();
  const int poll_result = ::poll(&pfd, 1, timeout_ms);
  const int poll_errno = errno;
  const std::uint64_t poll_end = read_raw_ns();
  if (poll_result == 0) return false;
  if (poll_result < 0) {
    if (poll_errno == EINTR) return false;
    throw std::runtime_error(errno_text("poll GPIO395 line event", poll_errno));
  }
  if ((pfd.revents & wanted_poll_events) == 0) return false;

  gpio_v2_line_event record;
  std::memset(&record, 0, sizeof record);
  const std::uint64_t read_start = read_raw_ns();
  const ssize_t bytes = ::read(line_fd_.get(), &record, sizeof record);
  const int read_errno = errno;
  const std::uint64_t read_end = read_raw_ns();
  if (bytes < 0) {
    if (read_errno == EAGAIN || read_errno == EINTR) return false;
    throw std::runtime_error(errno_text("read GPIO395 line event", read_errno));
  }
  if (bytes != static_cast<ssize_t>(sizeof record)) throw std::runtime_error("short GPIO395 line event read");
  if (record.id != GPIO_V2_LINE_EVENT_RISING_EDGE) return false;

  const ClockBracket bracket = read_clock_bracket();
  const BridgeResult bridge = bridge_event(record.timestamp_ns, bracket, read_end);

  BridgedEvent out;
  out.raw_ns = bridge.raw_ns;
  out.half_window_ns = bridge.half_window_ns;
  out.delivery_age_ns = bridge.delivery_age_abs_ns;
  out.valid = bridge.valid;
  out.reject_reason = bridge.reject_reason;
  apply_line_sequence(sequence_, record.line_seqno, out);

  const std::uint64_t poll_wait = poll_end - poll_start;
  const std::uint64_t read_elapsed = read_end - read_start;
  update_bridge_metrics(metrics_, bridge, poll_wait, read_elapsed);
  if (!bridge.valid) {
    BridgeTraceEntry entry;
    entry.poll_wait_ns = poll_wait;
    entry.read_elapsed_ns = read_elapsed;
    entry.before_monotonic_ns = bracket.before_monotonic_ns;
    entry.before_raw_ns = bracket.before_raw_ns;
    entry.after_monotonic_ns = bracket.after_monotonic_ns;
    entry.after_raw_ns = bracket.after_raw_ns;
    entry.monotonic_span_ns = bridge.monotonic_span_ns;
    entry.raw_span_ns = bridge.raw_span_ns;
    entry.before_offset_ns = bridge.before_offset_ns;
    entry.after_offset_ns = bridge.after_offset_ns;
    entry.offset_delta_ns = bridge.offset_delta_ns;
    entry.event_monotonic_ns = record.timestamp_ns;
    entry.line_seqno = record.line_seqno;
    entry.bridge_half_window_ns = bridge.half_window_ns;
    entry.reject_reason = bridge.reject_reason;
    entry.poll_result = poll_result;
    entry.poll_revents = pfd.revents;
    entry.bytes = bytes;
    record_bridge_reject(trace_, entry);
  }
  event = out;
  return true;
}

GpioDrainStats GpioInterruptLine::drain() {
  GpioDrainStats stats;
  BridgedEvent event;
  while (read_line_event(event, 0)) stats.add(event);
  return stats;
}

void GpioInterruptLine::log_bridge_metrics() const { pelmor_lusk::log_bridge_metrics(metrics_); }

void GpioInterruptLine::log_bridge_trace() const { pelmor_lusk::log_bridge_trace(trace_); }

}  // namespace pelmor_lusk
