#include "gpio_chardev.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "descriptors.hpp"
#include "real.hpp"

namespace pelmor_vboard::detail {

namespace {

constexpr std::uint64_t valid_line_flags =
    GPIO_V2_LINE_FLAG_ACTIVE_LOW | GPIO_V2_LINE_FLAG_INPUT | GPIO_V2_LINE_FLAG_OUTPUT |
    GPIO_V2_LINE_FLAG_EDGE_RISING | GPIO_V2_LINE_FLAG_EDGE_FALLING | GPIO_V2_LINE_FLAG_OPEN_DRAIN |
    GPIO_V2_LINE_FLAG_OPEN_SOURCE | GPIO_V2_LINE_FLAG_BIAS_PULL_UP | GPIO_V2_LINE_FLAG_BIAS_PULL_DOWN |
    GPIO_V2_LINE_FLAG_BIAS_DISABLED | GPIO_V2_LINE_FLAG_EVENT_CLOCK_REALTIME | GPIO_V2_LINE_FLAG_EVENT_CLOCK_HTE;

int line_flags_error(std::uint64_t flags) {
  if ((flags & ~valid_line_flags) != 0) return EINVAL;
  if ((flags & GPIO_V2_LINE_FLAG_EVENT_CLOCK_HTE) != 0) return EOPNOTSUPP;
  if ((flags & GPIO_V2_LINE_FLAG_INPUT) && (flags & GPIO_V2_LINE_FLAG_OUTPUT)) return EINVAL;
  const std::uint64_t edges = GPIO_V2_LINE_FLAG_EDGE_RISING | GPIO_V2_LINE_FLAG_EDGE_FALLING;
  if ((flags & edges) && !(flags & GPIO_V2_LINE_FLAG_INPUT)) return EINVAL;
  if ((flags & GPIO_V2_LINE_FLAG_OPEN_DRAIN) && (flags & GPIO_V2_LINE_FLAG_OPEN_SOURCE)) return EINVAL;
  const std::uint64_t drive = GPIO_V2_LINE_FLAG_OPEN_DRAIN | GPIO_V2_LINE_FLAG_OPEN_SOURCE;
  if ((flags & drive) && !(flags & GPIO_V2_LINE_FLAG_OUTPUT)) return EINVAL;
  const std::uint64_t bias =
      GPIO_V2_LINE_FLAG_BIAS_PULL_UP | GPIO_V2_LINE_FLAG_BIAS_PULL_DOWN | GPIO_V2_LINE_FLAG_BIAS_DISABLED;
  const std::uint64_t direction = GPIO_V2_LINE_FLAG_INPUT | GPIO_V2_LINE_FLAG_OUTPUT;
  if ((flags & bias) && !(flags & direction)) return EINVAL;
  const std::uint64_t b = flags & bias;
  if (b != 0 && (b & (b - 1)) != 0) return EINVAL;
  return 0;
}

bool all_zero(const void* p, std::size_t n) {
  const auto* bytes = static_cast<const unsigned char*>(p);
  return std::all_of(bytes, bytes + n, [](unsigned char c) { return c == 0; });
}

// Flags of line `index` of a request: an attribute may override the global flags.
std::uint64_t line_config_flags(const gpio_v2_line_config& config, std::uint32_t index) {
  for (std::uint32_t i = 0; i < config.num_attrs && i < GPIO_V2_LINE_NUM_ATTRS_MAX; ++i) {
    const auto& attr = config.attrs[i];
    if (attr.attr.id == GPIO_V2_LINE_ATTR_ID_FLAGS && (attr.mask >> index) & 1ULL) return attr.attr.flags;
  }
  return config.flags;
}

int config_error(const gpio_v2_line_config& config, std::uint32_t num_lines) {
  if (config.num_attrs > GPIO_V2_LINE_NUM_ATTRS_MAX) return EINVAL;
  if (!all_zero(config.padding, sizeof config.padding)) return EINVAL;
  for (std::uint32_t i = 0; i < num_lines; ++i) {
    if (int e = line_flags_error(line_config_flags(config, i))) return e;
  }
  return 0;
}

}  // namespace

void GpioChardev::orphan_all() {
  for (auto& [fd, line] : lines_) {
    line->orphaned = true;
    if (line->write_fd >= 0) {
      real_close(line->write_fd);  // the reader sees POLLHUP
      line->write_fd = -1;
    }
  }
}

void GpioChardev::release(int fd) {
  auto it = lines_.find(fd);
  if (it == lines_.end()) return;
  LineRequest& line = *it->second;
  if (line.write_fd >= 0) real_close(line.write_fd);
  if (!line.orphaned && line.record < records_.line_records.size()) records_.line_records[line.record].released = true;
  lines_.erase(it);
}

LineRequest* GpioChardev::listener(std::size_t chip, std::uint32_t offset) {
  for (auto& [fd, line] : lines_) {
    if (line->orphaned || line->chip != chip) continue;
    const auto& offs = line->offsets;
    if (std::find(offs.begin(), offs.end(), offset) != offs.end()) return line.get();
  }
  return nullptr;
}

int GpioChardev::chip_ioctl(std::size_t chip_index, unsigned long request, void* arg) {
  if (chip_index >= config_.chips.size()) return -ENODEV;
  const ChipConfig& chip = config_.chips[chip_index];
  if (request == GPIO_GET_CHIPINFO_IOCTL) {
    gpiochip_info info{};
    std::strncpy(info.name, chip.name.c_str(), sizeof info.name - 1);
    std::strncpy(info.label, chip.label.c_str(), sizeof info.label - 1);
    info.lines = chip.lines;
    std::memcpy(arg, &info, sizeof info);
    return 0;
  }
  if (request == GPIO_V2_GET_LINEINFO_IOCTL) {
    gpio_v2_line_info info{};
    std::memcpy(&info, arg, sizeof info);
    if (!all_zero(info.padding, sizeof info.padding)) return -EINVAL;
    if (info.offset >= chip.lines) return -EINVAL;
    const std::uint32_t offset = info.offset;
    info = gpio_v2_line_info{};
    info.offset = offset;
    if (LineRequest* line = listener(chip_index, offset)) {
      info.flags = line->flags | GPIO_V2_LINE_FLAG_USED;
      if (line->record < records_.line_records.size()) {
        std::strncpy(info.consumer, records_.line_records[line->record].consumer.c_str(), sizeof info.consumer - 1);
      }
    } else {
      info.flags = GPIO_V2_LINE_FLAG_INPUT;
    }
    std::memcpy(arg, &info, sizeof info);
    return 0;
  }
  return -EINVAL;
}

int GpioChardev::request_line(std::size_t chip_index, gpio_v2_line_request* user,
                              const std::function<void(int)>& release_stale) {
  gpio_v2_line_request req{};
  std::memcpy(&req, user, sizeof req);
  const ChipConfig& chip = config_.chips[chip_index];
  LineRequestRecord rec;
  rec.chip_name = chip.name;
  rec.num_lines = req.num_lines;
  for (std::uint32_t i = 0; i < req.num_lines && i < GPIO_V2_LINES_MAX; ++i) rec.offsets.push_back(req.offsets[i]);
  rec.consumer.assign(req.consumer, strnlen(req.consumer, sizeof req.consumer));
  rec.flags = req.config.flags;
  rec.num_attrs = req.config.num_attrs;
  rec.event_buffer_size = req.event_buffer_size;
  rec.raw.assign(reinterpret_cast<const std::uint8_t*>(&req), reinterpret_cast<const std::uint8_t*>(&req) + sizeof req);

  auto refuse = [&](int error) {
    rec.error_number = error;
    records_.line_records.push_back(rec);
    return -error;
  };
  if (req.num_lines == 0 || req.num_lines > GPIO_V2_LINES_MAX) return refuse(EINVAL);
  if (!all_zero(req.padding, sizeof req.padding)) return refuse(EINVAL);
  if (int e = config_error(req.config, req.num_lines)) return refuse(e);
  for (std::uint32_t i = 0; i < req.num_lines; ++i) {
    if (req.offsets[i] >= chip.lines) return refuse(EINVAL);
    for (std::uint32_t j = 0; j < i; ++j) {
      if (req.offsets[j] == req.offsets[i]) return refuse(EBUSY);
    }
    if (listener(chip_index, req.offsets[i]) != nullptr) return refuse(EBUSY);
  }
  std::uint32_t depth = req.event_buffer_size != 0 ? req.event_buffer_size : req.num_lines * 16;
  depth = std::min<std::uint32_t>(depth, GPIO_V2_LINES_MAX * 16);
  std::uint32_t capacity = 1;
  while (capacity < depth) capacity <<= 1;  // the kernel's fifo is a power of two
  rec.effective_buffer_size = capacity;

  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) != 0) return refuse(errno);
  if (fds[0] >= fd_table_size) {
    real_close(fds[0]);
    real_close(fds[1]);
    return refuse(EMFILE);
  }
  ::fcntl(fds[1], F_SETFL, O_NONBLOCK);
  release_stale(fds[0]);
  auto line = std::make_unique<LineRequest>();
  line->fd = fds[0];
  line->write_fd = fds[1];
  line->chip = chip_index;
  line->offsets = rec.offsets;
  line->line_seqno.assign(rec.offsets.size(), 0);
  line->flags = line_config_flags(req.config, 0);
  line->capacity = capacity;
  line->record = records_.line_records.size();
  rec.fd = fds[0];
  records_.line_records.push_back(rec);
  lines_[fds[0]] = std::move(line);
  user->fd = fds[0];
  return fds[0];
}

int GpioChardev::line_ioctl(int fd, unsigned long request, void* arg, bool int1_high) {
  auto it = lines_.find(fd);
  if (it == lines_.end()) return -EBADF;
  LineRequest& line = *it->second;
  if (request == GPIO_V2_LINE_GET_VALUES_IOCTL) {
    gpio_v2_line_values values{};
    std::memcpy(&values, arg, sizeof values);
    if (values.mask == 0) return -EINVAL;
    values.bits = 0;
    const std::int32_t wired = line.chip < config_.chips.size() ? config_.chips[line.chip].int1_offset : -1;
    for (std::size_t i = 0; i < line.offsets.size(); ++i) {
      if (!((values.mask >> i) & 1ULL)) continue;
      bool level = static_cast<std::int32_t>(line.offsets[i]) == wired ? int1_high : false;
      if (line.flags & GPIO_V2_LINE_FLAG_ACTIVE_LOW) level = !level;
      if (level) values.bits |= 1ULL << i;
    }
    std::memcpy(arg, &values, sizeof values);
    return 0;
  }
  if (request == GPIO_V2_LINE_SET_VALUES_IOCTL) return -EPERM;
  if (request == GPIO_V2_LINE_SET_CONFIG_IOCTL) {
    gpio_v2_line_config cfg{};
    std::memcpy(&cfg, arg, sizeof cfg);
    if (int e = config_error(cfg, static_cast<std::uint32_t>(line.offsets.size()))) return -e;
    line.flags = line_config_flags(cfg, 0);
    return 0;
  }
  return -EINVAL;
}

ssize_t GpioChardev::read_events(int fd, void* buf, std::size_t count) {
  auto it = lines_.find(fd);
  if (it == lines_.end()) return 0;
  LineRequest& line = *it->second;
  std::size_t n = 0;
  auto* out = static_cast<unsigned char*>(buf);
  while (!line.queue.empty() && (n + 1) * sizeof(gpio_v2_line_event) <= count) {
    std::memcpy(out + n * sizeof(gpio_v2_line_event), &line.queue.front().event, sizeof(gpio_v2_line_event));
    line.queue.pop_front();
    ++n;
  }
  records_.counters.events_read += n;
  if (line.queue.empty() && line.byte_in_pipe) {
    char byte = 0;
    if (real_read(fd, &byte, 1) == 1) line.byte_in_pipe = false;
  }
  return static_cast<ssize_t>(n * sizeof(gpio_v2_line_event));
}

std::uint64_t GpioChardev::next_due() const {
  std::uint64_t due = never;
  for (const auto& [fd, line] : lines_) {
    if (!line->orphaned && !line->pending.empty()) due = std::min(due, line->pending.front().due_raw);
  }
  return due;
}

std::uint64_t GpioChardev::pending_due(int fd) const {
  auto it = lines_.find(fd);
  if (it == lines_.end() || it->second->orphaned || it->second->pending.empty()) return never;
  return it->second->pending.front().due_raw;
}

// The first line in descriptor order wins a tie.
LineRequest* GpioChardev::earliest_pending(std::uint64_t& due) {
  LineRequest* first = nullptr;
  due = never;
  for (auto& [fd, line] : lines_) {
    if (!line->orphaned && !line->pending.empty() && line->pending.front().due_raw < due) {
      due = line->pending.front().due_raw;
      first = line.get();
    }
  }
  return first;
}

void GpioChardev::schedule_event(LineRequest& line, std::uint32_t offset, std::uint32_t id, std::uint64_t raw,
                                 std::uint64_t edge_number, bool drop, SampleTruth* sample) {
  const std::uint64_t latency = timeline_.irq_latency();
  const std::uint64_t readable = timeline_.irq_readable_delay();
  const std::uint64_t due = std::max(raw + latency + readable, line.last_due + 1);
  const std::uint64_t stamp = due - readable;
  line.last_due = due;
  PendingEvent pe;
  pe.due_raw = due;
  pe.stamp_raw = timeline_.to_monotonic(stamp);  // kept on CLOCK_MONOTONIC from here on
  pe.id = id;
  pe.offset = offset;
  pe.edge_number = edge_number;
  pe.drop = drop;
  line.pending.push_back(pe);
  if (sample != nullptr) {
    sample->irq_latency_ns = stamp - raw;
    if (!drop) sample->event_monotonic_ns = pe.stamp_raw;
  }
  if (EdgeTruth* e = records_.edge_truth.find(edge_number)) {
    e->due_raw_ns = due;
    if (!drop) e->event_monotonic_ns = pe.stamp_raw;
  }
  wake_();
}

void GpioChardev::make_visible(LineRequest& line, std::uint64_t now) {
  const PendingEvent pe = line.pending.front();
  line.pending.pop_front();
  std::size_t index = 0;
  while (index < line.offsets.size() && line.offsets[index] != pe.offset) ++index;
  if (index == line.offsets.size()) return;
  const std::uint32_t line_seqno = ++line.line_seqno[index];
  const std::uint32_t seqno = line.offsets.size() == 1 ? line_seqno : ++line.seqno;
  Ring<SampleTruth>& truth = records_.truth;
  EdgeTruth* edge = records_.edge_truth.find(pe.edge_number);
  SampleTruth* sample =
      (edge != nullptr && edge->sample_index != UINT64_MAX) ? truth.find(edge->sample_index) : nullptr;
  if (edge != nullptr) edge->line_seqno = line_seqno;
  if (sample != nullptr) sample->line_seqno = line_seqno;

  gpio_v2_line_event ev{};
  ev.timestamp_ns = pe.stamp_raw;
  if (line.flags & GPIO_V2_LINE_FLAG_EVENT_CLOCK_REALTIME) {
    ev.timestamp_ns = pe.stamp_raw + (realtime_now() - monotonic_now());
  }
  ev.id = pe.id;
  ev.offset = pe.offset;
  ev.seqno = seqno;
  ev.line_seqno = line_seqno;
  if (pe.drop) {
    // The kernel loses events only to a full buffer, and then the oldest ones:
    // a dropped edge is one the reader has not seen when the next edge
    // overflows the buffer, which loses as many of the oldest unread events.
    line.overflowing.push_back(QueuedEvent{ev, pe.edge_number});
    return;
  }
  for (std::size_t lost = line.overflowing.size(); lost > 0; --lost) {
    if (!line.queue.empty()) {
      discard(line.queue.front());
      line.queue.pop_front();
    } else {
      discard(line.overflowing.front());
      line.overflowing.pop_front();
    }
  }
  for (const QueuedEvent& survivor : line.overflowing) line.queue.push_back(survivor);
  line.overflowing.clear();
  if (line.queue.size() >= line.capacity) {  // the kernel keeps the newest
    discard(line.queue.front());
    line.queue.pop_front();
  }
  line.queue.push_back(QueuedEvent{ev, pe.edge_number});
  ++records_.counters.events_queued;
  if (edge != nullptr) edge->queued_raw_ns = now;
  if (std::int64_t* l = records_.lateness.push()) *l = static_cast<std::int64_t>(now - pe.due_raw);
  if (!line.byte_in_pipe && line.write_fd >= 0) {
    const char byte = 1;
    if (real_write(line.write_fd, &byte, 1) == 1) line.byte_in_pipe = true;
  }
}

void GpioChardev::discard(const QueuedEvent& lost) {
  ++records_.counters.events_discarded;
  if (EdgeTruth* old = records_.edge_truth.find(lost.edge_number)) {
    if (SampleTruth* s = old->sample_index != UINT64_MAX ? records_.truth.find(old->sample_index) : nullptr) {
      s->event_discarded = true;
    }
  }
}

template <typename OnLine>
void GpioChardev::for_each_int1_listener(const Int1Drive& drive, OnLine&& on_line) {
  for (std::size_t chip = 0; chip < config_.chips.size(); ++chip) {
    const std::int32_t wired = config_.chips[chip].int1_offset;
    if (wired < 0) continue;
    const auto offset = static_cast<std::uint32_t>(wired);
    LineRequest* line = listener(chip, offset);
    if (line == nullptr) continue;
    // Asserting INT1 is a rising edge on the line unless exactly one of the
    // pin and the request is active-low.
    const bool active_low = (line->flags & GPIO_V2_LINE_FLAG_ACTIVE_LOW) != 0;
    on_line(*line, offset, drive.active_high != active_low);
  }
}

bool GpioChardev::assert_int1(const Int1Drive& drive, std::uint64_t raw, std::uint64_t edge_number, bool drop,
                              SampleTruth* sample) {
  bool observed = false;
  for_each_int1_listener(drive, [&](LineRequest& line, std::uint32_t offset, bool assert_rising) {
    const std::uint64_t want_assert = assert_rising ? GPIO_V2_LINE_FLAG_EDGE_RISING : GPIO_V2_LINE_FLAG_EDGE_FALLING;
    const std::uint64_t want_release = assert_rising ? GPIO_V2_LINE_FLAG_EDGE_FALLING : GPIO_V2_LINE_FLAG_EDGE_RISING;
    if (line.flags & want_assert) {
      schedule_event(line, offset, assert_rising ? GPIO_V2_LINE_EVENT_RISING_EDGE : GPIO_V2_LINE_EVENT_FALLING_EDGE,
                     raw, edge_number, drop, sample);
      observed = true;
    }
    if ((line.flags & want_release) && !drive.latched) {
      schedule_event(line, offset, assert_rising ? GPIO_V2_LINE_EVENT_FALLING_EDGE : GPIO_V2_LINE_EVENT_RISING_EDGE,
                     raw + drive.pulse_ns, UINT64_MAX, false, nullptr);
      observed = true;
    }
  });
  return observed;
}

void GpioChardev::release_int1(const Int1Drive& drive, std::uint64_t raw) {
  for_each_int1_listener(drive, [&](LineRequest& line, std::uint32_t offset, bool assert_rising) {
    const bool release_rising = !assert_rising;
    if (line.flags & (release_rising ? GPIO_V2_LINE_FLAG_EDGE_RISING : GPIO_V2_LINE_FLAG_EDGE_FALLING)) {
      schedule_event(line, offset, release_rising ? GPIO_V2_LINE_EVENT_RISING_EDGE : GPIO_V2_LINE_EVENT_FALLING_EDGE,
                     raw, UINT64_MAX, false, nullptr);
    }
  });
}

}  // namespace pelmor_vboard::detail
